#include "contents/overlap.h"

#include "contents/problem.h"

namespace kest::contents
{
namespace
{

bool isPlacedByField(const node& which) { return which.source != nullptr && !which.source->where.atField.empty(); }

/// A list may reach less far than the room that it has.
std::size_t endOf(const node& which)
{
    const bool isList = which.source->as == kind::list && !which.children.empty();
    const node& last = isList ? which.children.back() : which;
    return last.offset + last.length;
}

} // namespace

bool doOverlap(const node& one, const node& other)
{
    return isPlacedByField(one) && isPlacedByField(other) && one.offset < endOf(other) && other.offset < endOf(one);
}

void checkOverlap(node& area, const std::vector<node>& siblings)
{
    for (const node& each : siblings) {
        if (doOverlap(area, each)) {
            damage(area, "it lies on bytes of the area '" + each.label + "'");
        }
    }
}

} // namespace kest::contents
