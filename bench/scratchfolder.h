/// Folders that benchmarks work in.
#pragma once

#include <filesystem>

namespace kest::bench
{

/// A folder of its own. The destructor removes it with all that is in it.
class scratchFolder
{
public:
    /// @param where  an existing folder. Throws std::runtime_error when none can be made there
    explicit scratchFolder(const std::filesystem::path& where = std::filesystem::temp_directory_path());
    scratchFolder(const scratchFolder&) = delete;
    scratchFolder& operator=(const scratchFolder&) = delete;
    ~scratchFolder();
    [[nodiscard]] const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

} // namespace kest::bench
