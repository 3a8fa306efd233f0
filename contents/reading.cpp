#include "contents/reading.h"

namespace kest::contents
{
namespace
{

template <typename Wanted>
void collect(const std::vector<node>& nodes, const Wanted& wanted, std::vector<const node*>& into)
{
    for (const node& each : nodes) {
        if (wanted(each)) {
            into.push_back(&each);
        }
        collect(each.children, wanted, into);
    }
}

template <typename Wanted>
std::vector<const node*> nodesThat(const reading& what, const Wanted& wanted)
{
    std::vector<const node*> found;
    collect(what.nodes, wanted, found);
    return found;
}

} // namespace

bool isWhole(const reading& what) { return what.problem.empty() && damagedNodes(what).empty(); }

std::vector<const node*> damagedNodes(const reading& what)
{
    return nodesThat(what, [](const node& each) { return each.is == verdict::damaged; });
}

std::vector<const node*> checksums(const reading& what)
{
    return nodesThat(what,
                     [](const node& each) { return each.source != nullptr && each.source->as == kind::checksum; });
}

const node* findNode(const reading& what, std::string_view name)
{
    const auto found = nodesThat(what, [name](const node& each) { return each.name == name; });
    return found.empty() || name.empty() ? nullptr : found.front();
}

} // namespace kest::contents
