#include "tools/kestctl/contentformat.h"

#include <fmt/core.h>

#include "base/guess.h"
#include "contents/formatlist.h"
#include "contents/recognise.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

std::string namesOf(std::span<const contents::format* const> formats)
{
    std::string names;
    for (const contents::format* each : formats) {
        names += (names.empty() ? "" : ", ") + std::string(each->name);
    }
    return names;
}

} // namespace

std::string formatNames() { return namesOf(contents::formats()); }

const contents::format& formatOf(std::span<const std::uint8_t> image, const std::string& chosen)
{
    if (!chosen.empty()) {
        if (const contents::format* const found = contents::findFormat(chosen)) {
            return *found;
        }
        std::vector<std::string> names;
        for (const contents::format* each : contents::formats()) {
            names.emplace_back(each->name);
        }
        throw wrongUse(fmt::format("'{}' is no format", chosen), didYouMean(chosen, names, "one of " + formatNames()));
    }
    const auto found = contents::recognise(image);
    if (found.size() == 1) {
        return *found.front();
    }
    throw failure{.what = found.empty() ? "the bytes have no format that is known"
                                        : "the bytes could have several formats: " + namesOf(found),
                  .tryThis =
                      found.empty() ? "--as FORMAT reads them as one of " + formatNames() : "--as FORMAT chooses one"};
}

} // namespace kest::tools
