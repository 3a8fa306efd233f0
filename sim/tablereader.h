/// One table of a TOML file that describes a machine or a scenario: its values, and errors with their place.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <toml++/toml.h>

namespace kest::sim
{

/// All errors are std::runtime_error with "FILE:LINE:COLUMN: what is wrong". A missing key is reported at its table.
class tableReader
{
public:
    /// @param table, fileName  outlive the reader
    tableReader(const toml::table& table, const std::string& fileName) : m_table{table}, m_fileName{fileName} {}

    [[nodiscard]] const toml::table& table() const { return m_table; }
    /// @param inner  a table in the same file
    [[nodiscard]] tableReader within(const toml::table& inner) const { return {inner, m_fileName}; }
    [[nodiscard]] bool has(std::string_view key) const { return m_table.contains(key); }
    /// "LINE:COLUMN" of the table.
    [[nodiscard]] std::string place() const;

    [[noreturn]] void fail(const std::string& what) const;
    [[noreturn]] void failKey(std::string_view key, const std::string& what) const;
    [[noreturn]] void failAt(const toml::source_region& place, const std::string& what) const;

    /// @param where  whose keys they are, for the error
    void onlyKeys(const std::string& where, std::initializer_list<std::string_view> allowed) const;

    /// @param otherwise  value of a missing key; null: it must be there
    [[nodiscard]] std::string text(std::string_view key, const char* otherwise) const;
    /// A name of letters, digits, '_', '.' and '-'.
    [[nodiscard]] std::string word(std::string_view key, const char* otherwise) const;
    [[nodiscard]] static bool isWord(std::string_view text);
    /// @param otherwise  none: the key must be there
    [[nodiscard]] std::int64_t number(std::string_view key, std::int64_t lowest, std::int64_t highest,
                                      std::optional<std::int64_t> otherwise) const;
    [[nodiscard]] double real(std::string_view key, double lowest, double highest, double otherwise) const;
    /// False when the key is missing.
    [[nodiscard]] bool truth(std::string_view key) const;
    /// An address in the 8-bit form; 0 when the key is missing and not required.
    [[nodiscard]] std::uint8_t address(std::string_view key, bool required) const;
    /// Words and what they mean; the first is the default.
    template <typename Value, std::size_t Count>
    using choices = std::array<std::pair<const char*, Value>, Count>;
    template <typename Value, std::size_t Count>
    [[nodiscard]] Value choice(std::string_view key, const choices<Value, Count>& values) const;

private:
    const toml::table& m_table;
    const std::string& m_fileName;
};

template <typename Value, std::size_t Count>
Value tableReader::choice(std::string_view key, const choices<Value, Count>& values) const
{
    const std::string name = text(key, values.front().first);
    std::string expected;
    for (std::size_t i = 0; i < Count; ++i) {
        if (name == values[i].first) {
            return values[i].second;
        }
        expected += (i == 0 ? "expected '" : i + 1 == Count ? " or '" : ", '") + std::string{values[i].first} + "'";
    }
    failKey(key, expected);
}

} // namespace kest::sim
