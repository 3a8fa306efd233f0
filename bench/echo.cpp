#include "bench/echo.h"

#include <array>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <asio/write.hpp>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <span>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tools/client/frame.h"

namespace kest::bench
{
namespace
{

using protocol = asio::local::stream_protocol;
using client::frame;

/// What all clients share.
struct echoServer {
    std::filesystem::path copy;
    asio::io_context context{1};
    asio::thread_pool workers{std::thread::hardware_concurrency()};
};

/// Reads the bytes that a request asks for.
frame replyTo(const frame& request, const std::filesystem::path& copy)
{
    constexpr std::size_t lengthAt = 8;
    std::uint32_t offset = 0;
    std::uint32_t length = 0;
    std::memcpy(&offset, request.payload.data(), sizeof offset);
    std::memcpy(&length, request.payload.data() + lengthAt, sizeof length);
    frame reply{request.identifier, request.type, client::flagServed | client::flagData, 0, 0, {}};
    reply.payload.resize(length);
    const int file = open(copy.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t got = pread(file, reply.payload.data(), length, offset);
    close(file);
    reply.payload.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return reply;
}

class echoClient : public std::enable_shared_from_this<echoClient>
{
public:
    echoClient(echoServer& server, protocol::socket socket) : m_server(server), m_socket(std::move(socket)) {}

    void read()
    {
        m_socket.async_read_some(asio::buffer(m_input),
                                 [self = shared_from_this()](const asio::error_code& error, std::size_t got) {
                                     if (!error) {
                                         self->take({self->m_input.data(), got});
                                     }
                                 });
    }

private:
    /// One request at a time comes from a client.
    void take(std::span<const std::uint8_t> bytes)
    {
        m_assembler.feed(bytes);
        if (m_assembler.state() != client::frameAssembler::stage::complete) {
            read();
            return;
        }
        asio::post(m_server.workers, [self = shared_from_this(), request = m_assembler.take()] {
            const auto encoded = encodeFrame(replyTo(request, self->m_server.copy));
            asio::error_code error;
            asio::write(self->m_socket, asio::buffer(encoded), error);
            self->read();
        });
    }

    echoServer& m_server;
    protocol::socket m_socket;
    client::frameAssembler m_assembler{client::maximumDataBytes};
    std::array<std::uint8_t, 16384> m_input{};
};

void acceptClients(echoServer& server, protocol::acceptor& acceptor)
{
    acceptor.async_accept([&](const asio::error_code& error, protocol::socket socket) {
        if (!error) {
            std::make_shared<echoClient>(server, std::move(socket))->read();
        }
        acceptClients(server, acceptor);
    });
}

} // namespace

void runEcho(const std::filesystem::path& socket, const std::filesystem::path& copy)
{
    echoServer server{.copy = copy};
    protocol::acceptor acceptor(server.context, protocol::endpoint(socket.string()));
    acceptClients(server, acceptor);
    server.context.run();
}

} // namespace kest::bench
