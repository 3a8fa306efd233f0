#include "platform/host/errorlog/json.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <concepts>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fmt/core.h>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "base/hex.h"
#include "platform/host/json/document.h"
#include "platform/host/json/parser.h"
#include "platform/host/json/quoted.h"

namespace kest::host
{

namespace
{

/// A field that was called otherwise up to layout 2.
struct renamedField {
    std::string_view before;
    std::string_view now;
};

constexpr std::array renamedFields{
    renamedField{.before = "plid", .now = "id"},
    renamedField{.before = "committedMs", .now = "committed_ms"},
    renamedField{.before = "createdMs", .now = "created_ms"},
    renamedField{.before = "eventType", .now = "event_type"},
    renamedField{.before = "returnCode", .now = "return_code"},
    renamedField{.before = "commitComponent", .now = "commit_component"},
    renamedField{.before = "commitAction", .now = "action"},
    renamedField{.before = "processId", .now = "process_id"},
    renamedField{.before = "fruCallouts", .now = "fru_callouts"},
    renamedField{.before = "softwareErrors", .now = "software_errors"},
    renamedField{.before = "userDetails", .now = "user_details"},
    // of their items
    renamedField{.before = "terminatingState", .now = "terminating_state"},
    renamedField{.before = "word1", .now = "module"},
    renamedField{.before = "word2", .now = "site"},
    renamedField{.before = "data", .now = "hex"},
};

/// Up to layout 2 the fields stood in the order of their names.
bool hasFormerForm(std::string_view line) { return line.starts_with("{\"callouts\""); }

/// A text is JSON, but not of an entry.
class otherForm : public std::exception
{
};

/// Reads an entry of either form. What it does not find there as it should be is an `otherForm`.
class entryReader
{
public:
    explicit entryReader(bool former) : m_former(former) {}

    void read(const jsonDocument::value& from, loggedEntry& entry) const;

private:
    using value = jsonDocument::value;
    using kind = jsonDocument::kind;

    void read(const value& from, loggedSrc& item) const;
    void read(const value& from, loggedCallout& item) const;
    void read(const value& from, loggedFruCallout& item) const;
    void read(const value& from, loggedSoftwareError& item) const;
    void read(const value& from, loggedDetails& item) const;
    void read(const value& from, loggedTrace& item) const;

    [[nodiscard]] value field(const value& from, std::string_view name, kind wanted) const;
    [[nodiscard]] static value checked(const std::optional<value>& found, kind wanted);

    template <typename Number>
    void readNumber(const value& from, std::string_view name, Number& target) const
    {
        target = static_cast<Number>(field(from, name, kind::number).number());
    }
    void readText(const value& from, std::string_view name, std::string& target) const
    {
        target = field(from, name, kind::text).text();
    }
    template <typename Item>
    void readList(const value& from, std::string_view name, std::vector<Item>& target) const
    {
        for (const value& item : field(from, name, kind::list).items()) {
            read(item, target.emplace_back());
        }
    }

