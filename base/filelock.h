/// Locks on files.
#pragma once

#include <chrono>
#include <filesystem>

#include "base/unshared.h"

namespace kest
{

/// Excludes every other holder of a lock on the same file, in this process and others. Ends with its owner or its
/// process, whatever children that has.
class fileLock
{
public:
    /// Makes the file when there is none, and waits at most `patience` for the lock.
    explicit fileLock(const std::filesystem::path& file,
                      std::chrono::milliseconds patience = std::chrono::milliseconds(5000));
    fileLock(const fileLock&) = delete;
    fileLock& operator=(const fileLock&) = delete;
    ~fileLock();

    /// @return 0 when the lock is held, ETIMEDOUT when another held it all the time, else why its file could not be
    /// opened
    [[nodiscard]] int error() const { return m_error; }

private:
    unsharedFile m_file;
    int m_error = 0;
};

} // namespace kest
