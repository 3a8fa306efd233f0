#include "platform/host/iic/operationlock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>
#include <tuple>

#include <unistd.h>

#include "base/descriptor.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/iic/bytelocks.h"
#include "platform/host/iic/locks.h"
#include "platform/host/iic/paths.h"
#include "platform/host/iic/sharedfolder.h"

namespace kest::host::iic
{
namespace
{

// The bytes that are locked: one for each device, one for each device's line, one for each record that is taken, one for
// each record that is written. Locks need no bytes in the file; the records lie at its beginning.
constexpr off_t lines = off_t{1} << 24;
constexpr off_t takenRecords = lines * 2;
constexpr off_t records = 64;
constexpr off_t writtenRecords = takenRecords + records;

// short first: most operations are
constexpr std::chrono::microseconds shortestPause{100};
constexpr std::chrono::milliseconds longestPause{10};

off_t byteOf(const operationPlace& place)
{
    return static_cast<off_t>(place.hub) << 16 | static_cast<off_t>(place.port) << 8 | place.address;
}

off_t startOf(off_t record) { return record * static_cast<off_t>(operationRecordBytes); }

} // namespace

std::unique_ptr<operationLock> operationLock::of(const std::string& path, NodeType node, const operationPlace& place,
                                                 operationUse use, int& error)
{
    devicePath where;
    std::shared_ptr<bus> wires;
    error = parseDevicePath(path, where);
    if (error == 0) {
        error = openBusOf(where, node, currentConfiguration(), wires);
    }
    return error == 0 ? std::make_unique<operationLock>(wires->identity(), place, use) : nullptr;
}

operationLock::operationLock(busIdentity identity, const operationPlace& place, operationUse use)
    : m_identity(std::move(identity)), m_place(place), m_use(use)
{
}

/// @return 0, or why the file can't be had
int operationLock::openFile()
{
    const auto opener = [this] { return openSharedFile(m_identity, fileName(), sharedUse::create); };
    return m_file.valid() || m_file.open(opener) ? 0 : errnoOfFolder(errno);
}

int operationLock::attempt(const operationRecord& who)
{
    if (const int error = openFile()) {
        return error;
    }
    const off_t line = lines + byteOf(m_place);
    // those who wait come first
    if (!m_inLine && isByteLocked(m_file.number(), F_WRLCK, line)) {
        return EAGAIN;
    }
    const int error = tryDevice(who);
    if (error == EAGAIN && !m_inLine && m_file.valid()) {
        m_inLine = setByteLock(m_file.number(), F_WRLCK, line) == 0;
    }
    return error;
}

int operationLock::tryDevice(const operationRecord& who)
{
    const short kind = m_use == operationUse::read ? F_RDLCK : F_WRLCK;
    if (const int error = setByteLock(m_file.number(), kind, byteOf(m_place))) {
        return error;
    }
    leaveLine();
    if (!isSharedFile(m_identity, fileName(), m_file.number())) {
        // another file has taken its place: nobody would meet this lock
        m_file.close();
        return EAGAIN;
    }
    publish(who);
    return 0;
}

/// Writes a record that nobody else uses. Where there is none, or no room on the disk, the lock is held without.
void operationLock::publish(const operationRecord& who) const
{
    const std::string text = operationRecordText(m_place, who);
    for (off_t record = 0; record < records; ++record) {
        if (setByteLock(m_file.number(), F_WRLCK, takenRecords + record) == 0) {
            const auto bytes = std::as_bytes(std::span(text));
            const std::span<const std::uint8_t> part(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            // until this second lock it may be what a dead holder left
            if (writeAllAt(m_file.number(), part, startOf(record)) == 0) {
                setByteLock(m_file.number(), F_WRLCK, writtenRecords + record);
            }
            return;
        }
    }
}

int operationLock::wait(const operationRecord& who, std::chrono::nanoseconds timeout, const std::function<bool()>& stop)
{
    lockClock& clock = usedLockClock();
    const auto deadline = clock.now() + timeout;
    std::chrono::nanoseconds pause = shortestPause;
    int error = attempt(who);
    while (error == EAGAIN) {
        const auto now = clock.now();
        const bool stopped = stop();
        if (stopped || now >= deadline) {
            leaveLine();
            return stopped ? EINTR : EBUSY;
        }
        clock.pause(std::min(pause, deadline - now));
        pause = std::min<std::chrono::nanoseconds>(pause * 2, longestPause);
        error = attempt(who);
    }
    return error;
}

void operationLock::leaveLine()
{
    if (m_inLine && m_file.valid()) {
        setByteLock(m_file.number(), F_UNLCK, lines + byteOf(m_place));
    }
    m_inLine = false;
}

void operationLock::release()
{
    if (m_file.valid()) {
        // a stray copy of the descriptor must not keep them
        for (const off_t byte : {byteOf(m_place), lines + byteOf(m_place)}) {
            setByteLock(m_file.number(), F_UNLCK, byte);
        }
    }
    m_inLine = false;
    m_file.close();
}

std::vector<operationRecord> operationLock::holders() const
{
    std::vector<operationRecord> found;
    for (off_t record = 0; m_file.valid() && record < records; ++record) {
        std::array<char, operationRecordBytes> text{};
        // a record without its lock is what somebody left behind
        if (!isByteLocked(m_file.number(), F_RDLCK, writtenRecords + record)) {
            continue;
        }
        const ssize_t got =
            uninterrupted([&] { return pread(m_file.number(), text.data(), text.size(), startOf(record)); });
        const std::string_view read(text.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
        if (auto parsed = parseOperationRecord(read, m_place)) {
            found.push_back(std::move(*parsed));
        }
    }
    return found;
}

std::strong_ordering operationLock::operator<=>(const operationLock& other) const
{
    const auto order = [](const operationLock& lock) {
        return std::tuple(lock.m_identity.folder.native(), lock.m_identity.name, byteOf(lock.m_place));
    };
    return order(*this) <=> order(other);
}

} // namespace kest::host::iic
