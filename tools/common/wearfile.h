/// The file in which the page writes of one device are counted. docs/host-services.md has the table.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kest::tools
{

/// Page writes of one device, by groups of pages.
struct wearCounts {
    std::string place; ///< by which the file is known to be this device's
    std::uint32_t groupBytes = 0;
    std::vector<std::uint64_t> groups;

    [[nodiscard]] std::uint64_t total() const;
    /// The group with the most page writes, the first of several.
    [[nodiscard]] std::size_t busiest() const;
};

/// Longest place and most groups that a file has room for.
constexpr std::size_t longestWearPlace = 1024;
constexpr std::size_t mostWearGroups = 256;

/// Reads what has been counted, without a lock. Nothing is counted where there is no file.
/// @param[in,out] counts  in: the device's place and groups, all 0; out: what has been counted
/// @return 0, EBADMSG a damaged file, EEXIST another device's, else why it can't be read
int readWear(const std::filesystem::path& file, wearCounts& counts);

/// Adds to the counts of a file, which is made with its folder when there is none, and locked meanwhile. Not synced: a
/// loss of power may lose the latest counts. A damaged file is set aside as FILE.damaged, and counting begins anew.
/// @param more  place and groups of the device, with what is added to each
/// @param[out] counts  all that has been counted now
/// @param[out] setAside  whether a damaged file was
/// @return 0 or an `errno` value: EEXIST another device's, ETIMEDOUT another process holds the file
int addWear(const std::filesystem::path& file, const wearCounts& more, wearCounts& counts, bool& setAside);

} // namespace kest::tools
