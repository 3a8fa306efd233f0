#include "platform/host/configuration/tomlreader.h"

#include <algorithm>
#include <fmt/format.h>

#include "base/duration.h"
#include "base/guess.h"
#include "base/hex.h"
#include "base/tomltext.h"

namespace kest::host
{

namespace
{

// of a wrong value that is shown
constexpr std::size_t longestFoundBytes = 60;
constexpr std::size_t longestAccountBytes = 255;

/// Text for a message of one line: at most `longestFoundBytes`; bytes that a terminal would act on become \xHH.
std::string shown(std::string_view text)
{
    std::string result;
    for (const char character : text.substr(0, longestFoundBytes)) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte < 0x7F) {
            result += character;
        } else {
            result += "\\x";
            appendHexByte(result, byte, upperHexDigits);
        }
    }
    return text.size() > longestFoundBytes ? result + "..." : result;
}

std::string describe(const toml::node& node)
{
    if (const auto* string = node.as_string()) {
        return fmt::format("the string \"{}\"", shown(string->get()));
    }
    if (const auto* integer = node.as_integer()) {
        return fmt::format("the integer {}", integer->get());
    }
    if (const auto* boolean = node.as_boolean()) {
        return boolean->get() ? "true" : "false";
    }
    if (node.is_floating_point()) {
        return "a number with a fraction";
    }
    if (node.is_table()) {
        return "a table";
    }
    if (const auto* array = node.as_array()) {
        return array->empty() ? "an empty list" : "a list";
    }
    return "a date or time";
}

/// What stands before the '=' of a line; the whole line without one.
std::string_view keyOfLine(std::string_view text, toml::source_index number)
{
    for (toml::source_index line = 1; line < number && text.find('\n') != text.npos; ++line) {
        text.remove_prefix(text.find('\n') + 1);
    }
    text = text.substr(0, std::min(text.find('='), text.find('\n')));
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return text.substr(0, text.find_last_not_of(" \t\r") + 1);
}

/// The parser's description of a fault, to follow a colon. It has the end of a line as an escape, which the programs
/// that show it would escape again.
std::string parsersWords(std::string_view description)
{
    constexpr std::string_view lineEnd = "'\\n'";
    std::string words(description);
    if (words.starts_with("Error ")) {
        words.front() = 'e';
    }
    if (const auto at = words.find(lineEnd); at != words.npos) {
        words.replace(at, lineEnd.size(), "the end of the line");
    }
    return words;
}

std::string namesOf(std::span<const tomlReader::keyRow> rows)
{
    std::string names;
    for (const tomlReader::keyRow& row : rows) {
        names += fmt::format("{}{}", names.empty() ? "" : ", ", row.name);
    }
    return names;
}

} // namespace

bool tomlReader::parse(std::string_view source, std::span<const keyRow> rows)
{
    if (const auto trouble = findTextTrouble(source)) {
        const toml::source_position at{static_cast<toml::source_index>(trouble->line),
                                       static_cast<toml::source_index>(trouble->column)};
        fail(at, keyOfLine(source, at.line), "plain TOML", std::string(trouble->what));
        return false;
    }
    try {
        section("", toml::parse(source, m_file.string()), rows);
        return true;
    } catch (const toml::parse_error& problem) {
        const auto at = problem.source().begin;
        fail(at, keyOfLine(source, at.line), "no TOML: " + parsersWords(problem.description()));
        return false;
    }
}

void tomlReader::fail(toml::source_position at, std::string_view key, const std::string& what)
{
    if (m_error.empty() || at < m_errorAt) {
        m_errorAt = at;
        m_error = fmt::format("{}:{}:{}: key '{}': {}", m_file.string(), at.line, at.column, shown(key), what);
    }
}

void tomlReader::fail(toml::source_position at, std::string_view key, const std::string& expected,
                      const std::string& found)
{
    fail(at, key, fmt::format("expected {}, found {}", expected, found));
}

void tomlReader::wrong(const std::string& key, const toml::node& node, const std::string& expected)
{
    fail(node.source().begin, key, expected, describe(node));
}

