/// Persisted copies of SEEPROM contents, as the tools make, check, list and remove them. docs/host-services.md
/// describes the files.
///
/// A copy is one file, `ROOT/NUMBER` in the state folder: the bytes of the device with that number, and check sums that
/// prove them. Raw copies, without check sums, are read and changed as well. Functions return 0 or an `errno` value:
/// ENOENT no such copy, EBADMSG a damaged copy, ENOTSUP one of a newer version, EINVAL a malformed root or an empty
/// copy, EFBIG more than `largestCopyBytes`, EISDIR or ESPIPE no regular file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

#include "platform/host/vpd/copyformat.h"

namespace kest::host
{

constexpr std::string_view copyRoot = "qorn/P3_Root"; ///< persistency root of the SEEPROM copies

enum class copyState : std::uint8_t {
    proved, ///< its check sums prove every byte
    unproved, ///< a raw copy
    damaged,
    unreadable, ///< not permitted, too large, of a newer version
};

struct copyInfo {
    std::uint32_t number = 0; ///< device number
    copyState state = copyState::unreadable;
    std::uint64_t sizeBytes = 0; ///< of the device's bytes in it; 0 when that is not known
    std::int64_t modifiedMs = 0; ///< wall clock, ms since 1970 UTC
    copyFacts facts = {};
    /// Offsets of the damaged blocks among the device's bytes. None in a damaged copy: its header or size is wrong.
    std::vector<std::uint32_t> damaged = {};
};

/// Lists the copies under a root in the order of their numbers, each as checkCopy() finds it. No folder is no copies.
int listCopies(std::vector<copyInfo>& copies, std::string_view root = copyRoot);

/// Checks all of a copy. A copy that is damaged or can't be read is no failure: `found.state` says so.
int checkCopy(std::uint32_t number, copyInfo& found, std::string_view root = copyRoot);

/// Where a damaged copy is damaged, when that is no block of the device's bytes.
constexpr std::uint32_t damageOutsideBlocks = 0xFFFFFFFF;

/// What an access found, besides bytes.
struct copyFinding {
    std::uint64_t sizeBytes = 0; ///< of the whole copy; 0 when there is none, or that is not known
    bool proved = false; ///< check sums prove the bytes
    std::uint32_t damagedAt = damageOutsideBlocks; ///< with EBADMSG: offset of the damaged block in the copy
};

/// Reads a whole copy.
int readCopy(std::uint32_t number, std::vector<std::uint8_t>& bytes, std::string_view root = copyRoot);

/// Reads up to `most` bytes of a copy from `offset`. EBADMSG when a block that they touch, or the header, is damaged;
/// the other blocks are not looked at.
int readCopyPart(std::uint32_t number, std::uint32_t offset, std::size_t most, std::vector<std::uint8_t>& bytes,
                 copyFinding& found, std::string_view root = copyRoot);

/// Reads the bytes that a copy seems to hold, whatever its check sums say.
int salvageCopy(std::uint32_t number, std::vector<std::uint8_t>& bytes, std::string_view root = copyRoot);

/// Makes a copy with check sums or gives one new contents, durably and as a whole: every reader finds the old bytes or
/// the new ones.
int replaceCopy(std::uint32_t number, std::span<const std::uint8_t> bytes, const copyFacts& facts = {},
                std::string_view root = copyRoot);

/// Changes bytes within a copy, durably and as a whole. ENOENT when there is no copy, ERANGE when the bytes would pass
/// its end, EBADMSG when the header or a block that changes in part is damaged; nothing changes then. A raw copy stays
/// one: EILSEQ, and no change, when the bytes would make it look like a copy with check sums.
int changeCopy(std::uint32_t number, std::uint32_t offset, std::span<const std::uint8_t> bytes, copyFinding& found,
               std::string_view root = copyRoot);

int removeCopy(std::uint32_t number, std::string_view root = copyRoot);

/// The file of a copy, whether there is one or not. @param root  well formed
std::filesystem::path copyPath(std::uint32_t number, std::string_view root = copyRoot);

} // namespace kest::host
