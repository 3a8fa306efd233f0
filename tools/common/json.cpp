#include "tools/common/json.h"

#include <cmath>
#include <fmt/core.h>
#include <utility>

#include "platform/host/json/quoted.h"

namespace kest::tools
{
namespace
{

/// The shortest text that reads as the same number again, always with a fraction or an exponent.
std::string numberText(double number)
{
    if (!std::isfinite(number)) {
        return "null";
    }
    const std::string text = fmt::format("{}", number);
    return text.find_first_of(".e") == text.npos ? text + ".0" : text;
}

} // namespace

jsonValue::jsonValue(std::nullptr_t /*nothing*/) : m_text("null") {}
jsonValue::jsonValue(bool truth) : m_text(truth ? "true" : "false") {}
jsonValue::jsonValue(double number) : m_text(numberText(number)) {}
jsonValue::jsonValue(std::string text) : jsonValue(std::move(text), kind::text) {}
jsonValue::jsonValue(std::string_view text) : jsonValue(std::string(text)) {}
jsonValue::jsonValue(const char* text) : jsonValue(std::string(text)) {}
jsonValue::jsonValue(std::string text, kind what) : m_kind(what), m_text(std::move(text)) {}
jsonValue::jsonValue(std::vector<jsonValue> items) : m_kind(kind::list), m_items(std::move(items)) {}
jsonValue::jsonValue(std::initializer_list<jsonField> fields) : m_kind(kind::object) { add(fields); }

jsonValue::jsonValue(const jsonValue& other) = default;
jsonValue::jsonValue(jsonValue&& other) noexcept = default;
jsonValue& jsonValue::operator=(const jsonValue& other) = default;
jsonValue& jsonValue::operator=(jsonValue&& other) noexcept = default;
jsonValue::~jsonValue() = default;

void jsonValue::add(std::string name, jsonValue value)
{
    m_names.push_back(std::move(name));
    m_items.push_back(std::move(value));
}

void jsonValue::add(std::initializer_list<jsonField> fields)
{
    for (const jsonField& field : fields) {
        add(field.name, field.value);
    }
}

std::string jsonValue::dump(int indent) const
{
    std::string text;
    write(text, indent, 0);
    return text;
}

void jsonValue::write(std::string& out, int indent, int depth) const
{
    if (m_kind == kind::plain || m_kind == kind::text) {
        out += m_kind == kind::text ? host::quotedText(m_text) : m_text;
        return;
    }
    const auto newLine = [&out, indent](int level) {
        if (indent >= 0) {
            out += '\n' + std::string(static_cast<std::size_t>(indent * level), ' ');
        }
    };
    const bool isObject = m_kind == kind::object;
    out += isObject ? '{' : '[';
    for (std::size_t index = 0; index < m_items.size(); ++index) {
        out += index == 0 ? "" : ",";
        newLine(depth + 1);
        if (isObject) {
            out += host::quotedText(m_names[index]) + (indent >= 0 ? ": " : ":");
        }
        m_items[index].write(out, indent, depth + 1);
    }
    if (!m_items.empty()) {
        newLine(depth);
    }
    out += isObject ? '}' : ']';
}

jsonValue jsonNumbers(std::span<const std::uint32_t> numbers) { return jsonList(numbers.begin(), numbers.end()); }

} // namespace kest::tools
