/// The layout of the error log's database.
#pragma once

#include <array>
#include <string_view>

#include "platform/host/errorlog/sqlite/connection.h"

namespace kest::host
{

/// Up to layout 2 the bodies had other field names. Such bodies stay as they are, and are still read.
constexpr int layoutVersion = 4;

/// One object of the layout, word for word as SQLite keeps it.
struct layoutObject {
    const char* type;
    const char* name;
    const char* text;
};

// Bytes are counted of a BLOB, whose length is known: of a text each character would be looked at.
//
// The totals are kept by the database itself, so that they stay true whoever deletes entries. Only informational
// entries cost an index: the others go in the order of their ids.
inline constexpr std::array layout{
    layoutObject{"table", "entries",
                 "CREATE TABLE entries(id INTEGER PRIMARY KEY, plid INTEGER NOT NULL, committed_ms INTEGER NOT NULL,\n"
                 "        severity INTEGER NOT NULL, component INTEGER NOT NULL, body TEXT NOT NULL) STRICT"},
    layoutObject{"index", "entries_plid", "CREATE INDEX entries_plid ON entries(plid)"},
    layoutObject{"index", "entries_committed", "CREATE INDEX entries_committed ON entries(committed_ms)"},
    layoutObject{"index", "entries_informational",
                 "CREATE INDEX entries_informational ON entries(id) WHERE severity = 16"},
    layoutObject{"table", "totals", "CREATE TABLE totals(entries INTEGER NOT NULL, bytes INTEGER NOT NULL) STRICT"},
    layoutObject{"trigger", "entries_added",
                 "CREATE TRIGGER entries_added AFTER INSERT ON entries BEGIN"
                 " UPDATE totals SET entries = entries + 1, bytes = bytes + length(CAST(new.body AS BLOB)); END"},
    layoutObject{"trigger", "entries_deleted",
                 "CREATE TRIGGER entries_deleted AFTER DELETE ON entries BEGIN"
                 " UPDATE totals SET entries = entries - 1, bytes = bytes - length(CAST(old.body AS BLOB)); END"},
};
inline constexpr const layoutObject& entriesTable = layout.front();

/// @return the version of the file's layout, 0 when it has none yet, -1 when it can't be read
int versionOf(sqlite3* connection);

/// What the objects of a file are.
enum class layoutKind {
    unreadable,
    none, ///< the file is empty
    own,
    mixed, ///< the table of entries is kest's, and something else isn't
    foreign,
};

/// Compares a file's objects with kest's own. Runs nothing of what it finds.
layoutKind lookAtLayout(sqlite3* connection);

} // namespace kest::host
