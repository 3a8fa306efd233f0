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
#include "platform/host/errorlog/text.h"

namespace kest::host
{

namespace
{

/// A field that was called otherwise up to layout 2.
struct renamedField {
    const char* before;
    const char* now;
};

constexpr std::array entryRenames{
    renamedField{"plid", "id"},
    renamedField{"committedMs", "committed_ms"},
    renamedField{"createdMs", "created_ms"},
    renamedField{"eventType", "event_type"},
    renamedField{"returnCode", "return_code"},
    renamedField{"commitComponent", "commit_component"},
    renamedField{"commitAction", "action"},
    renamedField{"processId", "process_id"},
    renamedField{"fruCallouts", "fru_callouts"},
    renamedField{"softwareErrors", "software_errors"},
    renamedField{"userDetails", "user_details"},
};
constexpr std::array itemRenames{
    renamedField{"terminatingState", "terminating_state"},
    renamedField{"returnCode", "return_code"},
    renamedField{"word1", "module"},
    renamedField{"word2", "site"},
    renamedField{"data", "hex"},
};

/// Up to layout 2 the fields stood in the order of their names.
bool hasFormerForm(std::string_view line) { return line.starts_with("{\"callouts\""); }

template <std::size_t Count>
void rename(nlohmann::json& object, const std::array<renamedField, Count>& fields)
{
    for (const renamedField& field : fields) {
        if (const auto found = object.find(field.before); found != object.end()) {
            object[field.now] = std::move(*found);
        }
    }
}

/// Brings an entry of the former form to today's names.
void renameFields(nlohmann::json& entry)
{
    if (!entry.is_object()) {
        return;
    }
    rename(entry, entryRenames);
    for (const char* list : {"srcs", "software_errors", "user_details"}) {
        const auto items = entry.find(list);
        if (items == entry.end() || !items->is_array()) {
            continue;
        }
        for (nlohmann::json& item : *items) {
            if (item.is_object()) {
                rename(item, itemRenames);
            }
        }
    }
}

template <typename... Values>
void add(std::string& text, fmt::format_string<Values...> format, Values&&... values)
{
    fmt::format_to(std::back_inserter(text), format, std::forward<Values>(values)...);
}

/// Adds `"name":[...]` and a comma. @param addItem  adds one item
template <typename Items, typename Add>
void addList(std::string& text, std::string_view name, const Items& items, Add addItem)
{
    add(text, "\"{}\":[", name);
    for (const auto& item : items) {
        if (text.back() != '[') {
            text += ',';
        }
        addItem(item);
    }
    text += "],";
}

void addSrc(std::string& text, const loggedSrc& src)
{
    const auto& words = src.words;
    add(text, R"({{"words":[{},{},{},{},{},{},{},{}],"creator":{},"flags":{},"terminating_state":{}}})", words[0],
        words[1], words[2], words[3], words[4], words[5], words[6], words[7], src.creator, src.flags,
        src.terminatingState);
}

/// Reads the number behind a name. @return whether there is one
template <typename Number>
bool numberOf(std::string_view line, std::string_view name, Number& number)
{
    const std::size_t found = line.find(fmt::format("\"{}\":", name));
    if (found == line.npos) {
        return false;
    }
    const char* begin = line.data() + found + name.size() + 3;
    return std::from_chars(begin, line.data() + line.size(), number).ec == std::errc();
}

} // namespace

// The JSON library finds these conversions by the records' types.

void from_json(const nlohmann::json& json, loggedSrc& item)
{
    json.at("words").get_to(item.words);
    json.at("creator").get_to(item.creator);
    json.at("flags").get_to(item.flags);
    json.at("terminating_state").get_to(item.terminatingState);
}

void from_json(const nlohmann::json& json, loggedCallout& item)
{
    json.at("priority").get_to(item.priority);
    json.at("procedure").get_to(item.procedure);
}

void from_json(const nlohmann::json& json, loggedFruCallout& item)
{
    json.at("priority").get_to(item.priority);
    json.at("fru").get_to(item.fru);
}

void from_json(const nlohmann::json& json, loggedSoftwareError& item)
{
    json.at("component").get_to(item.component);
    json.at("return_code").get_to(item.returnCode);
    json.at("module").get_to(item.word1);
    json.at("site").get_to(item.word2);
    json.at("reserved").get_to(item.reserved);
}

void from_json(const nlohmann::json& json, loggedDetails& item)
{
    json.at("component").get_to(item.component);
    json.at("version").get_to(item.version);
    json.at("subsection").get_to(item.subsection);
    auto bytes = bytesOfHexDigits(json.at("hex").get_ref<const std::string&>());
    if (!bytes) {
        throw nlohmann::json::other_error::create(500, "not bytes in hexadecimal digits", nullptr);
    }
    item.bytes = std::move(*bytes);
}

void from_json(const nlohmann::json& json, loggedTrace& item)
{
    json.at("buffer").get_to(item.buffer);
    json.at("text").get_to(item.text);
}

void from_json(const nlohmann::json& json, loggedEntry& entry)
{
    json.at("id").get_to(entry.plid);
    json.at("committed_ms").get_to(entry.committedMs);
    json.at("created_ms").get_to(entry.createdMs);
    json.at("severity").get_to(entry.severity);
    json.at("event_type").get_to(entry.eventType);
    json.at("creator").get_to(entry.creator);
    json.at("return_code").get_to(entry.returnCode);
    json.at("commit_component").get_to(entry.commitComponent);
    json.at("action").get_to(entry.commitAction);
    json.at("process_id").get_to(entry.processId);
    json.at("process").get_to(entry.process);
    json.at("incomplete").get_to(entry.incomplete);
    json.at("srcs").get_to(entry.srcs);
    json.at("callouts").get_to(entry.callouts);
    json.at("fru_callouts").get_to(entry.fruCallouts);
    json.at("software_errors").get_to(entry.softwareErrors);
    json.at("user_details").get_to(entry.userDetails);
    json.at("traces").get_to(entry.traces);
}

std::string toLine(const loggedEntry& entry)
{
    std::vector<const loggedSrc*> srcs;
    srcs.reserve(entry.srcs.size());
    std::ranges::transform(entry.srcs, std::back_inserter(srcs), [](const loggedSrc& src) { return &src; });
    return toLine(entry, srcs);
}

// Written out by hand, not by the JSON library: its values need memory even to be destroyed, and end a process that has
// none.
std::string toLine(const loggedEntry& entry, std::span<const loggedSrc* const> srcs)
{
    std::string text;
    add(text, R"({{"id":{},"committed_ms":{},"created_ms":{},"severity":{},"event_type":{},"creator":{},)", entry.plid,
        entry.committedMs, entry.createdMs, entry.severity, entry.eventType, entry.creator);
    add(text, R"("return_code":{},"commit_component":{},"action":{},"process_id":{},"process":{},"incomplete":{},)",
        entry.returnCode, entry.commitComponent, entry.commitAction, entry.processId, quotedText(entry.process),
        entry.incomplete);
    addList(text, "srcs", srcs, [&](const loggedSrc* src) { addSrc(text, *src); });
    addList(text, "callouts", entry.callouts, [&](const loggedCallout& item) {
        add(text, R"({{"priority":{},"procedure":{}}})", item.priority, item.procedure);
    });
    addList(text, "fru_callouts", entry.fruCallouts,
            [&](const loggedFruCallout& item) { add(text, R"({{"priority":{},"fru":{}}})", item.priority, item.fru); });
    addList(text, "software_errors", entry.softwareErrors, [&](const loggedSoftwareError& item) {
        add(text, R"({{"component":{},"return_code":{},"module":{},"site":{},"reserved":{}}})", item.component,
            item.returnCode, item.word1, item.word2, item.reserved);
    });
    addList(text, "user_details", entry.userDetails, [&](const loggedDetails& item) {
        add(text, R"({{"component":{},"version":{},"subsection":{},"hex":"{}"}})", item.component, item.version,
            item.subsection, hexDigits(item.bytes));
    });
    addList(text, "traces", entry.traces, [&](const loggedTrace& item) {
        add(text, R"({{"buffer":{},"text":{}}})", quotedText(item.buffer), quotedText(item.text));
    });
    text.back() = '}';
    return text;
}

std::string_view toReducedLine(const loggedEntry& entry, const loggedSrc& first, reducedLine& room) noexcept
{
    const auto& words = first.words;
    const int length = std::snprintf(
        room.data(), room.size(),
        R"({"id":%)" PRIu32 R"(,"committed_ms":%)" PRId64 R"(,"created_ms":%)" PRId64 R"(,"severity":%)" PRIu32
        R"(,"event_type":%)" PRIu32 R"(,"creator":%)" PRIu16 R"(,"return_code":%)" PRIu32
        R"(,"commit_component":%)" PRIu16 R"(,"action":%)" PRIu16 R"(,"process_id":%)" PRId32
        R"(,"process":"","incomplete":true,"srcs":[{"words":[%)" PRIu32 ",%" PRIu32 ",%" PRIu32 ",%" PRIu32 ",%" PRIu32
        ",%" PRIu32 ",%" PRIu32 ",%" PRIu32 R"(],"creator":%)" PRIu16 R"(,"flags":%)" PRIu32
        R"(,"terminating_state":%)" PRIu32
        R"(}],"callouts":[],"fru_callouts":[],"software_errors":[],"user_details":[],"traces":[]})",
        entry.plid, entry.committedMs, entry.createdMs, entry.severity, entry.eventType, entry.creator,
        entry.returnCode, entry.commitComponent, entry.commitAction, entry.processId, words[0], words[1], words[2],
        words[3], words[4], words[5], words[6], words[7], first.creator, first.flags, first.terminatingState);
    return {room.data(), std::min(static_cast<std::size_t>(std::max(length, 0)), room.size() - 1)};
}

std::optional<loggedEntry> fromLine(std::string_view line)
{
    try {
        auto json = nlohmann::json::parse(line);
        if (hasFormerForm(line)) {
            renameFields(json);
        }
        return json.get<loggedEntry>();
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;
    }
}

std::optional<entryKeys> keysOfLine(std::string_view line)
{
    if (!line.starts_with('{') || !nlohmann::json::accept(line)) {
        return std::nullopt;
    }
    // A quote inside of a text has a backslash before it, so a name with its quotes is no part of a text. The fields of
    // an entry come before those of its SRCs, which have a creator, too.
    const bool former = hasFormerForm(line);
    entryKeys keys;
    if (!numberOf(line, former ? "plid" : "id", keys.plid) ||
        !numberOf(line, former ? "committedMs" : "committed_ms", keys.committedMs) ||
        !numberOf(line, "severity", keys.severity) || !numberOf(line, "creator", keys.creator)) {
        return std::nullopt;
    }
    return keys;
}

} // namespace kest::host
