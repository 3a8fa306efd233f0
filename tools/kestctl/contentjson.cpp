#include "tools/kestctl/contentjson.h"

#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "base/hex.h"
#include "contents/shownvalue.h"
#include "contents/sums.h"

namespace kest::tools
{
namespace
{

using contents::node;
using contents::reading;
using contents::verdict;

/// A number, a text, a list of texts, or bytes as hexadecimal digits.
jsonValue valueJson(const contents::fieldValue& value)
{
    return std::visit(
        [](const auto& held) -> jsonValue {
            using type = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<type, std::monostate>) {
                return nullptr;
            } else if constexpr (std::is_same_v<type, std::vector<std::uint8_t>>) {
                return hexDigits(held);
            } else if constexpr (std::is_same_v<type, std::vector<std::string>>) {
                return jsonList(held.begin(), held.end());
            } else {
                return held;
            }
        },
        value);
}

const char* verdictText(verdict which)
{
    switch (which) {
    case verdict::good:
        return "good";
    case verdict::damaged:
        return "damaged";
    default:
        return "unknown";
    }
}

jsonValue sumJson(const node& which)
{
    jsonValue result{{"name", which.name}, {"offset", which.offset}, {"verdict", verdictText(which.is)}};
    if (which.sum) {
        result.add({{"kind", contents::sumName(which.sum->as)},
                    {"stored", which.sum->stored},
                    {"computed", which.sum->computed},
                    {"from", which.sum->from},
                    {"bytes", which.sum->length}});
    }
    return result;
}

} // namespace

jsonValue contentFieldJson(const node& which)
{
    jsonValue result{{"name", which.name}, {"label", which.label}, {"verdict", verdictText(which.is)}};
    if (!which.problem.empty()) {
        result.add("problem", which.problem);
    }
    result.add({{"offset", which.offset}, {"length", which.length}});
    if (which.bits != 0) {
        result.add({{"bit", which.bit}, {"bits", which.bits}});
    }
    if (!which.children.empty()) {
        jsonList inside;
        for (const node& each : which.children) {
            inside.push_back(contentFieldJson(each));
        }
        result.add("fields", std::move(inside));
        return result;
    }
    result.add({{"value", valueJson(which.value)}, {"text", contents::shownText(which)}});
    if (which.raw) {
        result.add("raw", *which.raw);
    }
    if (!which.unit.empty()) {
        result.add("unit", which.unit);
    }
    return result;
}

void addContentJson(jsonValue& to, const reading& what)
{
    jsonList fields;
    for (const node& each : what.nodes) {
        fields.push_back(contentFieldJson(each));
    }
    jsonList sums;
    for (const node* each : checksums(what)) {
        sums.push_back(sumJson(*each));
    }
    jsonList damaged;
    for (const node* each : damagedNodes(what)) {
        damaged.push_back({{"name", each->name}, {"offset", each->offset}, {"problem", each->problem}});
    }
    to.add({{"format", what.as->name},
            {"title", what.as->title},
            {"document", what.as->document},
            {"whole", isWhole(what)},
            {"problem", what.problem},
            {"fields", fields},
            {"checksums", sums},
            {"damaged", damaged}});
}

} // namespace kest::tools
