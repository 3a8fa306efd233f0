#include "platform/host/json/document.h"

#include <utility>

#include "platform/host/json/parser.h"

namespace kest::host
{

class documentBuilder final : public jsonEvents
{
public:
    using kind = jsonDocument::kind;

    explicit documentBuilder(jsonDocument& made) : m_nodes(made.m_nodes) {}

    void null() override { add(kind::null); }
    void truth(bool value) override { add(kind::truth).number = value ? 1 : 0; }
    void number(std::uint64_t value) override { add(kind::number).number = value; }
    void negativeNumber(std::int64_t value) override { add(kind::number).number = static_cast<std::uint64_t>(value); }
    void realNumber(double /*value*/) override { add(kind::realNumber); }
    void text(std::string value) override { add(kind::text).text = std::move(value); }
    void beginList() override { begin(kind::list); }
    void endList() override { end(); }
    void beginObject() override { begin(kind::object); }
    void endObject() override { end(); }
    void field(std::string name) override { m_name = std::move(name); }

private:
    jsonDocument::node& add(kind what)
    {
        const std::size_t end = m_nodes.size() + 1;
        return m_nodes.emplace_back(
            jsonDocument::node{.what = what, .name = std::exchange(m_name, {}), .text = {}, .end = end});
    }
    void begin(kind what)
    {
        m_open.push_back(m_nodes.size());
        add(what);
    }
    void end()
    {
        m_nodes[m_open.back()].end = m_nodes.size();
        m_open.pop_back();
    }

    std::vector<jsonDocument::node>& m_nodes;
    std::vector<std::size_t> m_open; ///< lists and objects that have not ended
    std::string m_name;
};

std::optional<jsonDocument> jsonDocument::read(std::string_view text)
{
    jsonDocument made;
    documentBuilder builder(made);
    if (!readJson(text, builder)) {
        return std::nullopt;
    }
    return made;
}

std::vector<jsonDocument::value> jsonDocument::value::items() const
{
    std::vector<value> found;
    const auto& nodes = m_document->m_nodes;
    for (std::size_t index = m_index + 1; index < here().end; index = nodes[index].end) {
        found.push_back({*m_document, index});
    }
    return found;
}

std::optional<jsonDocument::value> jsonDocument::value::field(std::string_view name) const
{
    std::optional<value> found;
    const auto& nodes = m_document->m_nodes;
    for (std::size_t index = m_index + 1; index < here().end; index = nodes[index].end) {
        if (what() == kind::object && nodes[index].name == name) {
            found = value(*m_document, index);
        }
    }
    return found;
}

} // namespace kest::host
