/// Reads the keys of a TOML file and keeps the first fault.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <toml++/toml.h>
#include <utility>
#include <vector>

namespace kest::host
{

constexpr std::size_t longestPathBytes = 4095;

/// Functions that return a keyReader make the reader of one key, which puts the value into `target`.
class tomlReader
{
public:
    using keyReader = std::function<void(const std::string& key, const toml::node&)>;
    struct keyRow {
        std::string_view name;
        keyReader read;
    };

    /// @param file  is named in faults; relative paths in it count from its folder
    explicit tomlReader(std::filesystem::path file) : m_file(std::move(file)) {}

    /// Reads a whole text, whose keys are in `rows`. @return whether it is TOML
    bool parse(std::string_view source, std::span<const keyRow> rows);
    /// @return the fault that stands first in the file, empty when there is none
    [[nodiscard]] const std::string& error() const { return m_error; }

    void fail(toml::source_position at, std::string_view key, const std::string& what);
    void fail(toml::source_position at, std::string_view key, const std::string& expected, const std::string& found);
    /// The value of a key is not the one expected.
    void wrong(const std::string& key, const toml::node& node, const std::string& expected);

    /// Reads a table, all keys of which are in `rows`.
    void section(const std::string& prefix, const toml::node& node, std::span<const keyRow> rows);
    /// @return a text without control characters; nothing, and a fault, when the value is not one
    std::optional<std::string> text(const std::string& key, const toml::node& node, std::size_t longest);
    /// @return a number within the bounds; nothing, and a fault, when the value is not one
    std::optional<std::uint64_t> number(const std::string& key, const toml::node& node, std::uint64_t least,
                                        std::uint64_t most);

    keyReader path(std::filesystem::path& target, std::size_t longest = longestPathBytes);
    template <typename Number>
    keyReader integer(Number& target, std::uint64_t least, std::uint64_t most)
    {
        return [this, &target, least, most](const std::string& key, const toml::node& node) {
            if (const auto value = number(key, node, least, most)) {
                target = static_cast<Number>(*value);
            }
        };
    }
    keyReader truth(bool& target);
    /// A time up to `most` ns: a string with a unit, "500ms", or a whole number of seconds.
    keyReader duration(std::uint64_t& target, std::uint64_t most);
    /// Names or numbers of users or groups.
    keyReader accounts(std::vector<std::string>& target);
    keyReader tableOf(std::vector<keyRow> rows);

private:
    std::filesystem::path m_file;
    std::string m_error;
    toml::source_position m_errorAt{};
};

} // namespace kest::host
