/// Making the error log's database, and bringing one that is there to kest's layout.
#pragma once

#include <filesystem>
#include <string>
#include <sys/stat.h>

#include "platform/host/errorlog/sqlite/connection.h"

namespace kest::host
{

/// Opens the database of `to`, and makes it when there is none. It is made beside its place and moved there whole: one
/// that is killed leaves nothing that readers would trip over. A layout that is not kest's is never run: its entries are
/// kept where their table is kest's, else the file is set aside. The caller keeps others away that open one at the same
/// time.
/// @param[out] opened  the file that is open now
/// @param[out] note  what people should know: that a foreign file was set aside
bool openDatabase(session& to, struct stat& opened, std::string& note);

/// @return whether openDatabase() failed because a newer version made the file
bool isNewer(const session& tried);

/// Lets a database be forgotten by its name, with the files that belong to it. @return 0 or an `errno` value
int setDatabaseAside(const std::filesystem::path& file);

} // namespace kest::host
