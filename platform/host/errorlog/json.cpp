#include "platform/host/errorlog/json.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <fmt/format.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "base/hex.h"
#include "base/utf8.h"

namespace kest::host
{

namespace
{

/// Throws what the JSON library throws when the text is not as hexDigits() makes it.
std::vector<std::uint8_t> fromHex(const std::string& text)
{
    auto bytes = bytesOfHexDigits(text);
    if (!bytes) {
        throw nlohmann::json::other_error::create(500, "not bytes in hexadecimal digits", nullptr);
    }
    return std::move(*bytes);
}

constexpr std::uint32_t replacementCharacter = 0xFFFD;

/// Adds a character beyond ASCII as one or two units of UTF-16.
void addUnits(std::string& text, std::uint32_t point)
{
    constexpr std::uint32_t firstOfPairs = 0x10000;
    if (point >= firstOfPairs) {
        fmt::format_to(std::back_inserter(text), "\\u{:04x}\\u{:04x}", 0xD800 + ((point - firstOfPairs) >> 10),
                       0xDC00 + ((point - firstOfPairs) & 0x3FF));
    } else {
        fmt::format_to(std::back_inserter(text), "\\u{:04x}", point);
    }
}

void addPlain(std::string& text, char character)
{
    constexpr std::string_view escaped = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    const std::size_t found = escaped.find(character);
    if (found != escaped.npos) {
        text.append(1, '\\').append(1, letters[found]);
    } else if (static_cast<unsigned char>(character) < 0x20) {
        addUnits(text, static_cast<unsigned char>(character));
    } else {
        text += character;
    }
}

template <typename... Values>
void add(std::string& text, fmt::format_string<Values...> format, Values&&... values)
{
    fmt::format_to(std::back_inserter(text), format, std::forward<Values>(values)...);
}

template <typename Items, typename Add>
void addList(std::string& text, const Items& items, Add addItem)
{
    text += '[';
    for (const auto& item : items) {
        if (text.back() != '[') {
            text += ',';
        }
        addItem(item);
    }
    text += ']';
}

/// Reads the number behind a name. @return whether there is one
template <typename Number>
bool numberOf(std::string_view line, std::string_view name, Number& number)
{
    const std::size_t found = line.find(fmt::format("\"{}\":", name));
    const char* begin = found != line.npos ? line.data() + found + name.size() + 3 : line.data();
    return found != line.npos && std::from_chars(begin, line.data() + line.size(), number).ec == std::errc();
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
            {"data", hexDigits(item.bytes)}};
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

std::string quotedText(std::string_view text)
{
    std::string quoted = "\"";
    while (!text.empty()) {
        const std::size_t length = utf8Length(text);
        if (length == 1) {
            addPlain(quoted, text.front());
        } else {
            addUnits(quoted, length == 0 ? replacementCharacter : codePoint(text.substr(0, length)));
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return quoted += '"';
}

// Written out by hand, not by the JSON library: its values need memory even to be destroyed, and end a process that has
// none.
std::string toLine(const loggedEntry& entry)
{
    std::string text = "{\"callouts\":";
    addList(text, entry.callouts, [&](const loggedCallout& item) {
        add(text, R"({{"priority":{},"procedure":{}}})", item.priority, item.procedure);
    });
    add(text, R"(,"commitAction":{},"commitComponent":{},"committedMs":{},"createdMs":{},"creator":{},"eventType":{})",
        entry.commitAction, entry.commitComponent, entry.committedMs, entry.createdMs, entry.creator, entry.eventType);
    text += ",\"fruCallouts\":";
    addList(text, entry.fruCallouts,
            [&](const loggedFruCallout& item) { add(text, R"({{"fru":{},"priority":{}}})", item.fru, item.priority); });
    add(text, R"(,"incomplete":{},"plid":{},"process":{},"processId":{},"returnCode":{},"severity":{})",
        entry.incomplete, entry.plid, quotedText(entry.process), entry.processId, entry.returnCode, entry.severity);
    text += ",\"softwareErrors\":";
    addList(text, entry.softwareErrors, [&](const loggedSoftwareError& item) {
        add(text, R"({{"component":{},"reserved":{},"returnCode":{},"word1":{},"word2":{}}})", item.component,
            item.reserved, item.returnCode, item.word1, item.word2);
    });
    text += ",\"srcs\":";
    addList(text, entry.srcs, [&](const loggedSrc& item) {
        add(text, R"({{"creator":{},"flags":{},"terminatingState":{},"words":)", item.creator, item.flags,
            item.terminatingState);
        addList(text, item.words, [&](std::uint32_t word) { add(text, "{}", word); });
        text += '}';
    });
    text += ",\"traces\":";
    addList(text, entry.traces, [&](const loggedTrace& item) {
        add(text, R"({{"buffer":{},"text":{}}})", quotedText(item.buffer), quotedText(item.text));
    });
    text += ",\"userDetails\":";
    addList(text, entry.userDetails, [&](const loggedDetails& item) {
        add(text, R"({{"component":{},"data":"{}","subsection":{},"version":{}}})", item.component,
            hexDigits(item.bytes), item.subsection, item.version);
    });
    return text += '}';
}

std::string_view toReducedLine(const loggedEntry& entry, const loggedSrc& first, reducedLine& room) noexcept
{
    const auto& words = first.words;
    const int length = std::snprintf(
        room.data(), room.size(),
        R"({"callouts":[],"commitAction":%)" PRIu16 R"(,"commitComponent":%)" PRIu16 R"(,"committedMs":%)" PRId64
        R"(,"createdMs":%)" PRId64 R"(,"creator":%)" PRIu16 R"(,"eventType":%)" PRIu32
        R"(,"fruCallouts":[],"incomplete":true,"plid":%)" PRIu32 R"(,"process":"","processId":%)" PRId32
        R"(,"returnCode":%)" PRIu32 R"(,"severity":%)" PRIu32 R"(,"softwareErrors":[],"srcs":[{"creator":%)" PRIu16
        R"(,"flags":%)" PRIu32 R"(,"terminatingState":%)" PRIu32 R"(,"words":[%)" PRIu32 ",%" PRIu32 ",%" PRIu32
        ",%" PRIu32 ",%" PRIu32 ",%" PRIu32 ",%" PRIu32 ",%" PRIu32 R"(]}],"traces":[],"userDetails":[]})",
        entry.commitAction, entry.commitComponent, entry.committedMs, entry.createdMs, entry.creator, entry.eventType,
        entry.plid, entry.processId, entry.returnCode, entry.severity, first.creator, first.flags,
        first.terminatingState, words[0], words[1], words[2], words[3], words[4], words[5], words[6], words[7]);
    return {room.data(), std::min(static_cast<std::size_t>(std::max(length, 0)), room.size() - 1)};
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

std::string deviceOfRecord(std::string_view record)
{
    constexpr std::string_view noTarget = "00";
    const auto json = nlohmann::json::parse(record, nullptr, false);
    const auto textOf = [&json](const char* name) {
        const auto found = json.find(name);
        return found != json.end() && found->is_string() ? found->get<std::string>() : std::string();
    };
    std::string bus, target;
    if (json.is_object()) {
        bus = textOf("bus");
        target = textOf("target");
    }
    return bus.empty() || target.empty() || target == noTarget ? bus : bus + "@" + target;
}

std::optional<lineFacts> factsOfLine(std::string_view line)
{
    lineFacts facts;
    // A quote inside of a text has a backslash ahead of it: so a name with its quotes is no part of one. SRCs, which
    // have a creator, too, come behind the entry's own.
    const bool found = line.starts_with('{') && nlohmann::json::accept(line) && numberOf(line, "plid", facts.plid) &&
                       numberOf(line, "committedMs", facts.committedMs) && numberOf(line, "severity", facts.severity) &&
                       numberOf(line, "creator", facts.creator);
    return found ? std::optional(facts) : std::nullopt;
}

std::string cleanText(std::string_view text)
{
    std::string clean;
    clean.reserve(text.size());
    while (!text.empty()) {
        const auto first = static_cast<unsigned char>(text.front());
        const bool isKept = (first >= 0x20 && first != 0x7F) || first == '\n' || first == '\t';
        std::size_t length = isKept ? utf8Length(text) : 0;
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