void tomlReader::section(const std::string& prefix, const toml::node& node, std::span<const keyRow> rows)
{
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        wrong(prefix, node, "a table");
        return;
    }
    for (const auto& [key, value] : *table) {
        const std::string_view name = key.str();
        const std::string whole = prefix.empty() ? std::string(name) : fmt::format("{}.{}", prefix, name);
        const auto row = std::ranges::find(rows, name, &keyRow::name);
        if (row != rows.end()) {
            row->read(whole, value);
        } else {
            std::vector<std::string> names;
            for (const keyRow& each : rows) {
                names.emplace_back(each.name);
            }
            const std::string meant = didYouMean(name, names);
            fail(key.source().begin, whole, "one of the keys " + namesOf(rows),
                 "an unknown key" + (meant.empty() ? "" : "; " + meant));
        }
    }
}

std::optional<std::string> tomlReader::text(const std::string& key, const toml::node& node, std::size_t longest)
{
    const auto* string = node.as_string();
    const bool good = string != nullptr && !string->get().empty() && string->get().size() <= longest &&
                      std::ranges::none_of(string->get(), [](char character) {
                          return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
                      });
    if (!good) {
        wrong(key, node, fmt::format("a string of 1 to {} bytes without control characters", longest));
        return std::nullopt;
    }
    return string->get();
}

std::optional<std::uint64_t> tomlReader::number(const std::string& key, const toml::node& node, std::uint64_t least,
                                                std::uint64_t most)
{
    const auto* integer = node.as_integer();
    const bool good = integer != nullptr && integer->get() >= 0 &&
                      static_cast<std::uint64_t>(integer->get()) >= least &&
                      static_cast<std::uint64_t>(integer->get()) <= most;
    if (!good) {
        wrong(key, node, fmt::format("an integer from {} to {}", least, most));
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(integer->get());
}

tomlReader::keyReader tomlReader::path(std::filesystem::path& target, std::size_t longest)
{
    return [this, &target, longest](const std::string& key, const toml::node& node) {
        if (const auto value = text(key, node, longest)) {
            const auto whole = (m_file.parent_path() / *value).lexically_normal();
            if (whole.string().size() > longest) {
                wrong(key, node, fmt::format("a path of at most {} bytes with the file's folder ahead of it", longest));
            } else {
                target = whole;
            }
        }
    };
}

tomlReader::keyReader tomlReader::truth(bool& target)
{
    return [this, &target](const std::string& key, const toml::node& node) {
        if (const auto* value = node.as_boolean()) {
            target = value->get();
        } else {
            wrong(key, node, "true or false");
        }
    };
}

tomlReader::keyReader tomlReader::duration(std::uint64_t& target, std::uint64_t most)
{
    return [this, &target, most](const std::string& key, const toml::node& node) {
        const auto* string = node.as_string();
        const auto* integer = node.as_integer();
        const std::string value = string != nullptr    ? string->get()
                                  : integer != nullptr ? std::to_string(integer->get())
                                                       : std::string();
        std::uint64_t nanoseconds = 0;
        if (readDuration(value, integer != nullptr ? nsPerSecond : 0, nanoseconds) && nanoseconds <= most) {
            target = nanoseconds;
        } else {
            wrong(key, node,
                  fmt::format("a time such as \"500ms\" or \"5min\", or seconds; at most {}", durationText(most)));
        }
    };
}

tomlReader::keyReader tomlReader::accounts(std::vector<std::string>& target)
{
    return [this, &target](const std::string& key, const toml::node& node) {
        const toml::array* list = node.as_array();
        if (list == nullptr) {
            wrong(key, node, "a list of names or numbers");
            return;
        }
        for (const toml::node& account : *list) {
            if (!account.is_integer()) {
                if (const auto name = text(key, account, longestAccountBytes)) {
                    target.push_back(*name);
                }
            } else if (const auto value = number(key, account, 0, UINT32_MAX - 1)) {
                target.push_back(std::to_string(*value));
            }
        }
    };
}

tomlReader::keyReader tomlReader::tableOf(std::vector<keyRow> rows)
{
    return [this, rows = std::move(rows)](const std::string& key, const toml::node& node) { section(key, node, rows); };
}

} // namespace kest::host
