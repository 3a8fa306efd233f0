/// Reading the error log's database without writing anything.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/host/errorlog/record.h"

namespace kest::host
{

/// Reads entries, the latest first. No file is no entries.
/// @param[out] problem  why entries may be missing
void readDatabase(const std::filesystem::path& file, const entryFilter& filter, std::vector<loggedEntry>& entries,
                  std::string& problem);

/// @param[out] highest  the highest entry identifier not above `limit`, 0 when there is none
/// @return whether the file could be read
bool highestStoredId(const std::filesystem::path& file, std::uint32_t limit, std::uint32_t& highest);

/// Reads the whole file. @return what is wrong, empty when nothing is
/// @param[out] damaged  its contents are, and not just the way to them
std::string checkDatabase(const std::filesystem::path& file, bool& damaged);

} // namespace kest::host
