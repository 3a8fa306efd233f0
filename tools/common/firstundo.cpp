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

firstUndo::firstUndo(const seeprom& chip, const firstContent& first)
    : m_file(saveFirst(chip, first)), m_hint(restoreFirstHint(chip, m_file))
{
}

firstUndo::~firstUndo()
{
    if (!m_stays) {
        dropUndo(m_file);
    }
}

const std::string& firstUndo::keep()
{
    m_stays = true;
    return m_hint;
}

} // namespace kest::tools
