/// Files that the tools make: whole or not at all, whatever happens on the way.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <string>
#include <sys/types.h>

namespace kest::tools
{

/// A file being written. For a new name or a regular file, the contents are written beside it and renamed at the end:
/// until then, and after a failure, the old file stays as it was. The new file keeps the old one's mode and owner, and
/// a symbolic link still leads to it. Devices, pipes and open descriptors (/dev/stdout) are written in place. Every
/// call throws a `failure` with the file's name. In a dry run (preferences.h) nothing is made or written, and what would
/// be refused is refused.
class outputFile
{
public:
    /// @param step  what is being done, for messages: "write"
    explicit outputFile(const std::string& name, std::string step = "write");
    outputFile(const outputFile&) = delete;
    outputFile& operator=(const outputFile&) = delete;
    /// Without finish() the file of that name stays as it was.
    ~outputFile();

    void write(std::span<const unsigned char> bytes);
    /// Makes the contents durable and gives them their name.
    void finish();

private:
    void rehearse() const;
    void openInPlace();
    void openBeside();
    void keepOwnerAndMode(uid_t owner, gid_t group, mode_t mode);
    [[noreturn]] void fail(int error) const;
    void check(int result) const; ///< throws for a system call that returned -1

    std::string m_name; ///< as the user gave it
    std::string m_step;
    std::filesystem::path m_target; ///< what is replaced: behind all links
    std::string m_beside; ///< empty when it is written in place
    int m_descriptor = -1;
};

} // namespace kest::tools
