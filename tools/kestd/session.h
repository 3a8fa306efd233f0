/// One client's connection.
#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/local/stream_protocol.hpp>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/client/frame.h"
#include "tools/kestd/permissions.h"
#include "tools/kestd/workers.h"

namespace kest::service
{

class Service;

/// Takes one request at a time from the socket, answers it, and only then looks at the next: what a client sends ahead stays in the
/// kernel, and one that does not read its replies is not read from. So a client costs one request and one reply of memory at most.
///
/// Exactly one thread is in a session at any time, or none while it waits for its socket.
class Session : public Job, public std::enable_shared_from_this<Session>
{
public:
    using Socket = asio::local::stream_protocol::socket;

    Session(Service& service, Socket socket, Peer peer);

    /// Goes on until it has to wait for the client.
    void run() override;
    /// Says why there is no room for this client, and ends.
    void turnAway(const std::string& text);

    /// Ends a session that has been waiting for its client too long. Any thread.
    void endWhenLate(std::int64_t nowMs, std::int64_t readingMs, std::int64_t writingMs);
    /// Takes no further bytes from the client; what has come is served, and then the session ends. Any thread.
    void finish();

    [[nodiscard]] const Peer& peer() const { return m_peer; }

private:
    enum class Turn : std::uint8_t {
        proceed,
        waiting,
        ended
    };

    Turn receive();
    Turn consume();
    Turn flush();
    Turn waitFor(Socket::wait_type what);
    void answerRequest();
    void hangUp(std::uint32_t code, const std::string& text);
    void send(const client::frame& reply);
    void refresh();

    Service&                                         m_service;
    Socket                                           m_socket;
    asio::executor_work_guard<Socket::executor_type> m_work; ///< the service lasts as long as this
    Peer                                             m_peer;
    Permission                                       m_permission;
    std::uint64_t          m_generation = 0; ///< of the settings that the permission comes from
    client::FrameAssembler m_assembler;

    std::vector<std::uint8_t> m_input; ///< received, not yet consumed from m_inputAt on
    std::size_t               m_inputAt = 0;
    std::vector<std::uint8_t> m_output; ///< reply, sent up to m_outputAt
    std::size_t               m_outputAt = 0;
    bool                      m_closing  = false; ///< after this reply
    unsigned                  m_inARow   = 0;     ///< requests answered without a wait

    std::atomic<std::int64_t> m_waitsSinceMs{0}; ///< for the client; 0 while the service is at work
    std::atomic<bool>         m_writing{false};
    std::int64_t              m_requestSinceMs = 0; ///< since when the request that is awaited is awaited
};

} // namespace kest::service