    bool m_former;
};

entryReader::value entryReader::checked(const std::optional<value>& found, kind wanted)
{
    if (!found || found->what() != wanted) {
        throw otherForm();
    }
    return *found;
}

entryReader::value entryReader::field(const value& from, std::string_view name, kind wanted) const
{
    const auto* row = std::ranges::find(renamedFields, name, &renamedField::now);
    if (m_former && row != renamedFields.end()) {
        if (const auto found = from.field(row->before)) {
            return checked(found, wanted);
        }
    }
    return checked(from.field(name), wanted);
}

void entryReader::read(const value& from, loggedSrc& item) const
{
    const std::vector<value> words = field(from, "words", kind::list).items();
    if (words.size() < item.words.size()) {
        throw otherForm();
    }
    for (std::size_t index = 0; index < item.words.size(); ++index) {
        item.words[index] = static_cast<std::uint32_t>(checked(words[index], kind::number).number());
    }
    readNumber(from, "creator", item.creator);
    readNumber(from, "flags", item.flags);
    readNumber(from, "terminating_state", item.terminatingState);
}

void entryReader::read(const value& from, loggedCallout& item) const
{
    readNumber(from, "priority", item.priority);
    readNumber(from, "procedure", item.procedure);
}

void entryReader::read(const value& from, loggedFruCallout& item) const
{
    readNumber(from, "priority", item.priority);
    readNumber(from, "fru", item.fru);
}

void entryReader::read(const value& from, loggedSoftwareError& item) const
{
    readNumber(from, "component", item.component);
    readNumber(from, "return_code", item.returnCode);
    readNumber(from, "module", item.word1);
    readNumber(from, "site", item.word2);
    readNumber(from, "reserved", item.reserved);
}

void entryReader::read(const value& from, loggedDetails& item) const
{
    readNumber(from, "component", item.component);
    readNumber(from, "version", item.version);
    readNumber(from, "subsection", item.subsection);
    auto bytes = bytesOfHexDigits(field(from, "hex", kind::text).text());
    if (!bytes) {
        throw otherForm();
    }
    item.bytes = std::move(*bytes);
}

void entryReader::read(const value& from, loggedTrace& item) const
{
    readText(from, "buffer", item.buffer);
    readText(from, "text", item.text);
}

void entryReader::read(const value& from, loggedEntry& entry) const
{
    readNumber(from, "id", entry.plid);
    readNumber(from, "committed_ms", entry.committedMs);
    readNumber(from, "created_ms", entry.createdMs);
    readNumber(from, "severity", entry.severity);
    readNumber(from, "event_type", entry.eventType);
    readNumber(from, "creator", entry.creator);
    readNumber(from, "return_code", entry.returnCode);
    readNumber(from, "commit_component", entry.commitComponent);
    readNumber(from, "action", entry.commitAction);
    readNumber(from, "process_id", entry.processId);
    readText(from, "process", entry.process);
    entry.incomplete = field(from, "incomplete", kind::truth).truth();
    readList(from, "srcs", entry.srcs);
    readList(from, "callouts", entry.callouts);
    readList(from, "fru_callouts", entry.fruCallouts);
    readList(from, "software_errors", entry.softwareErrors);
    readList(from, "user_details", entry.userDetails);
    readList(from, "traces", entry.traces);
}

/// The most characters that a piece of a line takes.
template <std::size_t Size>
constexpr std::size_t mostOf(const char (&/*literal*/)[Size])
{
    return Size - 1;
}
constexpr std::size_t mostOf(std::string_view piece) { return piece.size(); }
template <std::integral Number>
constexpr std::size_t mostOf(Number /*number*/)
{
    // a sign and the digits
    return std::numeric_limits<Number>::digits10 + 2;
}

/// Puts a piece into a room that is large enough. @return its end
template <std::size_t Size>
char* put(char* at, const char (&literal)[Size])
{
    std::memcpy(at, literal, Size - 1);
    return at + Size - 1;
}
char* put(char* at, std::string_view piece) { return std::ranges::copy(piece, at).out; }
template <std::integral Number>
char* put(char* at, Number number)
{
    return std::to_chars(at, at + mostOf(number), number).ptr;
}

/// Adds texts and numbers, one behind the other. This is done for each commit: format strings would take longer to read
/// than the numbers to write, and many small additions longer than a large one.
template <typename... Pieces>
void add(std::string& text, const Pieces&... pieces)
{
    const std::size_t had = text.size();
    text.resize(had + (mostOf(pieces) + ...));
    char* at = text.data() + had;
    ((at = put(at, pieces)), ...);
    text.resize(static_cast<std::size_t>(at - text.data()));
}

/// Adds `,"name":[...]`. @param addItem  adds one item
template <typename Items, typename Add>
void addList(std::string& text, std::string_view name, const Items& items, Add addItem)
{
    add(text, ",\"", name, "\":[");
    for (const auto& item : items) {
        if (text.back() != '[') {
            text += ',';
        }
        addItem(item);
    }
    text += ']';
}

void addSrc(std::string& text, const loggedSrc& src)
{
    const auto& words = src.words;
    add(text, R"({"words":[)", words[0], ",", words[1], ",", words[2], ",", words[3], ",", words[4], ",", words[5], ",",
        words[6], ",", words[7], R"(],"creator":)", src.creator, R"(,"flags":)", src.flags, R"(,"terminating_state":)",
        src.terminatingState, "}");
}

/// Adds the fields that every entry has once.
void addFacts(std::string& text, const loggedEntry& entry)
{
    add(text, R"("id":)", entry.plid, R"(,"committed_ms":)", entry.committedMs, R"(,"created_ms":)", entry.createdMs,
        R"(,"severity":)", entry.severity, R"(,"event_type":)", entry.eventType, R"(,"creator":)", entry.creator,
        R"(,"return_code":)", entry.returnCode, R"(,"commit_component":)", entry.commitComponent, R"(,"action":)",
        entry.commitAction, R"(,"process_id":)", entry.processId, R"(,"process":)");
    appendQuoted(text, entry.process);
    add(text, R"(,"incomplete":)", entry.incomplete ? "true" : "false");
}

void addDetails(std::string& text, const loggedDetails& item)
{
    add(text, R"({"component":)", item.component, R"(,"version":)", item.version, R"(,"subsection":)", item.subsection,
        R"(,"hex":")");
    appendHexDigits(text, item.bytes);
    text += R"("})";
}

