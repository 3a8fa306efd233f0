#include "tools/kestd/session.h"

#include <cerrno>
#include <fmt/format.h>
#include <span>
#include <sys/socket.h>

#include "tools/kestd/clock.h"
#include "tools/kestd/service.h"

namespace kest::service
{
namespace
{

constexpr std::size_t receiveBytes = 8192;
constexpr unsigned    fairShare    = 8;    // requests of one client before the others' turn
constexpr std::size_t keptBytes    = 4096; // buffers that grew larger are released while the client is silent

} // namespace

Session::Session(Service& service, Socket socket, Peer peer)
    : m_service(service), m_socket(std::move(socket)), m_work(m_socket.get_executor()), m_peer(std::move(peer)),
      m_assembler(0)
{
    refresh();
    m_requestSinceMs = nowMs();
}

/// Takes over new settings after a reload.
void Session::refresh()
{
    if (m_generation != m_service.generation()) {
        const auto settings = m_service.settings();
        m_generation        = settings->generation;
        m_permission        = settings->permissions.of(m_peer);
        m_assembler.setLimit(settings->limits.maxPayloadBytes);
    }
}

void Session::run()
{
    Turn turn = Turn::proceed;
    m_waitsSinceMs.store(0, std::memory_order_relaxed);
    while (turn == Turn::proceed) {
        if (!m_output.empty()) {
            turn = flush();
        } else if (m_closing) {
            turn = Turn::ended;
        } else if (m_inARow >= fairShare) {
            m_inARow = 0;
            turn     = Turn::waiting;
            m_service.workers().submit(shared_from_this());
        } else {
            turn = m_inputAt < m_input.size() ? consume() : receive();
        }
    }
    if (turn == Turn::ended) {
        m_service.remove(*this);
    }
}

Session::Turn Session::receive()
{
    std::uint8_t  bytes[receiveBytes];
    const ssize_t got = recv(m_socket.native_handle(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0) {
        m_input.assign(bytes, bytes + got);
        m_inputAt = 0;
    }
    if (got > 0 || (got < 0 && errno == EINTR)) {
        return Turn::proceed;
    }
    return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? waitFor(Socket::wait_read) : Turn::ended;
}

Session::Turn Session::consume()
{
    using State = client::FrameAssembler::State;
    refresh();
    m_inputAt += m_assembler.feed(std::span(m_input).subspan(m_inputAt));
    switch (m_assembler.state()) {
    case State::incomplete:
        break;
    case State::complete:
        answerRequest();
        break;
    case State::foreign:
        hangUp(client::codeNoFrame, "this is no frame of the kest message protocol");
        break;
    case State::tooLong:
        hangUp(client::codePayloadTooLarge, "the payload is longer than this service takes");
        break;
    }
    return Turn::proceed;
}

void Session::answerRequest()
{
    const client::frame request = m_assembler.take();
    send(dispatch(request, m_peer, m_permission, m_service.refusals()));
    ++m_inARow;
}

void Session::hangUp(std::uint32_t code, const std::string& text)
{
    send(refusal(m_assembler.take(), code, 0, text));
    m_closing = true;
}

void Session::turnAway(const std::string& text)
{
    hangUp(client::codeTooManyClients, text);
    run();
}

void Session::send(const client::frame& reply)
{
    m_output         = client::encodeFrame(reply);
    m_outputAt       = 0;
    m_requestSinceMs = nowMs();
}

Session::Turn Session::flush()
{
    const ssize_t sent = ::send(m_socket.native_handle(), m_output.data() + m_outputAt, m_output.size() - m_outputAt,
                                MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return waitFor(Socket::wait_write);
    }
    if (sent < 0 && errno != EINTR) {
        return Turn::ended;
    }
    m_outputAt += sent > 0 ? static_cast<std::size_t>(sent) : 0;
    if (m_outputAt == m_output.size()) {
        m_output.clear();
        m_requestSinceMs = nowMs();
    }
    return Turn::proceed;
}

Session::Turn Session::waitFor(Socket::wait_type what)
{
    const bool writing = what == Socket::wait_write;
    if (!writing) {
        m_input.clear();
        m_inputAt = 0;
        for (auto* buffer : {&m_input, &m_output}) {
            if (buffer->capacity() > keptBytes) {
                std::vector<std::uint8_t>().swap(*buffer);
            }
        }
        m_inARow = 0;
    }
    m_writing.store(writing, std::memory_order_relaxed);
    m_waitsSinceMs.store(m_requestSinceMs, std::memory_order_relaxed);
    m_socket.async_wait(
        what, [self = shared_from_this()](const asio::error_code&) { self->m_service.workers().submit(self); });
    return Turn::waiting;
}

void Session::endWhenLate(std::int64_t now, std::int64_t readingMs, std::int64_t writingMs)
{
    const std::int64_t since = m_waitsSinceMs.load(std::memory_order_relaxed);
    const std::int64_t limit = m_writing.load(std::memory_order_relaxed) ? writingMs : readingMs;
    if (since != 0 && limit != 0 && now - since >= limit) {
        shutdown(m_socket.native_handle(), SHUT_RDWR); // wakes the session, which finds it closed
    }
}

void Session::finish() { shutdown(m_socket.native_handle(), SHUT_RD); }

} // namespace kest::service
