#include "platform/host/errorlog/json.h"

#include <fmt/format.h>

namespace kest::host
{

namespace
{

constexpr std::string_view digits = "0123456789abcdef";

std::string toHex(const std::vector<std::uint8_t>& bytes)
{
    std::string text;
    text.reserve(2 * bytes.size());
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

/// Throws what the JSON library throws when the text is not as toHex() makes it.
std::vector<std::uint8_t> fromHex(const std::string& text)
{
    const auto value = [](char digit) {
        const auto found = digits.find(digit);
        if (found == digits.npos)
            throw nlohmann::json::other_error::create(500, "not a hexadecimal digit", nullptr);
        return found;
    };
    if (text.size() % 2 != 0)
        throw nlohmann::json::other_error::create(500, "half a byte", nullptr);
    std::vector<std::uint8_t> bytes(text.size() / 2);
    for (std::size_t index = 0; index < bytes.size(); ++index)
        bytes[index] = static_cast<std::uint8_t>(value(text[2 * index]) << 4 | value(text[2 * index + 1]));
    return bytes;
}

/// Bytes of the UTF-8 sequence at the start of `text`; 0 when there is no valid one.
std::size_t sequenceLength(std::string_view text)
{
    const auto  byte   = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const auto  first  = byte(0);
    std::size_t length = first < 0x80                    ? 1
                         : first >= 0xC2 && first < 0xE0 ? 2
                         : first >= 0xE0 && first < 0xF0 ? 3
                         : first >= 0xF0 && first < 0xF5 ? 4
                                                         : 0;
    if (length > text.size())
        length = 0;
    for (std::size_t index = 1; index < length; ++index)
        if ((byte(index) & 0xC0) != 0x80)
            length = 0;
    const bool overlongOrBeyond =
        length > 2 && ((first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F) ||
                       (first == 0xF0 && byte(1) < 0x90) || (first == 0xF4 && byte(1) > 0x8F));
    return overlongOrBeyond ? 0 : length;
}

} // namespace

// The JSON library finds these conversions by the records' types.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(loggedSrc, creator, words, flags, terminatingState)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(loggedCallout, priority, procedure)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(loggedFruCallout, priority, fru)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(loggedSoftwareError, component, returnCode, word1, word2, reserved)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(loggedTrace, buffer, text)

void to_json(nlohmann::json& json, const loggedDetails& item)
{
    json = {{"component", item.component},
            {"version", item.version},
            {"subsection", item.subsection},
            {"data", toHex(item.bytes)}};
}
void from_json(const nlohmann::json& json, loggedDetails& item)
{
    json.at("component").get_to(item.component);
    json.at("version").get_to(item.version);
    json.at("subsection").get_to(item.subsection);
    item.bytes = fromHex(json.at("data").get_ref<const std::string&>());
}

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(loggedEntry, plid, createdMs, committedMs, severity, eventType, creator, returnCode,
                                   commitComponent, commitAction, processId, process, incomplete, srcs, callouts,
                                   fruCallouts, softwareErrors, userDetails, traces)

nlohmann::json toJson(const loggedEntry& entry) { return entry; }

std::string toLine(const loggedEntry& entry)
{
    return toJson(entry).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

std::optional<loggedEntry> fromLine(std::string_view line)
{
    std::optional<loggedEntry> entry;
    try {
        entry = nlohmann::json::parse(line).get<loggedEntry>();
    } catch (const nlohmann::json::exception&) {
        entry.reset();
    }
    return entry;
}

std::string cleanText(std::string_view text)
{
    std::string clean;
    clean.reserve(text.size());
    while (!text.empty()) {
        const auto  first  = static_cast<unsigned char>(text.front());
        const bool  isKept = (first >= 0x20 && first != 0x7F) || first == '\n' || first == '\t';
        std::size_t length = isKept ? sequenceLength(text) : 0;
        if (length > 0) {
            clean += text.substr(0, length);
        } else {
            clean += fmt::format("\\x{:02X}", first);
            length = 1;
        }
        text.remove_prefix(length);
    }
    return clean;
}

} // namespace kest::host