void addTrace(std::string& text, const loggedTrace& item)
{
    text += R"({"buffer":)";
    appendQuoted(text, item.buffer);
    text += R"(,"text":)";
    appendQuoted(text, item.text);
    text += '}';
}

/// @return about what the line of an entry takes, so that it is made in one piece
std::size_t roomOf(const loggedEntry& entry, std::size_t srcs)
{
    // of the names and numbers of an entry and of one item of a list, a little more than they usually take
    constexpr std::size_t ownRoom = 512;
    constexpr std::size_t itemRoom = 192;
    std::size_t room =
        ownRoom + itemRoom * (srcs + entry.callouts.size() + entry.fruCallouts.size() + entry.softwareErrors.size());
    for (const loggedDetails& item : entry.userDetails) {
        room += itemRoom + 2 * item.bytes.size();
    }
    for (const loggedTrace& item : entry.traces) {
        room += itemRoom + item.buffer.size() + item.text.size();
    }
    return room;
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

std::string toLine(const loggedEntry& entry)
{
    std::vector<const loggedSrc*> srcs;
    srcs.reserve(entry.srcs.size());
    std::ranges::transform(entry.srcs, std::back_inserter(srcs), [](const loggedSrc& src) { return &src; });
    return toLine(entry, srcs);
}

// Written out by hand: an entry that reports a lack of memory shall need little of it.
std::string toLine(const loggedEntry& entry, std::span<const loggedSrc* const> srcs)
{
    std::string text;
    text.reserve(roomOf(entry, srcs.size()));
    text += '{';
    addFacts(text, entry);
    addList(text, "srcs", srcs, [&](const loggedSrc* src) { addSrc(text, *src); });
    addList(text, "callouts", entry.callouts, [&](const loggedCallout& item) {
        add(text, R"({"priority":)", item.priority, R"(,"procedure":)", item.procedure, "}");
    });
    addList(text, "fru_callouts", entry.fruCallouts, [&](const loggedFruCallout& item) {
        add(text, R"({"priority":)", item.priority, R"(,"fru":)", item.fru, "}");
    });
    addList(text, "software_errors", entry.softwareErrors, [&](const loggedSoftwareError& item) {
        add(text, R"({"component":)", item.component, R"(,"return_code":)", item.returnCode, R"(,"module":)",
            item.word1, R"(,"site":)", item.word2, R"(,"reserved":)", item.reserved, "}");
    });
    addList(text, "user_details", entry.userDetails, [&](const loggedDetails& item) { addDetails(text, item); });
    addList(text, "traces", entry.traces, [&](const loggedTrace& item) { addTrace(text, item); });
    text += '}';
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
    const auto json = jsonDocument::read(line);
    if (!json) {
        return std::nullopt;
    }
    try {
        loggedEntry entry;
        entryReader(hasFormerForm(line)).read(json->root(), entry);
        return entry;
    } catch (const otherForm&) {
        return std::nullopt;
    }
}

std::optional<entryKeys> keysOfLine(std::string_view line)
{
    if (!line.starts_with('{') || !isJson(line)) {
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
