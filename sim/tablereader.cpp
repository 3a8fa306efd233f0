#include "sim/tablereader.h"

#include "sim/machinedescription.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace kest::sim
{

namespace
{

// the other addresses are reserved on every bus
constexpr std::int64_t lowestAddress = 0x10, highestAddress = 0xEE;

/// The keys that there are, to follow a complaint about another one.
std::string namesOf(std::initializer_list<std::string_view> keys)
{
    std::string names;
    for (const std::string_view key : keys) {
        names += (names.empty() ? ": expected one of " : ", ") + std::string{key};
    }
    return names;
}

std::string placeOf(const toml::source_region& region) { return placeText({region.begin.line, region.begin.column}); }

} // namespace

std::string tableReader::place() const { return placeOf(m_table.source()); }

void tableReader::fail(const std::string& what) const { failAt(m_table.source(), what); }

void tableReader::failAt(const toml::source_region& place, const std::string& what) const
{
    throw std::runtime_error{m_fileName + ":" + placeOf(place) + ": " + what};
}

// A missing key is reported at its table.
void tableReader::failKey(std::string_view key, const std::string& what) const
{
    const auto* node = m_table.get(key);
    failAt(node != nullptr ? node->source() : m_table.source(), "key '" + std::string{key} + "': " + what);
}

void tableReader::onlyKeys(const std::string& where, std::initializer_list<std::string_view> allowed) const
{
    for (const auto& [key, value] : m_table) {
        if (std::ranges::find(allowed, key.str()) == allowed.end()) {
            failAt(key.source(), "unknown key '" + std::string{key.str()} + "' in " + where + namesOf(allowed));
        }
    }
}

std::string tableReader::text(std::string_view key, const char* otherwise) const
{
    const auto* const node = m_table.get(key);
    if (node == nullptr) {
        if (otherwise == nullptr) {
            failKey(key, "missing");
        }
        return otherwise;
    }
    if (!node->is_string()) {
        failKey(key, "expected a text");
    }
    return node->as_string()->get();
}

std::string tableReader::word(std::string_view key, const char* otherwise) const
{
    std::string name = text(key, otherwise);
    if (m_table.contains(key) && !isWord(name)) {
        failKey(key, "expected a name of at most 63 letters, digits, '_', '.' and '-'");
    }
    return name;
}

bool tableReader::isWord(std::string_view text)
{
    constexpr std::string_view letters{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-"};
    return !text.empty() && text.size() <= 63 && text.find_first_not_of(letters) == std::string_view::npos;
}

std::int64_t tableReader::number(std::string_view key, std::int64_t lowest, std::int64_t highest,
                                 std::optional<std::int64_t> otherwise) const
{
    const auto* const node = m_table.get(key);
    if (node == nullptr) {
        if (!otherwise) {
            failKey(key, "missing");
        }
        return *otherwise;
    }
    if (!node->is_integer()) {
        failKey(key, "expected a whole number");
    }
    const std::int64_t value = node->as_integer()->get();
    if (value < lowest || value > highest) {
        failKey(key, "must be from " + std::to_string(lowest) + " to " + std::to_string(highest));
    }
    return value;
}

double tableReader::real(std::string_view key, double lowest, double highest, double otherwise) const
{
    const auto* node = m_table.get(key);
    if (node != nullptr && !node->is_number()) {
        failKey(key, "expected a number");
    }
    const double value = node != nullptr ? *node->value<double>() : otherwise;
    if (!(value >= lowest && value <= highest)) {
        std::ostringstream range;
        range << "must be from " << lowest << " to " << highest;
        failKey(key, range.str());
    }
    return value;
}

bool tableReader::truth(std::string_view key) const
{
    const auto* node = m_table.get(key);
    if (node != nullptr && !node->is_boolean()) {
        failKey(key, "expected true or false");
    }
    return node != nullptr && node->as_boolean()->get();
}

std::uint8_t tableReader::address(std::string_view key, bool required) const
{
    const std::int64_t value = number(key, 0, 0xFF, required ? std::nullopt : std::optional<std::int64_t>{0});
    if ((value & 1) != 0) {
        failKey(key, "addresses are in the 8-bit form, and even");
    }
    if (m_table.contains(key) && (value < lowestAddress || value > highestAddress)) {
        failKey(key, "reserved address: must be from 0x10 to 0xEE");
    }
    return static_cast<std::uint8_t>(value);
}

} // namespace kest::sim
