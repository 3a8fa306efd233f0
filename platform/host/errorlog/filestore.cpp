#include "platform/host/errorlog/filestore.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

#include "base/folders.h"
#include "platform/host/errorlog/json.h"

namespace kest::host
{

fileStore::fileStore(const logFiles& files, const logLimits& limits)
    : m_folder(files.folder), m_lines(files.spool, files.lock), m_limits(limits)
{
}

/// @return false
bool fileStore::failed(int error) noexcept
{
    try {
        m_problem = fmt::format("{}: {}", m_folder.string(), std::strerror(error));
    } catch (const std::exception&) {
        // no memory
        m_problem.clear();
    }
    return false;
}

storeOpening fileStore::open(const patience&)
{
    const int error = makeFolders(m_folder);
    if (error != 0) {
        failed(error);
        return {.problem = m_problem};
    }
    return {.isOpen = true};
}

bool fileStore::add(std::span<const entryRow> rows, bool skipKnown, const patience& wait)
{
    std::vector<std::string> known;
    if (skipKnown) {
        try {
            if (const int error = m_lines.read(known); error != 0) {
                return failed(error);
            }
        } catch (const std::exception&) {
            return failed(ENOMEM);
        }
    }
    for (const entryRow& row : rows) {
        if (std::ranges::find(known, row.line) != known.end()) {
            continue;
        }
        if (const int error = m_lines.append(row.line, m_limits, wait); error != 0) {
            return failed(error);
        }
    }
    return true;
}

std::string fileStore::clear(const patience& wait)
{
    const int error = m_lines.pending() ? m_lines.clear(wait) : 0;
    return error == 0 ? std::string() : spoolProblem(error);
}

void fileStore::read(const entryFilter& filter, std::vector<loggedEntry>& entries, std::string& problem) const
{
    std::vector<std::string> lines;
    if (const int error = m_lines.read(lines); error != 0) {
        problem = spoolProblem(error);
    }
    if (const std::uint64_t damaged = entriesOf(lines, filter, entries); damaged > 0) {
        problem = damagedLines(damaged);
    }
}

bool fileStore::highestId(std::uint32_t limit, std::uint32_t& highest) const
{
    std::vector<std::string> lines;
    highest = 0;
    const int error = m_lines.read(lines);
    highest = highestIdOf(lines, limit);
    return error == 0;
}

std::string fileStore::check() const { return {}; }

} // namespace kest::host
