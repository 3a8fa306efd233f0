#include "tools/client/client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "base/descriptor.h"

namespace kest::client
{
namespace
{

constexpr std::size_t locationBytesMax = 255;
// bytes of a refusal's text that are shown
constexpr std::size_t refusalBytesMax = 512;
// data, or a text
constexpr std::uint32_t replyBytesMax = maximumDataBytes + 512;
constexpr std::size_t receiveBytesAtOnce = 16384;

/// The payload of a read or write, with room for data after the text. Words are in host byte order.
std::vector<std::uint8_t> seepromPayload(const std::string& location, std::uint32_t offset, std::uint32_t length,
                                         std::size_t dataBytes)
{
    const std::uint32_t words[] = {offset, 0, length};
    std::vector<std::uint8_t> payload(sizeof words + location.size() + 1 + dataBytes);
    std::memcpy(payload.data(), words, sizeof words);
    std::memcpy(payload.data() + sizeof words, location.data(), location.size());
    return payload;
}

bool isLocation(const std::string& text)
{
    return text.size() <= locationBytesMax && text.find('\0') == std::string::npos;
}

std::string printable(std::span<const std::uint8_t> bytes)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes.first(std::min(bytes.size(), refusalBytesMax))) {
        if (byte >= 0x20 && byte < 0x7F) {
            text += static_cast<char>(byte);
        } else {
            text += {'\\', 'x', digits[byte >> 4], digits[byte & 0xF]};
        }
    }
    return text;
}

std::string hex(std::uint32_t number)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text = "0x";
    for (int shift = 28; shift >= 0; shift -= 4) {
        text += digits[number >> shift & 0xF];
    }
    return text;
}

/// What a reply means. @param type  of the request
answer understand(frame reply, std::uint16_t type)
{
    answer result;
    result.returnCode = reply.returnCode;
    result.logId = reply.logId;
    result.flags = reply.flags;
    const std::uint8_t served = type == typeWrite ? flagServed | flagWritten : flagServed | flagData;
    if ((reply.flags & flagText) != 0) {
        result.what = reply.returnCode != 0 ? outcome::refused : outcome::malformed;
        result.message = reply.returnCode != 0 ? printable(reply.payload) : "a refusal without return code";
    } else if (reply.returnCode != 0 || reply.logId != 0) {
        result.what = outcome::failed;
        result.message = "failed with return code " + hex(reply.returnCode) + ", error entry " + hex(reply.logId);
    } else if (reply.flags != served || (type == typeWrite && !reply.payload.empty())) {
        result.what = outcome::malformed;
        result.message = "a reply that neither serves nor refuses";
    } else {
        result.what = outcome::done;
        result.data = std::move(reply.payload);
    }
    return result;
}

} // namespace

serviceConnection::serviceConnection(const std::filesystem::path& socket, std::chrono::milliseconds timeout)
    : m_timeout(timeout), m_socket(socket.string())
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_socket.empty() || m_socket.size() >= sizeof address.sun_path || m_socket.find('\0') != std::string::npos) {
        m_error = m_socket + ": not a socket's path";
        return;
    }
    m_socket.copy(address.sun_path, m_socket.size());
    // blocks until connected, so that a busy service is waited for; the send time-out limits it
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    const timeval bound{seconds.count(), static_cast<suseconds_t>((timeout - seconds).count() * 1000 + 1)};
    m_descriptor = ownDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int result = m_descriptor < 0 ? -1 : setsockopt(m_descriptor, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
    if (result == 0) {
        do {
            result = connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        } while (result != 0 && errno == EINTR);
    }
    if (result != 0) {
        m_systemError = errno;
        m_error = m_socket + ": " + std::strerror(m_systemError);
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
        m_descriptor = -1;
    }
}

serviceConnection::serviceConnection(serviceConnection&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1)), m_stop(other.m_stop), m_identifier(other.m_identifier),
      m_timeout(other.m_timeout), m_socket(std::move(other.m_socket)), m_error(std::move(other.m_error)),
      m_systemError(other.m_systemError)
{
}

serviceConnection::~serviceConnection()
{
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

answer serviceConnection::fail(outcome what, std::string message)
{
    // otherwise a later reply could be taken for this request's
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
    m_descriptor = -1;
    m_error = message;
    answer result;
    result.what = what;
    result.message = std::move(message);
    return result;
}

serviceConnection::waited serviceConnection::wait(short events, deadline until) const
{
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count();
        std::array<pollfd, 2> entries{{{m_descriptor, events, 0}, {m_stop, POLLIN, 0}}};
        const int ready =
            left <= 0 ? 0
                      : poll(entries.data(), entries.size(), static_cast<int>(std::min<std::int64_t>(left, 1'000'000)));
        if (ready > 0) {
            return entries[0].revents != 0 ? waited::ready : waited::stopped;
        }
        if (left <= 0) {
            return waited::tooLong;
        }
    }
}

