#include "tools/common/firstundo.h"

#include <fmt/core.h>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/undofile.h"

namespace kest::tools
{

std::string saveFirst(const seeprom& chip, const firstContent& first)
{
    const device part = asShortPart(chip.target());
    return saveUndo(part, {.text = part.text, .name = part.label, .number = part.number, .bytes = first});
}

std::string restoreFirstHint(const seeprom& chip, const std::string& firstFile)
{
    device part = asShortPart(chip.target());
    part.named = false;
    std::string force;
    try {
        refuseOtherType(part, false);
    } catch (const failure&) {
        force = "--force ";
    }
    return fmt::format("'kestctl seeprom restore {}{}' does so for a part with one offset byte", force,
                       shellWord(firstFile));
}

} // namespace kest::tools
