/// One client's connection.
#pragma once

#include <asio/basic_stream_socket.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/client/frame.h"
#include "tools/kestd/deviceturn.h"
#include "tools/kestd/dispatch.h"
#include "tools/kestd/events.h"
#include "tools/kestd/permissions.h"
#include "tools/kestd/places.h"
#include "tools/kestd/rules.h"
#include "tools/kestd/workers.h"

namespace kest::service
{

class clientSession;

/// What sessions need of the service that they belong to. Any thread.
class sessionHost
{
public:
    virtual workerPool& workers() = 0;
    virtual refusalLog& refusals() = 0;
    /// Of the current rules.
    [[nodiscard]] virtual std::uint64_t generation() const = 0;
    [[nodiscard]] virtual std::shared_ptr<const serviceRules> rules() const = 0;
    /// The session has ended.
    virtual void remove(clientSession& session) = 0;

protected:
    ~sessionHost() = default;
};

/// Takes one request at a time from the socket, answers it, and only then looks at the next. What a client sends early
/// stays in the kernel, and a client that does not read its replies is not read from. So a client costs the memory of
/// one request and one reply at most. After each request the other clients have their turn. A request of a client that
/// has hung up is not begun, except a read of the copy.
///
/// A request whose device others have is tried again and again, each time by a job that ends at once: no thread waits
/// for the device, and the client's place among the requests in work is free meanwhile.
///
/// Exactly one thread is in a session at any time, or none while it waits for its socket or a device.
class clientSession : public serviceJob, public std::enable_shared_from_this<clientSession>
{
public:
    using clientSocket = asio::basic_stream_socket<asio::local::stream_protocol, asio::io_context::executor_type>;

    clientSession(sessionHost& service, clientSocket socket, peerProcess peer, clientPlace place);

    /// Continues until it has to wait for the client, or the other clients have their turn.
    void run() override;

    /// Ends a session that has been waiting for its client too long. Any thread.
    void endWhenLate(std::int64_t nowMs, std::int64_t readingMs, std::int64_t writingMs);
    /// Takes no further bytes from the client. What has arrived is served, and then the session ends. Any thread.
    void finish();

    [[nodiscard]] const peerProcess& peer() const { return m_peer; }

private:
    enum class turnEnd : std::uint8_t {
        proceed,
        waiting,
        ended
    };

    turnEnd goOn();
    turnEnd receive();
    turnEnd consume();
    turnEnd flush();
    turnEnd waitFor(clientSocket::wait_type what);
    turnEnd answerRequest();
    turnEnd serve();
    turnEnd waitForDevice();
    void hangUp(std::uint32_t code, const std::string& text);
    void send(const client::frame& reply);
    void refresh();
    bool hasHungUp();
    [[nodiscard]] bool isLastTry() const;

    sessionHost& m_service;
    clientPlace m_place;
    clientSocket m_socket;
    asio::executor_work_guard<clientSocket::executor_type> m_work; ///< the service lasts as long as this
    peerProcess m_peer;
    std::shared_ptr<const serviceRules> m_rules; ///< as of the last request
    permissionSet m_permission; ///< by these rules
    client::frameAssembler m_assembler;

    std::vector<std::uint8_t> m_input; ///< received, not yet consumed from m_inputAt on
    std::size_t m_inputAt = 0;
    std::vector<std::uint8_t> m_output; ///< reply, sent up to m_outputAt
    std::size_t m_outputAt = 0;
    /// A request that has not been served yet: it waits for its device while others have that.
    struct pendingRequest {
        client::frame request;
        deviceTurn turn = {};
        std::optional<std::int64_t> lastTryMs = {}; ///< when it waits no longer; none before it waits
    };
    std::optional<pendingRequest> m_pending;
    eventTimer m_deviceTimer;
    std::atomic<bool> m_finishing{false}; ///< nothing waits for a device any more
    bool m_closing = false; ///< after this reply
    bool m_hadTurn = false; ///< a request has been answered since the others had theirs
    unsigned m_receipts = 0; ///< since then

    std::atomic<std::int64_t> m_waitsSinceMs{0}; ///< for the client; 0 while the service is at work
    std::atomic<bool> m_writing{false};
    std::int64_t m_requestSinceMs = 0; ///< when the wait for the next request began
};

} // namespace kest::service
