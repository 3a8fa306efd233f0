#include "platform/host/iic/ffdc.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include "base/descriptor.h"
#include "base/folders.h"
#include "base/fork.h"
#include "base/hex.h"
#include "base/quietwrites.h"
#include "base/unshared.h"
#include "platform/host/iic/sharedfolder.h"
#include "platform/host/json/parser.h"
#include "platform/host/json/quoted.h"

#ifndef F_OFD_SETLK
#define F_OFD_SETLK 37
#endif

namespace kest::host::iic
{

static bool areAlike(const transactionNote& first, const transactionNote& second)
{
    return first.address == second.address && first.end == second.end && first.written == second.written &&
           first.read == second.read && first.head == second.head;
}

void transactionHistory::note(std::uint64_t atNs, std::span<const segment> segments, outcome end)
{
    transactionNote latest{.atNs = atNs, .address = segments.front().address, .end = end};
    for (const segment& part : segments) {
        const auto length = static_cast<std::uint32_t>(part.bytes.size());
        if (part.way == direction::read) {
            latest.read += length;
        } else {
            if (latest.written == 0) {
                std::copy_n(part.bytes.begin(), std::min(part.bytes.size(), latest.head.size()), latest.head.begin());
            }
            latest.written += length;
        }
    }
    transactionNote* const before = m_count == 0 ? nullptr : &m_notes.at((m_count - 1) % kept);
    if (before != nullptr && areAlike(*before, latest)) {
        before->atNs = atNs;
        ++before->times;
        return;
    }
    m_notes.at(m_count++ % kept) = latest;
}

std::vector<transactionNote> transactionHistory::latest() const
{
    std::vector<transactionNote> notes;
    for (std::size_t index = m_count > kept ? m_count - kept : 0; index < m_count; ++index) {
        notes.push_back(m_notes.at(index % kept));
    }
    return notes;
}

namespace
{

constexpr std::size_t longestRecord = 4096;
// of a name within it
constexpr std::size_t longestText = 200;

constexpr int recordAttempts = 3;
constexpr int recordLockAttempts = 50;
constexpr std::chrono::milliseconds recordLockPause{1};

struct errnoText {
    int error;
    const char* name;
};
constexpr std::array errnoTexts{
    errnoText{.error = ENXIO, .name = "ENXIO"},     errnoText{.error = EIO, .name = "EIO"},
    errnoText{.error = ETIME, .name = "ETIME"},     errnoText{.error = ENODATA, .name = "ENODATA"},
    errnoText{.error = ENODEV, .name = "ENODEV"},   errnoText{.error = ENOENT, .name = "ENOENT"},
    errnoText{.error = EBADF, .name = "EBADF"},     errnoText{.error = EINVAL, .name = "EINVAL"},
    errnoText{.error = EFAULT, .name = "EFAULT"},   errnoText{.error = EBUSY, .name = "EBUSY"},
    errnoText{.error = EACCES, .name = "EACCES"},   errnoText{.error = ENOSYS, .name = "ENOSYS"},
    errnoText{.error = EDEADLK, .name = "EDEADLK"}, errnoText{.error = ENOMEM, .name = "ENOMEM"},
};

std::string hexByte(std::uint8_t byte)
{
    std::string digits;
    appendHexByte(digits, byte, upperHexDigits);
    return digits;
}

std::string noteAsJson(const transactionNote& note)
{
    std::string head;
    const std::size_t shown = std::min<std::size_t>(note.written, note.head.size());
    for (std::size_t index = 0; index < shown; ++index) {
        head += hexByte(note.head.at(index));
    }
    const std::string times = note.times > 1 ? fmt::format(R"(,"times":{})", note.times) : std::string();
    return fmt::format(R"({{"ns":{},"address":"{}","written":{},"head":"{}","read":{},"end":"{}"{}}})", note.atNs,
                       hexByte(note.address), note.written, head, note.read, nameOf(note.end), times);
}

/// All of a record before its transactions.
std::string recordHead(bus& where, const failureReport& report)
{
    const auto unixMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
    // names may be of any bytes
    std::string text = fmt::format(
        R"({{"operation":"{}","bus":{},"adapter":{},"target":"{}","position":{},"offsetLength":{},"length":{},"moved":{},)",
        report.operation, quotedText(where.identity().text.substr(0, longestText)),
        quotedText(where.adapterName().substr(0, longestText)), hexByte(report.target), report.position,
        report.offsetLength, report.length, report.moved);
    text += fmt::format(R"("errno":{},"error":"{}","process":{},"unixMs":{},"busNs":{},)", report.error,
                        errnoName(report.error), getpid(), unixMs.count(), where.nowNs());
    if (*report.silence != '\0') {
        text += fmt::format(R"("silence":"{}",)", report.silence);
    }
    if (*report.lacks != '\0') {
        text += fmt::format(R"("lacks":"{}",)", report.lacks);
    }
    return text;
}

/// Whole JSON text that fits: the oldest transactions are left out first.
std::string recordText(bus& where, const failureReport& report, const transactionHistory& history)
{
    const std::string head = recordHead(where, report) + R"("transactions":[)";
    const std::string_view end = "]}";
    std::string notes;
    const std::vector<transactionNote> latest = history.latest();
    for (auto note = latest.rbegin(); note != latest.rend(); ++note) {
        std::string longer = noteAsJson(*note) + (notes.empty() ? "" : ",") + notes;
        if (head.size() + longer.size() + end.size() > longestRecord) {
            break;
        }
        notes = std::move(longer);
    }
    return head + notes.append(end);
}

std::string recordName(const busIdentity& identity, std::uint8_t target)
{
    return identity.name + "." + hexByte(target) + ".ffdc";
}

/// Records of buses whose folder can't be written. Never destroyed: static destructors may still use devices.
class ownRecords
{
public:
    static ownRecords& instance()
    {
        static auto* records = new ownRecords;
        return *records;
    }
    void keep(const std::string& key, const std::string& text)
    {
        const std::lock_guard hold(m_mutex);
        // the first stays
        m_texts.emplace(key, text);
    }
    [[nodiscard]] std::string find(const std::string& key)
    {
        const std::lock_guard hold(m_mutex);
        const auto found = m_texts.find(key);
        return found == m_texts.end() ? std::string{} : found->second;
    }
    /// @return whether there was one
    bool drop(const std::string& key)
    {
        const std::lock_guard hold(m_mutex);
        return m_texts.erase(key) != 0;
    }
    void beforeFork() { m_mutex.lock(); }
    void afterFork(bool /*inChild*/) { m_mutex.unlock(); }

private:
    ownRecords() { watchForks<ownRecords>(); }

