#include "tools/common/buslines.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>
#include <limits>
#include <memory>
#include <utility>

#include "base/clock.h"
#include "base/hex.h"
#include "tools/common/escape.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

using host::iic::busAct;
using host::iic::busEvent;
using host::iic::direction;
using host::iic::outcome;
using host::iic::segment;

constexpr std::size_t usualBytes = 16;

std::string bytesText(std::span<const std::uint8_t> bytes, std::size_t most)
{
    std::string text;
    for (const std::uint8_t byte : bytes.first(std::min(bytes.size(), most))) {
        text += ' ';
        appendHexByte(text, byte, lowerHexDigits);
    }
    return bytes.size() > most ? text + " ..." : text;
}

std::string partText(const segment& part, bool arrived, std::size_t mostBytes)
{
    const bool reads = part.way == direction::read;
    const std::string head = fmt::format("{} {}", reads ? "read" : "write", part.bytes.size());
    return part.bytes.empty() || (reads && !arrived) ? head : head + ":" + bytesText(part.bytes, mostBytes);
}

/// The line without the time.
std::string actText(const busEvent& event, std::size_t mostBytes)
{
    std::string text = fmt::format("{}: ", escaped(event.bus));
    std::uint8_t address = 0;
    for (const segment& part : event.segments) {
        text += address == part.address ? "; " : (address == 0 ? "" : "; ") + addressText(part.address) + ": ";
        address = part.address;
        text += partText(part, event.end == outcome::done, mostBytes);
    }
    if (event.act == busAct::probe) {
        text += addressText(event.address) + ": is it there";
    } else if (event.act == busAct::reset) {
        text += "reset";
    }
    return text + ": " + nameOf(event.end);
}

std::string timeOf(const busEvent& event)
{
    const std::uint64_t lastedNs = event.endedNs - std::min(event.beganNs, event.endedNs);
    return fmt::format(", {:.3f} ms", static_cast<double>(lastedNs) / static_cast<double>(nsPerMs));
}

std::unique_ptr<busLines> shown;

} // namespace

std::string busLine(const busEvent& event, std::size_t mostBytes) { return actText(event, mostBytes) + timeOf(event); }

std::string busLines::take(const busEvent& event)
{
    const std::string act = actText(event, m_all ? std::numeric_limits<std::size_t>::max() : usualBytes);
    if (!m_all && event.end != outcome::done && act == m_failed) {
        ++m_repeats;
        return {};
    }
    const std::string before = rest();
    m_failed = event.end == outcome::done ? "" : act;
    return fmt::format("{}kestctl: {}{}\n", before, act, timeOf(event));
}

std::string busLines::rest()
{
    m_failed.clear();
    const unsigned repeats = std::exchange(m_repeats, 0);
    return repeats == 0 ? "" : fmt::format("kestctl: ... and {} more like it\n", repeats);
}

void showBuses(bool all)
{
    shown = std::make_unique<busLines>(all);
    host::iic::watchBuses([](const busEvent& event) { std::fputs(shown->take(event).c_str(), stderr); });
}

void showBusesRest()
{
    if (shown) {
        std::fputs(shown->rest().c_str(), stderr);
    }
}

} // namespace kest::tools
