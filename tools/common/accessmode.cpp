#include "tools/common/accessmode.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fmt/core.h>
#include <iterator>
#include <string_view>
#include <vector>

#include "base/guess.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/vpd/copies.h"
#include "tools/common/device.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

struct modeRow {
    const char* word;
    accessMode mode;
    std::string_view registry; ///< what the registry's value begins with; empty: it has none
};

constexpr std::array modes{
    modeRow{"hardware", accessMode::hardware, "HWareMode"}, modeRow{"file", accessMode::file, "FileMode"},
    modeRow{"mixed", accessMode::mixed, "MixedMode"}, modeRow{"registry", accessMode::registry, ""}};

/// @return registry when the value is none of the library's modes
accessMode registryMode()
{
    const auto& registry = host::currentConfiguration().registry;
    const auto value = registry.find("tavo/ReadMode");
    const std::string text = value == registry.end() ? "" : value->second;
    const auto* row = std::ranges::find_if(
        modes, [&text](const modeRow& mode) { return !mode.registry.empty() && text.starts_with(mode.registry); });
    return row == modes.end() ? accessMode::registry : row->mode;
}

/// Whether there is a copy that can serve the device. One that is damaged, empty or can't be read counts: the library
/// reports it.
bool hasCopy(const device& which)
{
    std::vector<std::uint8_t> none;
    host::copyFinding found;
    const int error = host::readCopyPart(which.number, 0, 0, none, found);
    return copyIsItsOwn(which) && error != ENOENT && error != ENOTDIR;
}

} // namespace

accessMode parseMode(const std::string& word)
{
    const auto* found = std::ranges::find_if(modes, [&](const modeRow& row) { return word == row.word; });
    if (found == modes.end()) {
        std::vector<std::string> words;
        std::ranges::transform(modes, std::back_inserter(words), &modeRow::word);
        throw wrongUse(fmt::format("mode '{}': expected hardware, file, mixed or registry", word),
                       didYouMean(word, words));
    }
    return found->mode;
}

const char* modeWord(accessMode mode) { return std::ranges::find(modes, mode, &modeRow::mode)->word; }

accessMode settledMode(const device& which, accessMode mode)
{
    const accessMode asked = mode == accessMode::registry ? registryMode() : mode;
    if (asked == accessMode::file) {
        refuseForeignCopy(which);
    }
    if (asked == accessMode::mixed) {
        return hasCopy(which) ? accessMode::file : accessMode::hardware;
    }
    return asked;
}

} // namespace kest::tools
