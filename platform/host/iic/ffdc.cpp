#include "platform/host/iic/ffdc.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "platform/host/files/fork.h"
#include "platform/host/iic/sharedfolder.h"

namespace kest::host::iic
{

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
    transactionNote* before = m_count == 0 ? nullptr : &m_notes.at((m_count - 1) % kept);
    const bool       again  = before != nullptr && before->address == latest.address && before->end == latest.end &&
                       before->written == latest.written && before->read == latest.read && before->head == latest.head;
    if (again) {
        before->atNs = atNs;
        ++before->times;
    } else {
        m_notes.at(m_count++ % kept) = latest;
    }
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
constexpr std::size_t longestText   = 200; // of a name within it

struct errnoText {
    int         error;
    const char* name;
};
constexpr std::array errnoTexts{
    errnoText{ENXIO, "ENXIO"},     errnoText{EIO, "EIO"},       errnoText{ETIME, "ETIME"},
    errnoText{ENODATA, "ENODATA"}, errnoText{ENODEV, "ENODEV"}, errnoText{ENOENT, "ENOENT"},
    errnoText{EBADF, "EBADF"},     errnoText{EINVAL, "EINVAL"}, errnoText{EFAULT, "EFAULT"},
    errnoText{EBUSY, "EBUSY"},     errnoText{EACCES, "EACCES"}, errnoText{ENOSYS, "ENOSYS"},
    errnoText{EDEADLK, "EDEADLK"}, errnoText{ENOMEM, "ENOMEM"},
};

std::string hexByte(std::uint8_t byte)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    return {digits[byte >> 4], digits[byte & 15]};
}

nlohmann::ordered_json noteAsJson(const transactionNote& note)
{
    std::string       head;
    const std::size_t shown = std::min<std::size_t>(note.written, note.head.size());
    for (std::size_t index = 0; index < shown; ++index) {
        head += hexByte(note.head.at(index));
    }
    nlohmann::ordered_json text{{"ns", note.atNs},         {"address", hexByte(note.address)},
                                {"written", note.written}, {"head", head},
                                {"read", note.read},       {"end", nameOf(note.end)}};
    if (note.times > 1) {
        text["times"] = note.times;
    }
    return text;
}

/// Whole JSON text that fits: the oldest transactions are left out first.
std::string recordText(bus& where, const failureReport& report, const transactionHistory& history)
{
    const auto unixMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
    nlohmann::ordered_json record{{"operation", report.operation},
                                  {"bus", where.identity().text.substr(0, longestText)},
                                  {"adapter", where.adapterName().substr(0, longestText)},
                                  {"target", hexByte(report.target)},
                                  {"position", report.position},
                                  {"offsetLength", report.offsetLength},
                                  {"length", report.length},
                                  {"moved", report.moved},
                                  {"errno", report.error},
                                  {"error", errnoName(report.error)},
                                  {"process", getpid()},
                                  {"unixMs", unixMs.count()},
                                  {"busNs", where.nowNs()}};
    if (*report.silence != '\0') {
        record["silence"] = report.silence;
    }
    std::vector<nlohmann::ordered_json> notes;
    for (const transactionNote& note : history.latest()) {
        notes.push_back(noteAsJson(note));
    }
    std::string text;
    do {
        record["transactions"] = notes;
        text =
            record.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace); // names may be of any bytes
        if (!notes.empty()) {
            notes.erase(notes.begin());
        }
    } while (text.size() > longestRecord);
    return text;
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
        m_texts.emplace(key, text); // the first stays
    }
    [[nodiscard]] std::string find(const std::string& key)
    {
        const std::lock_guard hold(m_mutex);
        const auto            found = m_texts.find(key);
        return found == m_texts.end() ? std::string{} : found->second;
    }
    void drop(const std::string& key)
    {
        const std::lock_guard hold(m_mutex);
        m_texts.erase(key);
    }
    void beforeFork() { m_mutex.lock(); }
    void afterFork(bool /*inChild*/) { m_mutex.unlock(); }

private:
    ownRecords() { watchForks<ownRecords>(); }

    std::mutex                         m_mutex;
    std::map<std::string, std::string> m_texts;
};
[[maybe_unused]] const ownRecords& madeAtLoad = ownRecords::instance();

std::string ownKey(const busIdentity& identity, std::uint8_t target)
{
    return identity.folder / recordName(identity, target);
}

/// The record appears under its name whole or not at all, and never takes the place of another.
/// @return whether there is a record now, this one or an earlier
bool writeRecord(const busIdentity& identity, const std::string& name, const std::string& text)
{
    static std::atomic<unsigned int> counter{0};
    const std::string                path = identity.folder / name;
    const std::string draft     = "." + name + "." + std::to_string(getpid()) + "." + std::to_string(++counter);
    const std::string draftPath = identity.folder / draft;
    if (makeSharedFolder(identity) != 0) {
        return false;
    }
    if (access(path.c_str(), F_OK) == 0) {
        return true;
    }
    const int  descriptor = openSharedFile(identity, draft, O_CREAT | O_EXCL);
    const bool written =
        descriptor >= 0 && write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const bool kept = written && (link(draftPath.c_str(), path.c_str()) == 0 || errno == EEXIST);
    if (descriptor >= 0) {
        close(descriptor);
        unlink(draftPath.c_str());
    }
    return kept;
}

/// @return a record's text, empty when there is none or what is there is none
std::string readRecord(const busIdentity& identity, const std::string& name)
{
    std::string   text(longestRecord + 1, '\0');
    const int     descriptor = openSharedFile(identity, name, 0);
    const ssize_t length     = descriptor < 0 ? -1 : read(descriptor, text.data(), text.size());
    if (descriptor >= 0) {
        close(descriptor);
    }
    text.resize(length > 0 && length <= static_cast<ssize_t>(longestRecord) ? static_cast<std::size_t>(length) : 0);
    return nlohmann::json::accept(text) ? text : std::string{};
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
        const std::string  text     = recordText(where, report, history);
        if (!writeRecord(identity, recordName(identity, report.target), text)) {
            ownRecords::instance().keep(ownKey(identity, report.target), text);
        }
    } catch (const std::exception&) { // no memory for it: the failure itself is what the caller must hear of
    }
}

std::string firstFailure(const busIdentity& identity, std::uint8_t target)
{
    const std::string text = readRecord(identity, recordName(identity, target));
    return text.empty() ? ownRecords::instance().find(ownKey(identity, target)) : text;
}

int dropFirstFailure(const busIdentity& identity, std::uint8_t target)
{
    const std::string path  = identity.folder / recordName(identity, target);
    const int         error = unlink(path.c_str()) == 0 ? 0 : errno;
    ownRecords::instance().drop(ownKey(identity, target));
    const bool none = error == ENOENT || error == ENOTDIR;
    return none ? 0 : errnoOfFolder(error);
}

} // namespace kest::host::iic
