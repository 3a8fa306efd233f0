#include "contents/shownvalue.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <variant>
#include <vector>

#include "contents/decodedvalue.h"

namespace kest::contents
{

std::string shownText(const node& which)
{
    const auto* const bytes = std::get_if<std::vector<std::uint8_t>>(&which.value);
    if (bytes == nullptr) {
        return which.text;
    }
    const std::size_t shown = std::min(bytes->size(), mostShownBytes);
    std::string text = spacedHex(std::span(*bytes).first(shown));
    if (shown < bytes->size()) {
        text += " ... " + std::to_string(bytes->size() - shown) + " more";
    }
    return text;
}

} // namespace kest::contents