    std::mutex m_mutex;
    std::map<std::string, std::string> m_texts;
};
[[maybe_unused]] const ownRecords& madeAtLoad = ownRecords::instance();

std::string ownKey(const busIdentity& identity, std::uint8_t target)
{
    return identity.folder / recordName(identity, target);
}

bool isRecord(const std::string& text) { return !text.empty() && isJson(text); }

/// @return the text of an open record; empty when it is none
std::string contentsOf(int descriptor)
{
    std::string text(longestRecord + 1, '\0');
    const ssize_t length = pread(descriptor, text.data(), text.size(), 0);
    text.resize(length > 0 && length <= static_cast<ssize_t>(longestRecord) ? static_cast<std::size_t>(length) : 0);
    return isRecord(text) ? text : std::string{};
}

/// @param[out] text  empty when there is no record, or what is there is none. @return 0 or an errno
int readRecord(const busIdentity& identity, const std::string& name, std::string& text)
{
    const fileDescriptor file(openSharedFile(identity, name, sharedUse::read));
    const int error = file.valid() ? 0 : errno;
    text = file.valid() ? contentsOf(file.number()) : std::string{};
    return error;
}

/// Whether an errno says that there is no record under the name.
bool isNone(int error)
{
    return error == ENOENT || error == ENOTDIR || error == EISDIR || error == ELOOP || error == ENXIO;
}

/// What has a record's name and can't be one: links, pipes, sockets.
bool canBeNoRecord(int error) { return error == ELOOP || error == ENXIO; }

/// Excludes others that record a failure. They hold the lock only briefly. @return false when it cannot be had soon
bool lockRecord(int descriptor)
{
    struct flock request {
    };
    request.l_type = F_WRLCK;
    request.l_whence = SEEK_SET;
    for (int attempt = 1; fcntl(descriptor, F_OFD_SETLK, &request) != 0; ++attempt) {
        if (attempt == recordLockAttempts) {
            return false;
        }
        std::this_thread::sleep_for(recordLockPause);
    }
    return true;
}

/// Writes in place: the file may be another user's, and not every folder lets a new file take its place. So short a
/// text gets there whole or, when the system ends first, not at all.
bool putRecord(int descriptor, const std::filesystem::path& folder, const std::string& text)
{
    const quietWrites quiet;
    const bool written = ftruncate(descriptor, 0) == 0 &&
                         pwrite(descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
                         fsync(descriptor) == 0 && syncFolder(folder) == 0;
    if (!written) {
        // part of a record is none: the next failure may be recorded
        static_cast<void>(!ftruncate(descriptor, 0));
    }
    return written;
}

/// Never takes the place of another record. @return whether there is one now, this one or an earlier
bool writeRecord(const busIdentity& identity, const std::string& name, const std::string& text)
{
    std::string earlier;
    unsharedFile file;
    readRecord(identity, name, earlier);
    if (!earlier.empty()) {
        return true;
    }
    for (int attempt = 0; attempt < recordAttempts; ++attempt) {
        if (!file.open([&] { return openSharedFile(identity, name, sharedUse::create); })) {
            if (!canBeNoRecord(errno) || removeSharedFile(identity, name) != 0) {
                return false;
            }
        } else if (!lockRecord(file.number())) {
            return false;
        } else if (isSharedFile(identity, name, file.number())) {
            return !contentsOf(file.number()).empty() || putRecord(file.number(), identity.folder, text);
        }
    }
    // others removed the file again and again
    return false;
}

} // namespace

const char* errnoName(int error)
{
    const auto* row = std::ranges::find(errnoTexts, error, &errnoText::error);
    return row == errnoTexts.end() ? "E?" : row->name;
}

void keepFirstFailure(bus& where, const failureReport& report, const transactionHistory& history)
{
    try {
        const busIdentity& identity = where.identity();
        const std::string text = recordText(where, report, history);
        if (!writeRecord(identity, recordName(identity, report.target), text)) {
            ownRecords::instance().keep(ownKey(identity, report.target), text);
        }
    } catch (const std::exception&) {
        // no memory for the record: the caller must still hear of the failure itself
    }
}

int firstFailure(const busIdentity& identity, std::uint8_t target, std::string& text)
{
    const int error = readRecord(identity, recordName(identity, target), text);
    if (text.empty()) {
        text = ownRecords::instance().find(ownKey(identity, target));
    }
    return !text.empty() || isNone(error) ? 0 : errnoOfFolder(error);
}

int dropFirstFailure(const busIdentity& identity, std::uint8_t target)
{
    const std::string name = recordName(identity, target);
    int error = removeSharedFile(identity, name);
    // another's file, in a folder where only its owner may remove it
    if (error == EPERM || error == EACCES) {
        const fileDescriptor file(openSharedFile(identity, name, sharedUse::create));
        error = file.valid() && ftruncate(file.number(), 0) == 0 ? 0 : errno;
    }
    // the record is the process's own where the folder can't be used
    const bool own = ownRecords::instance().drop(ownKey(identity, target));
    const bool none = own || error == ENOENT || error == ENOTDIR;
    return none ? 0 : errnoOfFolder(error);
}

} // namespace kest::host::iic
