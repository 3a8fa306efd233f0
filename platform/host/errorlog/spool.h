/// The error log's spool: a file of entries, one JSON text a line. It takes what the database can't, until the database can; where the host
/// platform is built without a database it is the store.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/host/errorlog/limits.h"
#include "platform/host/files/files.h"

namespace kest::host
{

/// Functions answer 0 or an `errno` value. Any number of processes use one spool; each change is made under a lock.
class spool
{
public:
    /// @param file  its lock is `lock` beside it
    spool(std::filesystem::path file, std::filesystem::path lock);

    /// Adds a line, durable on return. What a killed writer left of a line is removed first. Keeps within the limits.
    int append(const std::string& line, const logLimits& limits);
    /// Sets disk space aside, so that entries can be added when the disk is full. Makes the file.
    int reserve();
    /// Reads all whole lines.
    int read(std::vector<std::string>& lines) const;
    /// @return whether there are lines
    [[nodiscard]] bool pending() const;
    /// Hands all lines over and removes them once `consumer` has answered true. Nobody adds lines meanwhile.
    int take(const std::function<bool(const std::vector<std::string>&)>& consumer);

private:
    /// How many lines the first `bytes` of a file hold; spares reading it again for every line added.
    struct knownLines {
        std::uint64_t device = 0, inode = 0, bytes = 0, lines = 0;
    };

    int openMade(int flags, fileDescriptor& descriptor) const;
    int countLines(int descriptor, std::uint64_t& bytes, std::uint64_t& lines);
    int trim(const logLimits& limits);

    std::filesystem::path m_file;
    std::filesystem::path m_lock;
    knownLines            m_known;
};

} // namespace kest::host
