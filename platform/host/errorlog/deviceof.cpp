#include "platform/host/errorlog/deviceof.h"

#include <algorithm>
#include <array>
#include <optional>

#include "base/component.h"
#include "platform/host/errorlog/text.h"
#include "platform/host/json/document.h"

namespace kest::host
{

namespace
{

constexpr std::array components{componentLibrary, componentService, componentTools};
constexpr std::uint8_t firstFailureData = 6;

/// Text of the first user details of a kind; empty when there are none.
std::string detailsOf(const loggedEntry& entry, std::uint8_t kind)
{
    const auto found = std::ranges::find_if(entry.userDetails, [kind](const loggedDetails& details) {
        return std::ranges::find(components, details.component) != components.end() && details.subsection == kind;
    });
    return found == entry.userDetails.end() ? std::string() : std::string(found->bytes.begin(), found->bytes.end());
}

/// A text field of first-failure data; empty when there is none.
std::string fieldOf(const std::optional<jsonDocument>& record, std::string_view name)
{
    if (!record) {
        return {};
    }
    const auto found = record->root().field(name);
    return found && found->what() == jsonDocument::kind::text ? found->text() : std::string();
}

} // namespace

std::string deviceOf(const loggedEntry& entry)
{
    // device text, device path
    constexpr std::array kinds{std::uint8_t{7}, std::uint8_t{5}, firstFailureData};
    for (const std::uint8_t kind : kinds) {
        const std::string text = detailsOf(entry, kind);
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
    const std::string bus = fieldOf(json, "bus");
    const std::string target = fieldOf(json, "target");
    return bus.empty() || target.empty() || target == noTarget ? bus : bus + "@" + target;
}

std::string lackOf(const loggedEntry& entry)
{
    return cleanText(fieldOf(jsonDocument::read(detailsOf(entry, firstFailureData)), "lacks"));
}

std::string silenceOf(const loggedEntry& entry)
{
    return cleanText(fieldOf(jsonDocument::read(detailsOf(entry, firstFailureData)), "silence"));
}

std::string endingOf(const loggedEntry& entry)
{
    const auto record = jsonDocument::read(detailsOf(entry, firstFailureData));
    const auto list = record ? record->root().field("transactions") : std::nullopt;
    if (!list || list->what() != jsonDocument::kind::list || list->items().empty()) {
        return {};
    }
    const auto end = list->items().back().field("end");
    return end && end->what() == jsonDocument::kind::text ? cleanText(end->text()) : std::string();
}

} // namespace kest::host
