#include "platform/host/iic/locks.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <string>
#include <thread>

#include "base/descriptor.h"
#include "base/unshared.h"
#include "platform/host/iic/bytelocks.h"
#include "platform/host/iic/sharedfolder.h"

namespace kest::host::iic
{

std::chrono::nanoseconds lockClock::now() { return std::chrono::steady_clock::now().time_since_epoch(); }

void lockClock::pause(std::chrono::nanoseconds time) { std::this_thread::sleep_for(time); }

namespace
{

constexpr std::chrono::microseconds pollInterval{100};

// The bytes of a lock file: one for each address, their turnstiles, one for each address that is being written, their
// turnstiles. Turnstiles are that far behind the bytes that they are for.
constexpr off_t turnstiles = 256;
constexpr off_t writes = 512;

lockClock systemClock;
std::atomic<lockClock*> chosen{&systemClock};

/// Tries until it has the byte or the time is up. @return 0, EBUSY, or why the file cannot be used
int takeByte(int descriptor, off_t byte, std::chrono::nanoseconds deadline)
{
    lockClock& clock = usedLockClock();
    int error = setByteLock(descriptor, F_WRLCK, byte);
    while (error == EAGAIN) {
        const auto now = clock.now();
        if (now >= deadline) {
            return EBUSY;
        }
        clock.pause(std::min<std::chrono::nanoseconds>(pollInterval, deadline - now));
        error = setByteLock(descriptor, F_WRLCK, byte);
    }
    return error;
}

/// Takes a byte behind those who wait for it already. @return as takeByte()
int takeInTurn(int descriptor, off_t byte, std::chrono::nanoseconds deadline)
{
    if (const int error = takeByte(descriptor, byte + turnstiles, deadline)) {
        return error;
    }
    const int error = takeByte(descriptor, byte, deadline);
    setByteLock(descriptor, F_UNLCK, byte + turnstiles);
    return error;
}

std::string lockFileName(const busIdentity& identity) { return identity.name + ".lock"; }

} // namespace

void useLockClock(lockClock* clock) { chosen = clock != nullptr ? clock : &systemClock; }

lockClock& usedLockClock() { return *chosen.load(); }

/// Opens the bus's lock file and takes a byte of it. @return 0, EBUSY, or why the file cannot be used
int addressLocks::take(unsharedFile& file, off_t byte, std::chrono::milliseconds timeout) const
{
    const int error = takeInSharedFile(file, byte, usedLockClock().now() + timeout);
    if (error != 0) {
        file.close();
    }
    return error;
}

int addressLocks::takeInSharedFile(unsharedFile& file, off_t byte, std::chrono::nanoseconds deadline) const
{
    const std::string name = lockFileName(m_identity);
    struct stat opened {
    };
    for (;;) {
        if (!file.open([&] { return openSharedFile(m_identity, name, sharedUse::create, opened); })) {
            return errnoOfFolder(errno);
        }
        if (const int error = takeInTurn(file.number(), byte, deadline)) {
            return error;
        }
        if (isSharedFile(m_identity, name, opened)) {
            return 0;
        }
        // another file has taken its place: nobody will meet this lock
        if (usedLockClock().now() >= deadline) {
            return EBUSY;
        }
    }
}

int addressLocks::lock(std::uint8_t address, std::chrono::milliseconds timeout)
{
    unsharedFile& file = m_held[address];
    return file.valid() ? EDEADLK : take(file, address, timeout);
}

int addressLocks::unlock(std::uint8_t address)
{
    const auto held = m_held.find(address);
    if (held == m_held.end() || !held->second.valid()) {
        return EINVAL;
    }
    // a stray copy of the descriptor must not keep it
    const int error = setByteLock(held->second.number(), F_UNLCK, address);
    held->second.close();
    return error;
}

bool addressLocks::beginWrite(std::uint8_t address, std::chrono::milliseconds timeout)
{
    m_writingByte = writes + address;
    try {
        return take(m_writing, m_writingByte, timeout) != EBUSY;
    } catch (const std::exception&) {
        // no memory, so no file
        return true;
    }
}

void addressLocks::endWrite()
{
    if (m_writing.valid()) {
        setByteLock(m_writing.number(), F_UNLCK, m_writingByte);
        m_writing.close();
    }
}

bool addressLocks::isWrittenByAnother(std::uint8_t address) const
{
    if (m_writing.valid()) {
        return false;
    }
    try {
        const fileDescriptor file(openSharedFile(m_identity, lockFileName(m_identity), sharedUse::read));
        // what a writer's lock excludes
        return file.valid() && isByteLocked(file.number(), F_RDLCK, writes + address);
    } catch (const std::exception&) {
        // no memory to find out: the transfer ends as it would by itself
        return false;
    }
}

void addressLocks::releaseAll()
{
    for (auto& [address, file] : m_held) {
        if (file.valid()) {
            setByteLock(file.number(), F_UNLCK, address);
        }
    }
    m_held.clear();
    endWrite();
}

} // namespace kest::host::iic
