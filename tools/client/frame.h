/// Frames of the message service. docs/message-protocol.md describes the same bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kest/message.h"

namespace kest::client
{

constexpr std::size_t frameHeaderBytes = 20;
constexpr std::uint8_t protocolVersion = 1;

/// Requests that the service serves.
constexpr std::uint16_t typeRead = KEST_MSG_SEEPROM_READ;
constexpr std::uint16_t typeWrite = KEST_MSG_SEEPROM_WRITE;
constexpr std::uint16_t typeLocation = KEST_MSG_LOCATION;

/// Bits of a reply's flags.
constexpr std::uint8_t flagServed = KEST_REPLY_SERVED; ///< the library served it, with one of the next two
constexpr std::uint8_t flagWritten = KEST_REPLY_WRITTEN;
constexpr std::uint8_t flagData = KEST_REPLY_DATA; ///< the payload is data
constexpr std::uint8_t flagText = 0x80; ///< the service itself refused; the payload is a text that says why

/// One request reads or writes at most this many bytes.
constexpr std::uint32_t maximumDataBytes = 65536;

/// Return codes of the service itself; all others are the library's.
enum serviceCode : std::uint32_t {
    codeForbidden = 0x80001601, ///< not permitted to this user, or not a device that requests may name
    codeLengthTooLarge = 0x80001602, ///< a read or write of more than `maximumDataBytes`
    codePayloadTooLarge = 0x80001603, ///< a payload longer than the service takes; it then hangs up
    codeNoFrame = 0x80001604, ///< not this protocol; it then hangs up
    codeTooManyClients = 0x80001605, ///< it then hangs up
    codeReplyTooLarge = 0x80001606, ///< the device gave more than `maximumDataBytes`
    codePastTheEnd = 0x80001607, ///< a read or write that passes the end of the device
    codeNoMemory = 0x80001608, ///< the service has none left for this request
    codeBusy = 0x80001609, ///< others have had the device for as long as the service waits
    codeNotLocked = 0x8000160A, ///< the service may not lock the device
    codeOtherPart = 0x8000160B, ///< a write to another part than the device table expects
};

/// One request or reply. Of a request, flags, return code and log id are 0.
struct frame {
    std::uint16_t identifier = 0; ///< the client's own; comes back in the reply
    std::uint16_t type = 0;
    std::uint8_t flags = 0;
    std::uint32_t returnCode = 0; ///< 0: done
    std::uint32_t logId = 0; ///< of the error entry about it; 0 when there is none
    std::vector<std::uint8_t> payload;
};

/// The bytes that go over the socket.
[[nodiscard]] std::vector<std::uint8_t> encodeFrame(const frame& message);
/// The same in place of what `bytes` had.
void encodeFrame(const frame& message, std::vector<std::uint8_t>& bytes);

/// Puts frames together from bytes that arrive in pieces of any size. Holds at most one frame, and only the bytes that
/// have arrived.
class frameAssembler
{
public:
    enum class stage : std::uint8_t {
        incomplete,
        complete, ///< ready for take()
        foreign, ///< not this protocol
        tooLong, ///< its payload passes the limit
    };

    explicit frameAssembler(std::uint32_t payloadLimit) : m_limit(payloadLimit) {}

    void setLimit(std::uint32_t payloadLimit) { m_limit = payloadLimit; }

    /// Takes bytes up to the end of the frame. @return how many; none unless the state is `incomplete`
    std::size_t feed(std::span<const std::uint8_t> bytes);

    [[nodiscard]] stage state() const { return m_state; }
    /// Whether some bytes of a frame are there.
    [[nodiscard]] bool begun() const { return m_headerBytes > 0; }
    /// The frame; only its head when the state is `foreign` or `tooLong`. Begins a new frame.
    [[nodiscard]] frame take();

private:
    void parseHeader();

    std::uint32_t m_limit;
    stage m_state = stage::incomplete;
    std::size_t m_headerBytes = 0;
    std::array<std::uint8_t, frameHeaderBytes> m_header{};
    std::uint32_t m_payloadBytes = 0;
    frame m_frame;
};

} // namespace kest::client
