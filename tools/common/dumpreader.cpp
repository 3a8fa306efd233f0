#include "tools/common/dumpreader.h"

#include <fmt/core.h>
#include <limits>
#include <utility>

#include "platform/host/json/parser.h"
#include "tools/common/files.h"

namespace kest::tools
{
namespace
{

using kind = dumpReader::value::kind;

/// Takes the parts of a dump file. Keys inside other values are ignored: no key of a dump has such a value.
class valueTaker final : public host::jsonEvents
{
public:
    using values = std::map<std::string, dumpReader::value>;

    /// @param reader  for complaints
    valueTaker(const dumpReader& reader, values& taken) : m_reader(reader), m_taken(taken) {}

    [[nodiscard]] bool rootIsObject() const { return m_rootIsObject; }

    void null() override { takeOther(); }
    void truth(bool /*value*/) override { takeOther(); }
    void negativeNumber(std::int64_t /*value*/) override { takeOther(); }
    void realNumber(double /*value*/) override { takeOther(); }
    void number(std::uint64_t value) override
    {
        if (isFieldsValue()) {
            *m_current = {.what = kind::wholeNumber, .texts = {}, .number = value};
        } else {
            takeOther();
        }
    }
    void text(std::string value) override
    {
        if (isFieldsValue()) {
            *m_current = {.what = kind::text, .texts = {std::move(value)}};
        } else if (m_depth == 2 && m_current != nullptr && m_current->what == kind::listOfTexts) {
            m_current->texts.push_back(std::move(value));
        }
    }
    void beginObject() override
    {
        takeOther();
        m_rootIsObject = m_rootIsObject || m_depth == 0;
        ++m_depth;
    }
    void beginList() override
    {
        takeOther();
        if (isFieldsValue()) {
            *m_current = {.what = kind::listOfTexts, .texts = {}};
        }
        ++m_depth;
    }
    void field(std::string name) override
    {
        if (m_depth != 1) {
            return;
        }
        const auto [place, isNew] = m_taken.try_emplace(name);
        if (!isNew) {
            throw m_reader.wrong(name, "is there twice");
        }
        m_current = &place->second;
    }
    void endObject() override { --m_depth; }
    void endList() override { --m_depth; }

private:
    /// Whether the current value belongs to a key. The elements of a list that is the whole file do not.
    [[nodiscard]] bool isFieldsValue() const { return m_depth == 1 && m_current != nullptr; }

    /// A value that is neither a text nor a whole number: of a key, or within its list.
    void takeOther()
    {
        if (m_current != nullptr) {
            m_current->what = kind::other;
        }
    }

    const dumpReader& m_reader;
    values& m_taken;
    dumpReader::value* m_current = nullptr; ///< of the key that was met last
    int m_depth = 0;
    bool m_rootIsObject = false;
};

} // namespace

dumpReader::dumpReader(const std::string& fileName, const std::string& text) : m_fileName(fileName)
{
    valueTaker values(*this, m_values);
    if (!host::readJson(text, values) || !values.rootIsObject()) {
        throw wrongUse(m_fileName + ": not a dump file (no JSON object)", "'kestctl seeprom dump' makes one");
    }
}

std::string dumpReader::text(const std::string& key, const std::string& expected)
{
    return take(key, kind::text, expected).texts.front();
}

std::uint32_t dumpReader::number(const std::string& key)
{
    const std::string expected = "a whole number of 32 bits";
    const std::uint64_t number = take(key, kind::wholeNumber, expected).number;
    if (number > std::numeric_limits<std::uint32_t>::max()) {
        throw wrong(key, "expected " + expected);
    }
    return static_cast<std::uint32_t>(number);
}

std::vector<unsigned char> dumpReader::data()
{
    std::vector<unsigned char> bytes;
    for (const std::string& line : take("data", kind::listOfTexts, "texts of hexadecimal digits").texts) {
        const auto more = parseHex(line, m_fileName + ": key \"data\"");
        bytes.insert(bytes.end(), more.begin(), more.end());
    }
    return bytes;
}

void dumpReader::end() const
{
    if (!m_values.empty()) {
        throw wrong(m_values.begin()->first, "is not known");
    }
}

failure dumpReader::wrong(const std::string& key, const std::string& complaint) const
{
    return wrongUse(fmt::format("{}: key \"{}\": {}", m_fileName, key, complaint));
}

dumpReader::value dumpReader::take(const std::string& key, value::kind wanted, const std::string& expected)
{
    const auto found = m_values.find(key);
    if (found == m_values.end() || found->second.what != wanted) {
        throw wrong(key, "expected " + expected);
    }
    return std::move(m_values.extract(found).mapped());
}

} // namespace kest::tools
