/// A folder of a test's own.
#pragma once

#include <filesystem>

namespace kest::test
{

/// A new folder, removed with all that it holds at the end.
class TemporaryFolder
{
public:
    enum Place {
        onDisk, ///< below the system's folder for temporary files
        inMemory, ///< where there is a file system in memory: no test waits for a disk whose work it doesn't look at
    };

    explicit TemporaryFolder(Place place = onDisk);
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder();

    [[nodiscard]] const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

} // namespace kest::test
