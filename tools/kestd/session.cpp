#include "tools/kestd/session.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <poll.h>
#include <span>
#include <sys/socket.h>

#include "base/clock.h"
#include "platform/host/trace/hash.h"
#include "platform/trace.h"
#include "tools/kestd/trace.h"

namespace kest::service
{
namespace
{

constexpr std::size_t receiveBytes = 8192;
/// Room for a whole request of the usual limit.
constexpr unsigned receiptsATurn = 16;
/// Between two tries to get a device that others have.
constexpr std::chrono::milliseconds deviceInterval{20};
constexpr std::int64_t msPerSecond = 1000;
/// Buffers that grew larger are released while the client is silent.
constexpr std::size_t keptBytes = 4096;

} // namespace

clientSession::clientSession(sessionHost& service, clientSocket socket, peerProcess peer, clientPlace place)
    : serviceJob(place.share()), m_service(service), m_place(std::move(place)), m_socket(std::move(socket)),
      m_work(m_socket.get_executor()), m_peer(std::move(peer)), m_assembler(0),
      m_deviceTimer(m_socket.get_executor().context())
{
    refresh();
    m_requestSinceMs = steadyMs();
}

/// Takes over new rules after a reload.
void clientSession::refresh()
{
    if (m_rules == nullptr || m_rules->generation != m_service.generation()) {
        m_rules = m_service.rules();
        m_permission = m_rules->permissions.of(m_peer);
        m_assembler.setLimit(m_rules->limits.maxPayloadBytes);
    }
}

void clientSession::run()
{
    // also when there is no memory to go on with
    turnEnd turn = turnEnd::ended;
    try {
        turn = goOn();
    } catch (const std::exception&) {
        trace_wobu_write_all(serviceTrace(), host::messageHash("no memory for a client"), " %s,%d", __LINE__, 0, "run",
                             static_cast<int>(m_peer.uid));
    }
    if (turn == turnEnd::ended) {
        m_service.remove(*this);
    }
}

clientSession::turnEnd clientSession::goOn()
{
    turnEnd turn = turnEnd::proceed;
    m_waitsSinceMs.store(0, std::memory_order_relaxed);
    m_hadTurn = false;
    m_receipts = 0;
    while (turn == turnEnd::proceed) {
        if (!m_output.empty()) {
            turn = flush();
        } else if (m_pending) {
            turn = serve();
        } else if (m_closing) {
            return turnEnd::ended;
        } else if (m_inputAt < m_input.size() && !m_hadTurn) {
            turn = consume();
        } else if (m_inputAt == m_input.size() && m_receipts < receiptsATurn) {
            turn = receive();
        } else {
            m_service.workers().submit(shared_from_this());
            return turnEnd::waiting;
        }
    }
    return turn;
}

clientSession::turnEnd clientSession::receive()
{
    std::uint8_t bytes[receiveBytes];
    ++m_receipts;
    const ssize_t got = recv(m_socket.native_handle(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0) {
        m_input.assign(bytes, bytes + got);
        m_inputAt = 0;
    }
    if (got > 0 || (got < 0 && errno == EINTR)) {
        return turnEnd::proceed;
    }
    return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? waitFor(clientSocket::wait_read) : turnEnd::ended;
}

clientSession::turnEnd clientSession::consume()
{
    using stage = client::frameAssembler::stage;
    turnEnd turn = turnEnd::proceed;
    refresh();
    m_inputAt += m_assembler.feed(std::span(m_input).subspan(m_inputAt));
    switch (m_assembler.state()) {
    case stage::incomplete:
        break;
    case stage::complete:
        turn = answerRequest();
        break;
    case stage::foreign:
        hangUp(client::codeNoFrame, "this is no frame of the kest message protocol");
        break;
    case stage::tooLong:
        hangUp(client::codePayloadTooLarge, "the payload is longer than this service takes");
        break;
    }
    return turn;
}

/// Whether the client has closed its connection, so that nobody waits for a reply. A client that has only finished
/// sending still waits.
bool clientSession::hasHungUp()
{
    pollfd state{m_socket.native_handle(), 0, 0};
    return poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

clientSession::turnEnd clientSession::answerRequest()
{
    m_hadTurn = true;
    m_pending.emplace(pendingRequest{.request = m_assembler.take()});
    // A read of the copy is done sooner than the question is asked. Its reply then finds out that nobody is there.
    const bool isShort = m_pending->request.type != client::typeWrite && m_rules->devices.source() == byteSource::copy;
    return isShort || !hasHungUp() ? turnEnd::proceed : turnEnd::ended;
}

/// Whether a request is refused when its device is not free now.
bool clientSession::isLastTry() const
{
    const auto& until = m_pending->lastTryMs;
    return m_finishing.load() || (until ? steadyMs() >= *until : m_rules->limits.busySeconds == 0);
}

/// When memory runs out, the memory of the request is enough to report that.
clientSession::turnEnd clientSession::serve()
{
    client::frame& request = m_pending->request;
    std::optional<client::frame> reply;
    try {
        reply = dispatch(request, m_peer, m_permission, m_rules->devices, m_service.refusals(), m_pending->turn,
                         isLastTry());
    } catch (const std::bad_alloc&) {
        std::vector<std::uint8_t>().swap(request.payload);
        reply = refusal(request, client::codeNoMemory, 0, "the service has no memory for this request");
    }
    if (!reply) {
        return waitForDevice();
    }
    m_hadTurn = true;
    // the device is free before the client knows
    m_pending.reset();
    send(*reply);
    return turnEnd::proceed;
}

/// Others have the device. A client that has hung up waits for nothing.
clientSession::turnEnd clientSession::waitForDevice()
{
    if (hasHungUp()) {
        return turnEnd::ended;
    }
    if (!m_pending->lastTryMs) {
        m_pending->lastTryMs = steadyMs() + std::int64_t{m_rules->limits.busySeconds} * msPerSecond;
    }
    m_deviceTimer.start(deviceInterval, [self = shared_from_this()] { self->m_service.workers().submit(self); });
    return turnEnd::waiting;
}

void clientSession::hangUp(std::uint32_t code, const std::string& text)
{
    send(refusal(m_assembler.take(), code, 0, text));
    m_closing = true;
}

void clientSession::send(const client::frame& reply)
{
    client::encodeFrame(reply, m_output);
    m_outputAt = 0;
    // The client that the reply wakes often takes this processor at once. Its time is not this request's.
    const std::int64_t nowNs = workerPool::steadyNs();
    countUntil(nowNs);
    m_requestSinceMs = nowNs / std::int64_t{nsPerMs};
}

clientSession::turnEnd clientSession::flush()
{
    const ssize_t sent = ::send(m_socket.native_handle(), m_output.data() + m_outputAt, m_output.size() - m_outputAt,
                                MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return waitFor(clientSocket::wait_write);
    }
    if (sent < 0 && errno != EINTR) {
        return turnEnd::ended;
    }
    m_outputAt += sent > 0 ? static_cast<std::size_t>(sent) : 0;
    if (m_outputAt == m_output.size()) {
        m_output.clear();
        // otherwise the reply has gone out as soon as it was ready
        if (m_writing.load(std::memory_order_relaxed)) {
            m_requestSinceMs = steadyMs();
        }
    }
    return turnEnd::proceed;
}

clientSession::turnEnd clientSession::waitFor(clientSocket::wait_type what)
{
    const bool writing = what == clientSocket::wait_write;
    if (!writing) {
        m_input.clear();
        m_inputAt = 0;
        for (auto* buffer : {&m_input, &m_output}) {
            if (buffer->capacity() > keptBytes) {
                std::vector<std::uint8_t>().swap(*buffer);
            }
        }
    }
    m_writing.store(writing, std::memory_order_relaxed);
    m_waitsSinceMs.store(m_requestSinceMs, std::memory_order_relaxed);
    m_socket.async_wait(
        what, [self = shared_from_this()](const asio::error_code&) { self->m_service.workers().submit(self); });
    return turnEnd::waiting;
}

void clientSession::endWhenLate(std::int64_t now, std::int64_t readingMs, std::int64_t writingMs)
{
    const std::int64_t since = m_waitsSinceMs.load(std::memory_order_relaxed);
    const std::int64_t limit = m_writing.load(std::memory_order_relaxed) ? writingMs : readingMs;
    if (since != 0 && limit != 0 && now - since >= limit) {
        // wakes the session, which finds it closed
        shutdown(m_socket.native_handle(), SHUT_RDWR);
    }
}

void clientSession::finish()
{
    m_finishing.store(true);
    shutdown(m_socket.native_handle(), SHUT_RD);
}

} // namespace kest::service
