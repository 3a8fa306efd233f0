#include "tools/kestctl/defaults.h"

#include <algorithm>
#include <utility>

namespace kest::tools
{
namespace
{

struct defaultRow {
    std::vector<option> options;
    std::function<void(const host::commandDefaults& defaults)> take;
};

std::vector<defaultRow>& rows()
{
    static std::vector<defaultRow> all;
    return all;
}

} // namespace

void elseByDefault(std::vector<option> options, std::function<void(const host::commandDefaults& defaults)> take)
{
    rows().push_back({std::move(options), std::move(take)});
}

void takeDefaults(const host::commandDefaults& defaults)
{
    for (const defaultRow& row : rows()) {
        if (std::ranges::none_of(row.options, [](const option& each) { return each.isGiven(); })) {
            row.take(defaults);
        }
    }
}

} // namespace kest::tools
