#include "tools/client/frame.h"

#include <algorithm>
#include <utility>

namespace kest::client
{
namespace
{

// Offsets in a frame; big-endian.
constexpr std::size_t sizeAt = 0, identifierAt = 4, typeAt = 6, flagsAt = 8, versionAt = 9, reservedAt = 10,
                      returnCodeAt = 12, logIdAt = 16;

void put(std::uint8_t* at, std::size_t bytes, std::uint32_t value)
{
    for (std::size_t index = bytes; index-- > 0; value >>= 8) {
        at[index] = static_cast<std::uint8_t>(value);
    }
}

std::uint32_t get(const std::uint8_t* at, std::size_t bytes)
{
    std::uint32_t value = 0;
    for (std::size_t index = 0; index < bytes; ++index) {
        value = value << 8 | at[index];
    }
    return value;
}

} // namespace

std::vector<std::uint8_t> encodeFrame(const frame& message)
{
    std::vector<std::uint8_t> bytes;
    encodeFrame(message, bytes);
    return bytes;
}

void encodeFrame(const frame& message, std::vector<std::uint8_t>& bytes)
{
    bytes.clear();
    bytes.reserve(frameHeaderBytes + message.payload.size());
    bytes.resize(frameHeaderBytes);
    put(&bytes[sizeAt], 4, static_cast<std::uint32_t>(message.payload.size()));
    put(&bytes[identifierAt], 2, message.identifier);
    put(&bytes[typeAt], 2, message.type);
    bytes[flagsAt] = message.flags;
    bytes[versionAt] = protocolVersion;
    put(&bytes[returnCodeAt], 4, message.returnCode);
    put(&bytes[logIdAt], 4, message.logId);
    bytes.insert(bytes.end(), message.payload.begin(), message.payload.end());
}

std::size_t frameAssembler::feed(std::span<const std::uint8_t> bytes)
{
    std::size_t used = 0;
    if (m_state == stage::incomplete && m_headerBytes < m_header.size()) {
        used = std::min(bytes.size(), m_header.size() - m_headerBytes);
        std::copy_n(bytes.begin(), used, m_header.begin() + static_cast<std::ptrdiff_t>(m_headerBytes));
        m_headerBytes += used;
        if (m_headerBytes == m_header.size()) {
            parseHeader();
        }
    }
    if (m_state == stage::incomplete && m_headerBytes == m_header.size()) {
        const auto piece = bytes.subspan(used, std::min(bytes.size() - used, m_payloadBytes - m_frame.payload.size()));
        m_frame.payload.insert(m_frame.payload.end(), piece.begin(), piece.end());
        used += piece.size();
        m_state = m_frame.payload.size() == m_payloadBytes ? stage::complete : stage::incomplete;
    }
    return used;
}

void frameAssembler::parseHeader()
{
    m_payloadBytes = get(&m_header[sizeAt], 4);
    m_frame.identifier = static_cast<std::uint16_t>(get(&m_header[identifierAt], 2));
    m_frame.type = static_cast<std::uint16_t>(get(&m_header[typeAt], 2));
    m_frame.flags = m_header[flagsAt];
    m_frame.returnCode = get(&m_header[returnCodeAt], 4);
    m_frame.logId = get(&m_header[logIdAt], 4);
    if (m_header[versionAt] != protocolVersion || get(&m_header[reservedAt], 2) != 0) {
        m_state = stage::foreign;
    } else if (m_payloadBytes > m_limit) {
        m_state = stage::tooLong;
    }
}

frame frameAssembler::take()
{
    frame taken = std::exchange(m_frame, {});
    m_state = stage::incomplete;
    m_headerBytes = 0;
    return taken;
}

} // namespace kest::client
