#include "platform/host/errorlog/sqlite/layout.h"

#include <algorithm>
#include <string>

namespace kest::host
{

int versionOf(sqlite3* connection)
{
    const statementOwner statement = prepare(connection, "PRAGMA user_version");
    const bool isRead = statement != nullptr && sqlite3_step(statement.get()) == SQLITE_ROW;
    return isRead ? sqlite3_column_int(statement.get(), 0) : -1;
}

layoutKind lookAtLayout(sqlite3* connection)
{
    const statementOwner statement =
        prepare(connection, "SELECT type, name, sql FROM sqlite_schema WHERE sql IS NOT NULL");
    if (statement == nullptr) {
        return layoutKind::unreadable;
    }
    std::size_t own = 0;
    std::size_t others = 0;
    bool hasEntries = false;
    int result = sqlite3_step(statement.get());
    for (; result == SQLITE_ROW; result = sqlite3_step(statement.get())) {
        const std::string type = columnText(statement.get(), 0);
        const std::string name = columnText(statement.get(), 1);
        const std::string text = columnText(statement.get(), 2);
        const bool isOwn = std::ranges::any_of(layout, [&](const layoutObject& each) {
            return type == each.type && name == each.name && text == each.text;
        });
        own += isOwn ? 1 : 0;
        others += isOwn ? 0 : 1;
        hasEntries = hasEntries || (isOwn && name == entriesTable.name);
    }
    if (result != SQLITE_DONE) {
        return layoutKind::unreadable;
    }
    if (own + others == 0) {
        return layoutKind::none;
    }
    if (!hasEntries) {
        return layoutKind::foreign;
    }
    return own == layout.size() && others == 0 ? layoutKind::own : layoutKind::mixed;
}

} // namespace kest::host
