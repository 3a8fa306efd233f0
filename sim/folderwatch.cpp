#include "sim/folderwatch.h"

#include "base/clock.h"

#include <utility>

namespace kest::sim
{

folderWatch::folderWatch(std::filesystem::path folder, std::uint64_t tickNs)
    : m_folder{std::move(folder)}, m_tickNs{tickNs}
{
}

// @return the stamp of no file when there is no folder
fileStamp folderWatch::now() const
{
    struct stat found {
    };
    return stat(m_folder.c_str(), &found) == 0 ? fileStamp::of(found) : fileStamp{};
}

bool folderWatch::isUnchanged() const { return m_stamp != fileStamp{} && m_stamp == now(); }

void folderWatch::note()
{
    const std::uint64_t at = clockNs(CLOCK_REALTIME);
    const fileStamp found = now();
    m_stamp = found.isSettled(at, m_tickNs) ? found : fileStamp{};
}

} // namespace kest::sim
