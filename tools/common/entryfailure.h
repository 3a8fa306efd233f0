/// What entries of the error log mean to the user of a program, and entries for failures of the tools' own.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/errl.h"
#include "tools/common/devicetext.h"
#include "tools/common/failure.h"

namespace kest::host
{
struct loggedEntry;
}

namespace kest::tools
{

/// Commits an entry that the library returned, so that it can be looked up later, and describes what it means. When
/// nothing answers, it probes whether the address is in the wrong form.
/// @param entry  not null; gone afterwards
[[nodiscard]] failure entryFailure(std::unique_ptr<ErrlEntry> entry, const device& which, const std::string& step);

/// Throws entryFailure() when there is an entry.
void throwEntry(ErrlEntry* entry, const device& which, const std::string& step);

/// The `errno` that the IIC layer gave for the entry's first failed call; 0 when no SRC of the entry carries one.
[[nodiscard]] int errnoOf(const host::loggedEntry& entry);

/// Fills in the exit code, what happened and what to try. The cause is what the return code says about the whole
/// transfer; else the failed call of the IIC layer; else the first known reason. Leaves `why` as it is when none is
/// known.
void describeEntry(const host::loggedEntry& entry, const device& which, failure& why);

/// The same from the return code alone, for callers without the entry. @return false when the code is not known
bool describeReturnCode(std::uint32_t returnCode, failure& why);

/// Reason codes of the tools' own failures.
enum toolReason : std::uint16_t {
    reasonVerifyDiffers = 0x1701, ///< words: offset, byte written, byte read
    reasonUndoUnsaved = 0x1702, ///< words: errno
    reasonOtherPart = 0x1703, ///< words: offset, byte expected, byte read
    reasonProtected = 0x1704, ///< words: offset, pages with the old bytes, pages written
    reasonReadsDiffer = 0x1705, ///< words: offset, bytes that differ, bytes read
    reasonUnsettled = 0x1706, ///< words: offset, reads
    reasonNoMajority = 0x1707, ///< words: offset, reads
    reasonShort = 0x1708, ///< words: offset, bytes asked for, bytes moved
};

/// An error entry for a failure for which the library made none.
struct toolEntry {
    toolReason reason;
    std::array<std::uint32_t, 4> words = {}; ///< user data 1 to 4
    std::string text = {}; ///< device text
};
/// Commits an entry and puts its log id and return code into `why`.
void logFailure(failure& why, const toolEntry& what);

/// When nothing answers at an address that looks like one in the wrong form, sets a hint as what to try. Probes.
void hintAtWrongForm(failure& why, const device& which);

} // namespace kest::tools
