/// Client of the message service.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "tools/client/frame.h"

namespace kest::client
{

enum class outcome : std::uint8_t {
    done,
    failed, ///< the library failed: return code and log id say why
    refused, ///< the service refused it: `message` says why
    unreachable, ///< nobody listens at the socket, or it may not be used
    timedOut, ///< no whole reply in time. A write may or may not have been done
    notSent, ///< stopped before the service had the whole request: it does nothing
    stopped, ///< stopped after that. The service finishes what it has begun
    closed, ///< the service hung up before its reply was whole
    malformed, ///< the bytes that came are no reply to the request
    wrongUse, ///< the request cannot be expressed: a text or data too long
};

/// The result of a request.
struct answer {
    outcome what = outcome::unreachable;
    std::uint32_t returnCode = 0;
    std::uint32_t logId = 0; ///< error entry, 0 none
    std::uint8_t flags = 0;
    int error = 0; ///< when unreachable: the errno of connecting, 0 unknown
    std::string message; ///< one line for people, empty when done; bytes from outside are escaped
    std::vector<std::uint8_t> data;

    [[nodiscard]] explicit operator bool() const { return what == outcome::done; }
};

/// A connection. One request at a time; not for several threads at once. After `timedOut`, `notSent`, `stopped`, `closed`
/// and `malformed` it is closed, and every further request is `unreachable`.
class serviceConnection
{
public:
    /// Connects; a failure shows in connected() and in every request.
    /// @param timeout  longest wait for the connection and for each whole reply
    explicit serviceConnection(const std::filesystem::path& socket,
                               std::chrono::milliseconds timeout = std::chrono::seconds(60));
    serviceConnection(const serviceConnection&) = delete;
    serviceConnection& operator=(const serviceConnection&) = delete;
    serviceConnection(serviceConnection&& other) noexcept;
    serviceConnection& operator=(serviceConnection&&) = delete;
    ~serviceConnection();

    /// Ends a request once a descriptor can be read, unless its reply is there. @param descriptor  the caller's; -1: none
    void stopAt(int descriptor) { m_stop = descriptor; }

    [[nodiscard]] bool connected() const { return m_descriptor >= 0; }
    [[nodiscard]] const std::string& error() const { return m_error; } ///< why not

    /// Reads up to `length` bytes of the device that the text names. In mixed mode the service may return more than was
    /// asked for.
    [[nodiscard]] answer readSeeprom(const std::string& location, std::uint32_t offset, std::uint32_t length);
    [[nodiscard]] answer writeSeeprom(const std::string& location, std::uint32_t offset,
                                      std::span<const std::uint8_t> data);
    /// The device text of a device number; `data` holds it without terminator.
    [[nodiscard]] answer location(std::uint32_t number, std::uint32_t position);
    /// Any request. The words of a payload are in host byte order.
    [[nodiscard]] answer request(std::uint16_t type, std::vector<std::uint8_t> payload);

private:
    using deadline = std::chrono::steady_clock::time_point;

    answer fail(outcome what, std::string message);
    /// How a wait ended.
    enum class waited : std::uint8_t {
        ready,
        tooLong,
        stopped
    };
    waited wait(short events, deadline until) const;
    bool send(std::span<const std::uint8_t> bytes, deadline until, answer& result);
    bool receive(frame& reply, deadline until, answer& result);

    int m_descriptor = -1;
    int m_stop = -1;
    std::uint16_t m_identifier = 0;
    std::chrono::milliseconds m_timeout;
    std::string m_socket;
    std::string m_error;
    int m_systemError = 0; ///< of connecting
};

} // namespace kest::client
