#include "tools/kestctl/portwords.h"

#include <algorithm>
#include <array>
#include <fmt/core.h>

#include "base/guess.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

constexpr std::array operations{
    portOperation{"on", KEST_DP_SELECT_00, family::leds},     portOperation{"off", KEST_DP_SELECT_01, family::leds},
    portOperation{"blink0", KEST_DP_SELECT_10, family::leds}, portOperation{"blink1", KEST_DP_SELECT_11, family::leds},
    portOperation{"low", KEST_DP_SELECT_00, family::all},     portOperation{"high", KEST_DP_SELECT_01, family::all},
    portOperation{"copy", KEST_DP_COPY, family::all},
};

constexpr std::array functions{
    portFunction{"input", KEST_DP_CONFIG_INPUT, family::expanders, true, 0},
    portFunction{"output", KEST_DP_CONFIG_OUTPUT, family::expanders, true, 0},
    portFunction{"prescaler0", KEST_DP_CONFIG_PRESCALER0, family::leds, false, 0},
    portFunction{"duty0", KEST_DP_CONFIG_DUTY0, family::leds, false, 0},
    portFunction{"prescaler1", KEST_DP_CONFIG_PRESCALER1, family::leds, false, 0},
    portFunction{"duty1", KEST_DP_CONFIG_DUTY1, family::leds, false, 0},
    portFunction{"polarity0", KEST_DP_CONFIG_POLARITY0, family::expanders, false, 0},
    portFunction{"polarity1", KEST_DP_CONFIG_POLARITY1, family::expanders, false, 16},
};

family familyOf(const device& which)
{
    const kest_deviceType type = which.end().type->type;
    return type == KEST_DEV_9551 || type == KEST_DEV_9552 ? family::leds : family::expanders;
}

/// Finds a word that the device takes. The complaint lists those words.
template <typename Rows>
const auto& findWord(const Rows& rows, const std::string& word, const device& which, const std::string& what)
{
    const auto served = [&which](const auto& row) {
        return row.takenBy == family::all || row.takenBy == familyOf(which);
    };
    const auto row =
        std::ranges::find_if(rows, [&](const auto& candidate) { return word == candidate.word && served(candidate); });
    if (row != rows.end()) {
        return *row;
    }
    std::string known;
    std::vector<std::string> words;
    for (const auto& candidate : rows) {
        if (served(candidate)) {
            words.emplace_back(candidate.word);
            known += fmt::format("{}{}", known.empty() ? "" : ", ", candidate.word);
        }
    }
    throw wrongUse(fmt::format("{} '{}': a {} supports {}", what, word, which.end().type->chip, known),
                   didYouMean(word.substr(0, word.find('=')), words));
}

} // namespace

const portOperation& findOperation(const std::string& word, const device& which)
{
    return findWord(operations, word, which, "operation");
}

const portFunction& findFunction(const std::string& word, const device& which)
{
    return findWord(functions, word, which, "function");
}

} // namespace kest::tools
