#include "platform/host/trace/render.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

#include "base/clock.h"
#include "base/hex.h"

namespace kest::host
{

namespace
{

void appendHex(std::string& to, std::span<const std::uint8_t> bytes)
{
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        if (index % 4 == 0) {
            to += ' ';
        }
        appendHexByte(to, bytes[index], lowerHexDigits);
    }
}

} // namespace

std::string renderRecord(const traceRecord& record, std::size_t dataBytes)
{
    constexpr unsigned secondsPerDay = 86400;
    constexpr unsigned nsPerMicrosecond = 1000;
    // without the C library's calendar: a fork meanwhile would leave its mutex locked in the child
    const auto seconds = static_cast<unsigned>(record.timeNs / nsPerSecond % secondsPerDay);
    const auto micros = static_cast<unsigned>(record.timeNs % nsPerSecond / nsPerMicrosecond);
    std::array<char, 64> head{};
    std::snprintf(head.data(), head.size(), "%02u:%02u:%02u.%06u %u %08X %u", seconds / 3600, seconds / 60 % 60,
                  seconds % 60, micros, record.thread, record.hash, record.line);
    std::string line = head.data();
    if (record.binary) {
        const std::span<const std::uint8_t> shown(record.data.data(), std::min(dataBytes, record.data.size()));
        line += " data ";
        line += std::to_string(record.dataSize);
        line += ':';
        appendHex(line, shown);
        line += shown.size() < record.dataSize ? " ..." : "";
    } else {
        line += record.text.starts_with(' ') ? "" : " ";
        line += record.text;
        line += record.cut ? "..." : "";
    }
    return line;
}

} // namespace kest::host
