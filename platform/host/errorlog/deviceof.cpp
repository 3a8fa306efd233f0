#include "platform/host/errorlog/deviceof.h"

#include <algorithm>
#include <array>

#include "base/component.h"
#include "platform/host/errorlog/text.h"
#include "platform/host/json/document.h"

namespace kest::host
{

std::string deviceOf(const loggedEntry& entry)
{
    constexpr std::array components{componentLibrary, componentTools};
    constexpr std::uint8_t firstFailureData = 6;
    // device text, device path
    constexpr std::array kinds{std::uint8_t{7}, std::uint8_t{5}, firstFailureData};
    for (const std::uint8_t kind : kinds) {
        const auto found = std::ranges::find_if(entry.userDetails, [&](const loggedDetails& details) {
            return std::ranges::find(components, details.component) != components.end() && details.subsection == kind;
        });
        if (found == entry.userDetails.end()) {
            continue;
        }
        const std::string text(found->bytes.begin(), found->bytes.end());
        const std::string device = kind == firstFailureData ? deviceOfRecord(text) : text.substr(0, text.find('\0'));
        if (!device.empty()) {
            return cleanText(device);
        }
    }
    return {};
}

std::string deviceOfRecord(std::string_view record)
{
    constexpr std::string_view noTarget = "00";
    const auto json = jsonDocument::read(record);
    if (!json) {
        return {};
    }
    const auto textOf = [&json](std::string_view name) {
        const auto found = json->root().field(name);
        return found && found->what() == jsonDocument::kind::text ? found->text() : std::string();
    };
    const std::string bus = textOf("bus");
    const std::string target = textOf("target");
    return bus.empty() || target.empty() || target == noTarget ? bus : bus + "@" + target;
}

} // namespace kest::host
