#include "platform/host/errorlog/sqlite/sqlitestore.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <unistd.h>

#include "base/folders.h"
#include "platform/host/errorlog/sqlite/opening.h"
#include "platform/host/errorlog/sqlite/reader.h"

namespace kest::host
{

sqliteStore::sqliteStore(const logFiles& files, const logLimits& limits)
    : m_files(files), m_spool(files.spool, files.lock), m_limits(limits)
{
}

/// Opens the database while others can't.
openedDatabase sqliteStore::openWriter(const patience& wait)
{
    openedDatabase opened;
    int error = makeFolders(m_files.folder);
    if (error == 0) {
        const patientLock lock(m_files.lock, wait);
        error = lock.error();
        if (error == 0) {
            opened = database::open(m_files.database, wait);
        }
    }
    if (error != 0) {
        opened.problem = fmt::format("{}: {}", m_files.folder.string(), std::strerror(error));
        opened.busy = error == ETIMEDOUT;
    }
    m_writer = std::move(opened.value);
    if (m_writer != nullptr) {
        // now, while the disk has room
        m_spool.reserve();
    }
    return opened;
}

storeOpening sqliteStore::open(const patience& wait)
{
    if (m_writer != nullptr && m_writer->replaced()) {
        m_writer.reset();
    }
    if (m_writer != nullptr) {
        return {.isOpen = true};
    }
    openedDatabase opened = openWriter(wait);
    return {.isOpen = m_writer != nullptr,
            .problem = std::move(opened.problem),
            .busy = opened.busy,
            .note = std::move(opened.note)};
}

bool sqliteStore::add(std::span<const entryRow> rows, bool skipKnown, const patience& wait)
{
    return m_writer->add(rows, skipKnown, m_limits, wait);
}

/// @param[out] newer  a newer version made the database
bool sqliteStore::clearOnce(const patience& wait, std::string& problem, bool& newer)
{
    if (m_writer != nullptr && m_writer->replaced()) {
        m_writer.reset();
    }
    if (m_writer == nullptr) {
        const openedDatabase opened = openWriter(wait);
        problem = opened.problem;
        newer = opened.newer;
    }
    if (m_writer == nullptr) {
        return false;
    }
    if (m_writer->clear(wait)) {
        return true;
    }
    problem = m_writer->problem();
    return false;
}

std::string sqliteStore::clear(const patience& wait)
{
    const std::filesystem::path& file = m_files.database;
    // who may not look does not know that there is none
    if (access(file.c_str(), F_OK) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? std::string()
                                                   : fmt::format("{}: {}", file.string(), std::strerror(errno));
    }
    std::string problem;
    bool newer = false;
    // a second time when its layout was changed since it was opened
    if (clearOnce(wait, problem, newer) ||
        (m_writer != nullptr && m_writer->replaced() && clearOnce(wait, problem, newer))) {
        return {};
    }
    m_writer.reset();
    bool damaged = false;
    if (!newer && (checkDatabase(file, damaged).empty() || !damaged)) {
        return problem;
    }
    const patientLock lock(m_files.lock, wait);
    const int error = lock.error() == 0 ? setDatabaseAside(file) : lock.error();
    return error == 0 ? std::string() : fmt::format("{}: {}", file.string(), std::strerror(error));
}

void sqliteStore::read(const entryFilter& filter, std::vector<loggedEntry>& entries, std::string& problem) const
{
    readDatabase(m_files.database, filter, entries, problem);
}

bool sqliteStore::highestId(std::uint32_t limit, std::uint32_t& highest) const
{
    return highestStoredId(m_files.database, limit, highest);
}

std::string sqliteStore::check() const
{
    bool damaged = false;
    return checkDatabase(m_files.database, damaged);
}

} // namespace kest::host
