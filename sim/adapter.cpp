#include "sim/adapter.h"

namespace kest::sim
{

std::vector<std::string> adapterLimits(const adapterKind& kind)
{
    std::vector<std::string> texts;
    const auto add = [&texts](bool limits, std::string text) {
        if (limits) {
            texts.push_back(std::move(text));
        }
    };
    const auto atMost = [](std::size_t count, const std::string& what) {
        return "at most " + std::to_string(count) + " " + what + (count == 1 ? "" : "s");
    };
    const std::size_t smbusBytes = kind.smbus == smbusCalls::words ? smbusWordBytes : smbusBlockBytes;
    add(kind.smbus != smbusCalls::none, "SMBus calls only, with " + atMost(smbusBytes, "byte"));
    add(kind.messageBytes != 0, atMost(kind.messageBytes, "byte") + " a message");
    add(kind.messages != 0, atMost(kind.messages, "message") + " a transaction");
    add(kind.noEmptyMessages, "no messages without data");
    add(kind.stopBetween, "a STOP between messages");
    add(kind.stretchLimitUs != adapterKind{}.stretchLimitUs,
        "clock stretching of " + atMost(kind.stretchLimitUs, "microsecond"));
    add(kind.losesBits, "a bit lost now and then behind a stretched clock");
    add(kind.timeoutMs != 0, "at most " + std::to_string(kind.timeoutMs) + " ms a transaction");
    add(kind.absentTimesOut, "a time-out where nobody acknowledges");
    return texts;
}

} // namespace kest::sim
