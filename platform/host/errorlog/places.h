/// Where the error log's files are.
#pragma once

#include <filesystem>
#include <vector>

#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/spool.h"

namespace kest::host
{

/// The error log's files in a state folder.
struct logFiles {
    explicit logFiles(const configuration& settings);

    std::filesystem::path folder;
    std::filesystem::path database;
    std::filesystem::path lock; ///< held while a database is opened, the spool changed, identifiers set aside
    std::filesystem::path nextId; ///< the first identifier that is not set aside yet
    std::filesystem::path spool;
    /// Of the spool for when the state folder can't be written; one for each state folder.
    std::filesystem::path otherName;
};

enum class placeKind {
    stateFolder,
    configured, ///< for when the state folder can't be written
    substitute, ///< for when somebody else has made the configured one
};

/// A folder and the spool in it.
struct spoolPlace {
    placeKind kind;
    std::filesystem::path folder;
    spool lines;
};

/// @return the state folder's place, then those for when it can't be written, in the order in which they are tried
std::vector<spoolPlace> spoolPlaces(const configuration& settings);

/// Makes a place's folder. One outside the state folder may be among everybody's folders, as in /var/tmp: unless it is
/// this user's alone it is not used. @return 0 or an `errno` value
int preparePlace(const spoolPlace& place);

/// @return whether entries at a place may be trusted. Makes nothing.
bool isTrustedPlace(const spoolPlace& place);

/// @return whether a place's spool may hold entries, and may be trusted
bool holdsEntries(const spoolPlace& place);

} // namespace kest::host
