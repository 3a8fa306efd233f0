/// Persisted copies of SEEPROM contents, as the tools make, list and remove them. docs/host-services.md describes the
/// files.
///
/// A copy is one file, `ROOT/NUMBER` in the state folder: the raw bytes of the device with that number. Functions
/// return 0 or an `errno` value: ENOENT no such copy, EINVAL a malformed root or an empty copy, EFBIG more than
/// `largestCopyBytes`, EISDIR or ESPIPE no regular file.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kest::host
{

constexpr std::string_view copyRoot = "qorn/P3_Root"; ///< persistency root of the SEEPROM copies
constexpr std::size_t largestCopyBytes = 16 << 20;

struct copyInfo {
    std::uint32_t number = 0; ///< device number
    std::uint64_t sizeBytes = 0;
    std::int64_t modifiedMs = 0; ///< wall clock, ms since 1970 UTC
};

/// Lists the copies under a root in the order of their numbers. No folder is no copies.
int listCopies(std::vector<copyInfo>& copies, std::string_view root = copyRoot);

/// Reads a whole copy.
int readCopy(std::uint32_t number, std::vector<std::uint8_t>& bytes, std::string_view root = copyRoot);

/// Reads up to `most` bytes of a copy from `offset`. @param[out] sizeBytes  of the whole copy
int readCopyPart(std::uint32_t number, std::uint32_t offset, std::size_t most, std::vector<std::uint8_t>& bytes,
                 std::uint64_t& sizeBytes, std::string_view root = copyRoot);

/// Makes a copy or gives one new contents, durably and as a whole: every reader finds the old bytes or the new ones.
int replaceCopy(std::uint32_t number, std::span<const std::uint8_t> bytes, std::string_view root = copyRoot);

/// Changes bytes within a copy, durably and as a whole. ENOENT when there is no copy, ERANGE when the bytes would pass
/// its end; nothing changes then.
/// @param[out] sizeBytes  size of the copy, 0 when there is none
int changeCopy(std::uint32_t number, std::uint32_t offset, std::span<const std::uint8_t> bytes,
               std::uint64_t& sizeBytes, std::string_view root = copyRoot);

int removeCopy(std::uint32_t number, std::string_view root = copyRoot);

} // namespace kest::host
