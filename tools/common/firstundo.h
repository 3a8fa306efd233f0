/// The undo file of a part that may have one offset byte, while its device text says two.
#pragma once

#include <string>

#include "tools/common/seeprom.h"
#include "tools/common/shortpart.h"

namespace kest::tools
{

/// Saves what the part holds if it takes one offset byte: an undo file by the chip's type does not fit such a part.
/// @return as saveUndo(), and throws as it does
[[nodiscard]] std::string saveFirst(const seeprom& chip, const firstContent& first);

/// Such a file, as long as a read or a trial can change the part. It goes when the object ends, unless it is to stay.
class firstUndo
{
public:
    /// Saves the bytes; throws as saveFirst() does.
    firstUndo(const seeprom& chip, const firstContent& first);
    firstUndo(const firstUndo&) = delete;
    firstUndo& operator=(const firstUndo&) = delete;
    ~firstUndo();

    /// How to restore the bytes.
    [[nodiscard]] const std::string& hint() const { return m_hint; }
    /// Lets the file stay. @return how to restore it
    [[nodiscard]] const std::string& keep();
    [[nodiscard]] bool stays() const { return m_stays; }

private:
    std::string m_file;
    std::string m_hint;
    bool m_stays = false;
};

/// How to restore such a file, also where the device table names another type.
[[nodiscard]] std::string restoreFirstHint(const seeprom& chip, const std::string& firstFile);

} // namespace kest::tools
