/// Writes that ask, save the old bytes in an undo file, skip pages that already hold the data, and read back.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/common/contentsguard.h"
#include "tools/common/identity.h"
#include "tools/common/operation.h"
#include "tools/common/seeprom.h"
#include "tools/common/widthengine.h"

namespace kest::tools
{

struct carefulWriteOptions {
    bool yes = false;
    bool dryRun = false;
    bool allPages = false; ///< also pages that already hold the data
    /// Even if a kernel driver has the device, the part is not the expected one, or its contents would be damaged.
    bool force = false;
    bool verify = true;
    bool contentsKnown = false; ///< the part has held what is written before: nothing is asked about its contents
    bool widthUnproved = false; ///< also when the offset width of the part can't be proved
    std::string doing = "seeprom write"; ///< what others are told
    std::uint64_t waitNs = usualWaitNs; ///< for others who have the device
    bool held = false; ///< the caller has the device for a write already
};

struct writeReport {
    std::uint32_t bytesWritten = 0;
    std::uint32_t pagesWritten = 0;
    std::uint32_t pagesSkipped = 0; ///< they already held the data
    identity part = identity::notExpected; ///< what was found where something is to be written
    contentsFinding contents; ///< what the write makes of the part's contents, where something is to be written
    std::optional<widthFinding> width; ///< what the proof of the offset width found, when there was one
    std::string undoFile; ///< empty when nothing was written
    bool verified = false;
};

/// Writes with care: keeps others off the device, reads the old bytes, skips pages that already hold the data, asks,
/// saves an undo file, writes, reads back and compares. A persisted copy is written without a question.
///
/// A signal ends it between two groups of pages; what was written so far is then read back, and the device is free
/// again. Throws a `failure`: 3 not confirmed, a kernel driver has the device, the part is not the expected one, or its
/// offset width is another or can't be proved, or its contents would be damaged or lost; 5 what was read back differs; 6
/// others have the device; an interruption() that says what is written and what restores the old content.
writeReport writeCarefully(seeprom& chip, std::uint32_t offset, std::span<const unsigned char> bytes,
                           const carefulWriteOptions& options);

} // namespace kest::tools
