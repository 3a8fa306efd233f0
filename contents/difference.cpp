#include "contents/difference.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <map>

namespace kest::contents
{
namespace
{

void visit(const std::vector<node>& nodes, const std::function<void(const node&)>& see)
{
    for (const node& each : nodes) {
        see(each);
        visit(each.children, see);
    }
}

/// The nodes of a reading that have a value of the format's table.
std::vector<const node*> fieldsOf(const reading& what)
{
    std::vector<const node*> fields;
    visit(what.nodes, [&fields](const node& each) {
        if (each.source != nullptr && each.children.empty() && !each.name.empty() && !isStructure(each.source->as)) {
            fields.push_back(&each);
        }
    });
    return fields;
}

std::string textOf(const node& field)
{
    std::string text = field.text + (field.unit.empty() || field.text.empty() ? "" : " " + field.unit);
    if (field.is == verdict::damaged) {
        text += (text.empty() ? "" : " ") + fmt::format("(damaged: {})", field.problem);
    }
    return text;
}

} // namespace

std::vector<fieldDifference> differences(const reading& old, const reading& now)
{
    std::map<std::string_view, const node*> before;
    for (const node* each : fieldsOf(old)) {
        before.emplace(each->name, each);
    }
    std::vector<fieldDifference> found;
    for (const node* each : fieldsOf(now)) {
        const auto same = before.find(each->name);
        if (same == before.end()) {
            found.push_back({each->name, std::nullopt, textOf(*each), each->offset});
            continue;
        }
        if (textOf(*same->second) != textOf(*each)) {
            found.push_back({each->name, textOf(*same->second), textOf(*each), each->offset});
        }
        before.erase(same);
    }
    for (const node* each : fieldsOf(old)) {
        if (before.contains(each->name)) {
            found.push_back({each->name, textOf(*each), std::nullopt, each->offset});
        }
    }
    return found;
}

std::vector<const node*> brokenParts(const reading& what)
{
    std::vector<const node*> broken = damagedNodes(what);
    std::erase_if(broken, [](const node* each) {
        const bool isValue = each->source != nullptr && each->source->as != kind::checksum &&
                             !isStructure(each->source->as) && !std::holds_alternative<std::monostate>(each->value);
        return isValue;
    });
    return broken;
}

std::string brokenText(const node& part) { return (part.name.empty() ? part.label : part.name) + ": " + part.problem; }

std::size_t endOf(const reading& what)
{
    std::size_t end = what.as == nullptr ? 0 : what.as->length;
    visit(what.nodes,
          [&end](const node& each) { end = each.source != nullptr ? std::max(end, each.offset + each.length) : end; });
    return end;
}

} // namespace kest::contents
