#include "platform/host/trace/reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

#include "base/descriptor.h"
#include "platform/host/trace/header.h"
#include "platform/host/trace/image.h"
#include "platform/host/trace/ringfile.h"

namespace kest::host
{
namespace
{

using namespace trace;

constexpr std::size_t maximumFileBytes = std::size_t{64} << 20;

struct fileBytes {
    std::vector<std::uint8_t> bytes;
    bool alive = false;
    int errorNumber = 0;
    std::string error;
};

/// Reads until the file's end, which may come early.
void fill(int descriptor, std::vector<std::uint8_t>& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t got = uninterrupted(
            [&] { return pread(descriptor, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done)); });
        if (got <= 0) {
            break;
        }
        done += static_cast<std::size_t>(got);
    }
    bytes.resize(done);
}

/// Reads the file instead of mapping it: one that is cut short meanwhile must not end this process.
fileBytes loadFile(const std::filesystem::path& path)
{
    fileBytes file;
    struct stat status {
    };
    const fileDescriptor descriptor(ownDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)));
    if (!descriptor.valid() || fstat(descriptor.number(), &status) != 0) {
        file.errorNumber = errno;
        file.error = std::strerror(file.errorNumber);
        return file;
    }
    if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) > maximumFileBytes) {
        file.error = "not a trace ring";
        return file;
    }
    file.bytes.resize(static_cast<std::size_t>(status.st_size));
    fill(descriptor.number(), file.bytes);
    file.alive = isWriterAlive(descriptor.number());
    return file;
}

/// Adds each file to the rings or to what is skipped. A file that is gone is in neither.
void look(const std::vector<std::filesystem::path>& files, ringList& list)
{
    for (const std::filesystem::path& path : files) {
        const fileBytes loaded = loadFile(path);
        const headerReading read = loaded.error.empty() ? readHeader(loaded.bytes) : headerReading{};
        const std::string& error = loaded.error.empty() ? read.trouble : loaded.error;
        ringInfo info = error.empty() ? makeInfo(read.header) : ringInfo{};
        info.file = path;
        info.alive = loaded.alive;
        if (error.empty()) {
            list.rings.push_back(std::move(info));
        } else if (loaded.errorNumber != ENOENT) {
            list.skipped.push_back({std::move(info), {}, error, loaded.errorNumber});
        }
    }
}

} // namespace

ringContents readRing(const std::filesystem::path& file)
{
    const fileBytes loaded = loadFile(file);
    ringContents contents;
    if (loaded.error.empty()) {
        contents = readRingImage(loaded.bytes);
    }
    contents.error = loaded.error.empty() ? contents.error : loaded.error;
    contents.errorNumber = loaded.errorNumber;
    contents.info.file = file;
    contents.info.alive = loaded.alive;
    return contents;
}

std::vector<ringInfo> listRings(const std::filesystem::path& folder)
{
    return listRingsAndOthers(folder, nullptr).rings;
}

void waitForRings()
{
    // making a ring takes less
    constexpr int ms = 50;
    poll(nullptr, 0, ms);
}

ringList listRingsAndOthers(const std::filesystem::path& folder, const std::function<void()>& pause)
{
    ringList list;
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() == trace::ringFileSuffix) {
            files.push_back(entry->path());
        }
    }
    look(files, list);
    if (!list.skipped.empty() && pause != nullptr) {
        files.clear();
        std::ranges::transform(list.skipped, std::back_inserter(files),
                               [](const ringContents& skipped) { return skipped.info.file; });
        list.skipped.clear();
        pause();
        look(files, list);
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        ringContents& unread = list.skipped.emplace_back();
        unread.info.file = folder;
        unread.error = error.message();
        unread.errorNumber = error.value();
    }
    std::ranges::sort(list.rings, {},
                      [](const ringInfo& ring) { return std::tie(ring.pid, ring.createdNs, ring.buffer); });
    return list;
}

std::vector<traceRecord> readProcess(const std::filesystem::path& folder, std::uint32_t pid)
{
    std::vector<traceRecord> records;
    for (const ringInfo& ring : listRings(folder)) {
        if (ring.pid == pid) {
            std::vector<traceRecord> more = readRing(ring.file).records;
            records.insert(records.end(), std::move_iterator(more.begin()), std::move_iterator(more.end()));
        }
    }
    std::ranges::stable_sort(records, {}, &traceRecord::timeNs);
    return records;
}

} // namespace kest::host
