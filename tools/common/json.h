/// JSON as the programs write it. A field's name and the order of fields stay as they are given.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kest::tools
{

struct jsonField;

/// One JSON value: null, true or false, a number, a text, a list, or an object whose fields are in order.
/// `{{"number", 3}, {"name", "fan"}}` is an object.
class jsonValue
{
public:
    jsonValue(std::nullptr_t nothing = nullptr);
    jsonValue(bool truth);
    jsonValue(double number);
    template <std::signed_integral Number>
    jsonValue(Number number) : jsonValue(std::to_string(std::int64_t{number}), kind::plain)
    {
    }
    template <std::unsigned_integral Number>
    jsonValue(Number number) : jsonValue(std::to_string(std::uint64_t{number}), kind::plain)
    {
    }
    jsonValue(std::string text);
    jsonValue(std::string_view text);
    jsonValue(const char* text);
    /// A list.
    jsonValue(std::vector<jsonValue> items);
    /// An object.
    jsonValue(std::initializer_list<jsonField> fields);

    jsonValue(const jsonValue& other);
    jsonValue(jsonValue&& other) noexcept;
    jsonValue& operator=(const jsonValue& other);
    jsonValue& operator=(jsonValue&& other) noexcept;
    ~jsonValue();

    /// Adds a field to an object, which must not have one of that name.
    void add(std::string name, jsonValue value);
    void add(std::initializer_list<jsonField> fields);

    /// The value as JSON text in ASCII. Bytes of a text that are not UTF-8 become replacement characters.
    /// @param indent  columns for each level; -1 for one line
    [[nodiscard]] std::string dump(int indent) const;

private:
    enum class kind : std::uint8_t {
        plain, ///< `m_text` is the JSON text of it
        text,
        list,
        object,
    };
    jsonValue(std::string text, kind what);

    void write(std::string& out, int indent, int depth) const;

    kind m_kind = kind::plain;
    std::string m_text;
    std::vector<std::string> m_names; ///< of an object, one for each item
    std::vector<jsonValue> m_items;
};

struct jsonField {
    std::string name;
    jsonValue value;
};

using jsonList = std::vector<jsonValue>;

[[nodiscard]] jsonValue jsonNumbers(std::span<const std::uint32_t> numbers);

} // namespace kest::tools
