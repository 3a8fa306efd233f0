#include "tools/common/fieldchanges.h"

#include <algorithm>
#include <fmt/core.h>

#include "contents/reader.h"
#include "contents/recognise.h"
#include "tools/common/escape.h"

namespace kest::tools
{
namespace
{

std::string sideText(const std::optional<std::string>& side)
{
    if (!side) {
        return "(none)";
    }
    return side->empty() ? "(empty)" : escaped(*side);
}

} // namespace

std::optional<fieldChanges> fieldChangesOf(std::span<const unsigned char> old, std::span<const unsigned char> now)
{
    const auto others = contents::recognise(now);
    for (const contents::format* each : contents::recognise(old)) {
        if (std::ranges::find(others, each) != others.end()) {
            return fieldChanges{.format = std::string(each->name),
                                .fields =
                                    contents::differences(contents::readAs(*each, old), contents::readAs(*each, now))};
        }
    }
    return std::nullopt;
}

std::string fieldLines(const std::optional<fieldChanges>& changes, const std::string& indent)
{
    std::string lines;
    for (const contents::fieldDifference& each : changes ? changes->fields : std::vector<contents::fieldDifference>()) {
        lines += fmt::format("{}{}: {} -> {}\n", indent, escaped(each.name), sideText(each.old), sideText(each.now));
    }
    return lines;
}

jsonValue fieldChangesJson(const std::optional<fieldChanges>& changes)
{
    if (!changes) {
        return nullptr;
    }
    jsonList rows;
    for (const contents::fieldDifference& each : changes->fields) {
        rows.push_back({{"field", each.name},
                        {"old", each.old ? jsonValue(*each.old) : jsonValue()},
                        {"new", each.now ? jsonValue(*each.now) : jsonValue()},
                        {"offset", each.offset}});
    }
    return {{"format", changes->format}, {"fields", rows}};
}

} // namespace kest::tools
