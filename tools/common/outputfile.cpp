#include "tools/common/outputfile.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/folders.h"
#include "tools/common/failure.h"
#include "tools/common/preferences.h"

namespace kest::tools
{
namespace
{

// as many as the kernel follows
constexpr int mostLinks = 40;

/// Follows a name that is a symbolic link to the name behind all links. The file need not exist.
/// @return empty for a link of /proc, which stands for an open descriptor, and for endless links
std::filesystem::path behindLinks(std::filesystem::path name)
{
    for (int count = 0; count < mostLinks; ++count) {
        std::error_code none;
        const std::filesystem::path link = std::filesystem::read_symlink(name, none);
        if (none) {
            return name;
        }
        if (name.native().starts_with("/proc/") || name.native().starts_with("/dev/fd/")) {
            return {};
        }
        // an absolute link replaces the parent path
        name = name.parent_path() / link;
    }
    return {};
}

mode_t currentUmask()
{
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

} // namespace

outputFile::outputFile(const std::string& name, std::string step) : m_name(name), m_step(std::move(step))
{
    struct stat facts {
    };
    const bool there = stat(name.c_str(), &facts) == 0;
    const bool missing = !there && errno == ENOENT;
    if (!there && !missing) {
        fail(errno);
    }
    if (there && S_ISDIR(facts.st_mode)) {
        fail(EISDIR);
    }
    if (missing || S_ISREG(facts.st_mode)) {
        m_target = behindLinks(name);
    }
    if (preferred().dryRun) {
        rehearse();
        return;
    }
    if (m_target.empty()) {
        openInPlace();
        return;
    }
    // a rename would ignore that the file is read-only
    if (there && access(name.c_str(), W_OK) != 0) {
        fail(errno);
    }
    openBeside();
    try {
        constexpr mode_t everybody = 0666;
        constexpr mode_t permissions = 07777;
        if (there) {
            keepOwnerAndMode(facts.st_uid, facts.st_gid, facts.st_mode & permissions);
        } else {
            check(fchmod(m_descriptor, everybody & ~currentUmask()));
        }
    } catch (const failure&) {
        // no destructor runs after a failed constructor
        close(m_descriptor);
        unlink(m_beside.c_str());
        throw;
    }
}

outputFile::~outputFile()
{
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
    if (!m_beside.empty()) {
        unlink(m_beside.c_str());
    }
}

/// Whether the file could be written.
void outputFile::rehearse() const
{
    const bool there = m_target.empty() || access(m_name.c_str(), F_OK) == 0;
    check(there ? access(m_name.c_str(), W_OK) : 0);
    if (!m_target.empty()) {
        const std::filesystem::path folder = m_target.has_parent_path() ? m_target.parent_path() : ".";
        check(access(folder.c_str(), W_OK | X_OK));
    }
}

void outputFile::openInPlace()
{
    m_descriptor = open(m_name.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    check(m_descriptor);
}

void outputFile::openBeside()
{
    const std::filesystem::path folder = m_target.has_parent_path() ? m_target.parent_path() : ".";
    std::string name = (folder / ".kestctl-XXXXXX").string();
    m_descriptor = mkostemp(name.data(), O_CLOEXEC);
    check(m_descriptor);
    m_beside = name;
}

void outputFile::keepOwnerAndMode(uid_t owner, gid_t group, mode_t mode)
{
    struct stat made {
    };
    check(fstat(m_descriptor, &made));
    if (made.st_uid != owner || made.st_gid != group) {
        check(fchown(m_descriptor, owner, group));
    }
    // after the owner: changing that clears mode bits
    check(fchmod(m_descriptor, mode));
}

void outputFile::write(std::span<const unsigned char> bytes)
{
    if (preferred().dryRun) {
        return;
    }
    if (const int error = writeAll(m_descriptor, bytes); error != 0) {
        fail(error);
    }
}

void outputFile::finish()
{
    if (preferred().dryRun) {
        return;
    }
    const bool beside = !m_beside.empty();
    if (beside) {
        check(fsync(m_descriptor));
    }
    const int descriptor = m_descriptor;
    m_descriptor = -1;
    // some file systems report a full disk only now
    check(close(descriptor));
    if (!beside) {
        return;
    }
    check(rename(m_beside.c_str(), m_target.c_str()));
    m_beside.clear();
    const int error = syncFolder(m_target.has_parent_path() ? m_target.parent_path() : ".");
    // a folder that may be written but not read
    if (error != 0 && error != EACCES) {
        fail(error);
    }
}

void outputFile::fail(int error) const { throw systemFailure(error, m_step, m_name); }

void outputFile::check(int result) const
{
    if (result < 0) {
        fail(errno);
    }
}

} // namespace kest::tools
