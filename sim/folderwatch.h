/// Whether files were added to a folder or taken from it.
#pragma once

#include "sim/filestamp.h"

#include <cstdint>
#include <filesystem>

namespace kest::sim
{

class folderWatch
{
public:
    /// @param tickNs  as for fileStamp::isSettled()
    explicit folderWatch(std::filesystem::path folder, std::uint64_t tickNs = fileStamp::safeTickNs);

    /// Whether the folder has the names that it had at the latest note(). False when that is not certain.
    [[nodiscard]] bool isUnchanged() const;
    /// The caller is going to look at the folder's files: changes count from now on.
    void note();
    void forget() { m_stamp = {}; }

private:
    [[nodiscard]] fileStamp now() const;

    std::filesystem::path m_folder;
    std::uint64_t m_tickNs;
    fileStamp m_stamp;
};

} // namespace kest::sim
