#include "tools/kestd/events.h"

#include <asio/post.hpp>
#include <csignal>
#include <utility>

namespace kest::service
{

eventTimer::eventTimer(asio::io_context& context) : m_timer(context) {}
eventTimer::~eventTimer() = default;

void eventTimer::start(std::chrono::steady_clock::duration pause, std::function<void()> step)
{
    m_timer.expires_after(pause);
    m_timer.async_wait([step = std::move(step)](const asio::error_code& /*error*/) { step(); });
}

void eventTimer::cancel() { m_timer.cancel(); }
void eventTimer::cancelSoon()
{
    asio::post(m_timer.get_executor(), [this] { m_timer.cancel(); });
}

eventSignals::eventSignals(asio::io_context& context) : m_signals(context, SIGTERM, SIGINT, SIGHUP) {}
eventSignals::~eventSignals() = default;

void eventSignals::await(std::function<void(int number)> step)
{
    m_signals.async_wait([step = std::move(step)](const asio::error_code& error, int number) {
        if (!error) {
            step(number);
        }
    });
}

} // namespace kest::service
