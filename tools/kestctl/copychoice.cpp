#include "tools/kestctl/copychoice.h"

#include <algorithm>
#include <cerrno>
#include <fmt/core.h>

#include "platform/host/configuration/configuration.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"

namespace kest::tools
{

std::optional<device> ownerOf(std::uint32_t number)
{
    try {
        return findDevice(std::to_string(number));
    } catch (const failure&) {
        return std::nullopt;
    }
}

std::string ownerName(std::uint32_t number)
{
    const auto& devices = host::currentConfiguration().devices;
    const auto found = std::ranges::find_if(devices, [number](const host::deviceEntry& entry) {
        device which;
        which.number = number;
        which.position = entry.position;
        return entry.number == number && copyIsItsOwn(which);
    });
    return found == devices.end() ? "" : found->name;
}

std::uint32_t copyNumber(const std::string& which)
{
    if (!which.empty() && which[0] >= '0' && which[0] <= '9') {
        return static_cast<std::uint32_t>(parseNumber(which, "device number", 0xFFFFFFFF));
    }
    const device found = findDevice(which);
    // a device text has no number; a row of the table may have any number, even 0
    if (isDeviceText(which)) {
        throw failure{.code = exitWrongUse,
                      .what = "a copy belongs to a device number, and this device has none",
                      .tryThis = "give it a row in the device table, or name the copy by its number",
                      .device = which};
    }
    refuseForeignCopy(found);
    return found.number;
}

std::string copyLabel(std::uint32_t number)
{
    const std::string name = ownerName(number);
    return name.empty() ? fmt::format("copy {}", number) : fmt::format("copy {} ({})", number, name);
}

void throwCopy(int error, std::uint32_t number, const std::string& step)
{
    if (error == 0) {
        return;
    }
    failure why = systemFailure(error, step, copyLabel(number));
    if (error == ENOENT) {
        why.code = exitAbsent;
        why.what = "there is no such copy";
        why.tryThis = "'kestctl copy list' shows the copies";
    } else if (error == EFBIG) {
        why.what = fmt::format("more than {} bytes", host::largestCopyBytes);
    } else if (error == EBADMSG) {
        why.what = "the copy is damaged";
        why.tryThis = fmt::format("'kestctl copy verify {}' shows where", number);
    } else if (error == ENOTSUP) {
        why.what = "a newer version of kest made the copy";
    }
    throw why;
}

const char* stateWord(host::copyState state)
{
    switch (state) {
    case host::copyState::proved:
        return "proved";
    case host::copyState::unproved:
        return "unproved";
    case host::copyState::damaged:
        return "damaged";
    default:
        return "unreadable";
    }
}

std::string damageText(const host::copyInfo& copy)
{
    if (copy.damaged.empty()) {
        return "its header or its size is wrong";
    }
    std::string text;
    for (const std::uint32_t offset : copy.damaged) {
        text += fmt::format("{} {} (0x{:X})", text.empty() ? "" : ",", offset, offset);
    }
    return "in the 4 KiB from offset" + text;
}

jsonValue copyJson(const host::copyInfo& copy)
{
    const auto& facts = copy.facts;
    return {{"number", copy.number},
            {"name", ownerName(copy.number)},
            {"state", stateWord(copy.state)},
            {"size", copy.sizeBytes != 0 ? jsonValue(copy.sizeBytes) : nullptr},
            {"device_size", facts.deviceBytes != 0 ? jsonValue(facts.deviceBytes) : nullptr},
            {"captured_ms", facts.capturedMs ? jsonValue(*facts.capturedMs) : nullptr},
            {"modified_ms", copy.modifiedMs},
            {"damaged", jsonNumbers(copy.damaged)}};
}

} // namespace kest::tools
