/// Timers and signals that the service waits for. Their functions stand in a source of their own: the event library's
/// parts take long to compile.
#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>

namespace kest::service
{

/// Steps are called on the thread that waits for events. What starts one throws std::bad_alloc when there is no memory
/// for that.
class eventTimer
{
public:
    explicit eventTimer(asio::io_context& context);
    eventTimer(const eventTimer&) = delete;
    eventTimer& operator=(const eventTimer&) = delete;
    ~eventTimer();

    /// Calls `step` once the time has passed, or when the timer is cancelled or started again.
    void start(std::chrono::steady_clock::duration pause, std::function<void()> step);
    void cancel();
    /// Cancels it from any thread. Throws std::bad_alloc as start() does.
    void cancelSoon();

private:
    using executor = asio::io_context::executor_type;
    asio::steady_timer::rebind_executor<executor>::other m_timer;
};

/// SIGTERM, SIGINT and SIGHUP.
class eventSignals
{
public:
    explicit eventSignals(asio::io_context& context);
    eventSignals(const eventSignals&) = delete;
    eventSignals& operator=(const eventSignals&) = delete;
    ~eventSignals();

    /// Calls `step` with the number of the next signal.
    void await(std::function<void(int number)> step);

private:
    using executor = asio::io_context::executor_type;
    asio::signal_set::rebind_executor<executor>::other m_signals;
};

} // namespace kest::service
