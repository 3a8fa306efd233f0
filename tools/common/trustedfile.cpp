#include "tools/common/trustedfile.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/descriptor.h"

namespace kest::tools
{
namespace
{

constexpr const char* noRegularFile = "it is no regular file";

/// @return why a file may not be used; empty when it may
std::string distrustOf(int folder, const struct stat& file)
{
    struct stat around {
    };
    if (!S_ISREG(file.st_mode)) {
        return noRegularFile;
    }
    const bool ofFoldersOwner = fstat(folder, &around) == 0 && file.st_uid == around.st_uid;
    const bool trusted = file.st_uid == 0 || file.st_uid == geteuid() || ofFoldersOwner;
    return trusted ? "" : fmt::format("it belongs to user {}", file.st_uid);
}

/// Reads all of an open regular file. @return 0 or an errno
int readAll(int file, std::size_t size, std::vector<unsigned char>& bytes)
{
    bytes.resize(size);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count =
            uninterrupted([&] { return pread(file, bytes.data() + done, size - done, static_cast<off_t>(done)); });
        if (count < 0) {
            bytes.clear();
            return errno;
        }
        if (count == 0) {
            // it became shorter meanwhile
            bytes.resize(done);
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return 0;
}

} // namespace

bool isTrusted(int folder, const std::string& name)
{
    struct stat facts {
    };
    return fstatat(folder, name.c_str(), &facts, AT_SYMLINK_NOFOLLOW) == 0 && distrustOf(folder, facts).empty();
}

trustedRead readTrusted(int folder, const std::string& name, std::size_t limitBytes)
{
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    struct stat facts {
    };
    // before it is opened: a file of another user can't be, and is to be passed over all the same
    if (fstatat(folder, name.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0) {
        return {.bytes = {}, .error = errno};
    }
    if (std::string distrust = distrustOf(folder, facts); !distrust.empty()) {
        return {.bytes = {}, .distrust = std::move(distrust)};
    }
    const fileDescriptor file(uninterrupted([&] { return ownDescriptor(openat(folder, name.c_str(), flags)); }));
    if (!file.valid() || fstat(file.number(), &facts) != 0) {
        return {.bytes = {}, .error = errno};
    }
    // another may have taken its place meanwhile
    if (std::string distrust = distrustOf(folder, facts); !distrust.empty()) {
        return {.bytes = {}, .distrust = std::move(distrust)};
    }
    if (facts.st_size > static_cast<off_t>(limitBytes)) {
        return {.bytes = {}, .error = EFBIG};
    }
    trustedRead result;
    result.error = readAll(file.number(), static_cast<std::size_t>(facts.st_size), result.bytes);
    return result;
}

} // namespace kest::tools
