/// Marking what is damaged.
#pragma once

#include <string>
#include <utility>

#include "contents/reading.h"

namespace kest::contents
{

constexpr const char* endsEarly = "it ends before some of its fields";

/// The first problem of a node is the one that is kept.
inline void damage(node& what, std::string problem)
{
    what.is = verdict::damaged;
    if (what.problem.empty()) {
        what.problem = std::move(problem);
    }
}

} // namespace kest::contents