bool serviceConnection::send(std::span<const std::uint8_t> bytes, deadline until, answer& result)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(m_descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
        } else if (errno == EAGAIN) {
            if (const waited end = wait(POLLOUT, until); end != waited::ready) {
                result = end == waited::stopped
                             ? fail(outcome::notSent, m_socket + ": stopped before the whole request was sent")
                             : fail(outcome::timedOut, m_socket + ": the service did not take the request in time");
                return false;
            }
        } else if (errno == EPIPE || errno == ECONNRESET) {
            // the service may have sent the reason before it hung up
            return true;
        } else if (errno != EINTR) {
            result = fail(outcome::closed, m_socket + ": " + std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool serviceConnection::receive(frame& reply, deadline until, answer& result)
{
    frameAssembler assembler(replyBytesMax);
    std::uint8_t buffer[receiveBytesAtOnce];
    while (assembler.state() == frameAssembler::stage::incomplete) {
        const ssize_t got = recv(m_descriptor, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0) {
            const std::span<const std::uint8_t> bytes(buffer, static_cast<std::size_t>(got));
            if (assembler.feed(bytes) != bytes.size() && assembler.state() == frameAssembler::stage::complete) {
                result = fail(outcome::malformed, m_socket + ": more than one reply came");
                return false;
            }
        } else if (got == 0 || errno == ECONNRESET) {
            result =
                fail(outcome::closed, m_socket + (assembler.begun() ? ": the service hung up in the middle of its reply"
                                                                    : ": the service hung up without a reply"));
            return false;
        } else if (errno == EAGAIN) {
            if (const waited end = wait(POLLIN, until); end != waited::ready) {
                result = end == waited::stopped ? fail(outcome::stopped, m_socket + ": stopped before a reply came")
                                                : fail(outcome::timedOut, m_socket + ": no reply in time");
                return false;
            }
        } else if (errno != EINTR) {
            result = fail(outcome::closed, m_socket + ": " + std::strerror(errno));
            return false;
        }
    }
    const bool whole = assembler.state() == frameAssembler::stage::complete;
    reply = assembler.take();
    if (!whole) {
        result = fail(outcome::malformed, m_socket + ": the bytes that came are no reply");
    }
    return whole;
}

answer serviceConnection::request(std::uint16_t type, std::vector<std::uint8_t> payload)
{
    answer result;
    if (!connected()) {
        result.message = m_error;
        result.error = m_systemError;
        return result;
    }
    frame wanted{++m_identifier, type, 0, 0, 0, std::move(payload)};
    frame reply;
    const auto until = std::chrono::steady_clock::now() + m_timeout;
    if (send(encodeFrame(wanted), until, result) && receive(reply, until, result)) {
        const bool hangsUp = reply.returnCode == codePayloadTooLarge || reply.returnCode == codeNoFrame ||
                             reply.returnCode == codeTooManyClients;
        if ((reply.identifier != wanted.identifier || reply.type != type) && !hangsUp) {
            result = fail(outcome::malformed, m_socket + ": the reply to another request");
        } else {
            result = understand(std::move(reply), type);
        }
        if (result.what == outcome::malformed || hangsUp) {
            const answer kept = result;
            (void)fail(kept.what, kept.message);
        }
    }
    return result;
}

answer serviceConnection::readSeeprom(const std::string& location, std::uint32_t offset, std::uint32_t length)
{
    answer result;
    if (!isLocation(location) || length > maximumDataBytes) {
        result.what = outcome::wrongUse;
        result.message = "a device text of more than 255 bytes, or a read of more than 65536";
    } else {
        result = request(typeRead, seepromPayload(location, offset, length, 0));
    }
    return result;
}

answer serviceConnection::writeSeeprom(const std::string& location, std::uint32_t offset,
                                       std::span<const std::uint8_t> data)
{
    answer result;
    if (!isLocation(location) || data.size() > maximumDataBytes) {
        result.what = outcome::wrongUse;
        result.message = "a device text of more than 255 bytes, or a write of more than 65536";
    } else {
        std::vector<std::uint8_t> payload =
            seepromPayload(location, offset, static_cast<std::uint32_t>(data.size()), data.size());
        std::ranges::copy(data, payload.end() - static_cast<std::ptrdiff_t>(data.size()));
        result = request(typeWrite, std::move(payload));
    }
    return result;
}

answer serviceConnection::location(std::uint32_t number, std::uint32_t position)
{
    // host byte order
    const std::uint32_t words[] = {number, position};
    std::vector<std::uint8_t> payload(sizeof words);
    std::memcpy(payload.data(), words, sizeof words);
    answer result = request(typeLocation, std::move(payload));
    if (result) {
        const auto end = std::ranges::find(result.data, std::uint8_t{0});
        if (end == result.data.end() || end + 1 != result.data.end()) {
            result = fail(outcome::malformed, m_socket + ": a device text without its end");
        } else {
            result.data.pop_back();
        }
    }
    return result;
}

} // namespace kest::client
