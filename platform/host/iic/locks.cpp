#include "platform/host/iic/locks.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <string>
#include <thread>

#include <fcntl.h>

#include "base/descriptor.h"
#include "base/unshared.h"
#include "platform/host/iic/sharedfolder.h"

#ifndef F_OFD_SETLK
#define F_OFD_GETLK 36
#define F_OFD_SETLK 37
#endif

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

struct flock byteLock(short kind, off_t byte)
{
    struct flock request {
    };
    request.l_type = kind;
    request.l_whence = SEEK_SET;
    request.l_start = byte;
    request.l_len = 1;
    return request;
}

/// @return 0, EAGAIN when another has the byte, or why the file cannot be used
int setLock(int descriptor, short kind, off_t byte)
{
    struct flock request = byteLock(kind, byte);
    int error = 0;
    do {
        error = fcntl(descriptor, F_OFD_SETLK, &request) == 0 ? 0 : errno;
    } while (error == EINTR);
    return error == EACCES || error == EAGAIN ? EAGAIN : errnoOfFolder(error);
}

/// Tries until it has the byte or the time is up. @return 0, EBUSY, or why the file cannot be used
int takeByte(int descriptor, off_t byte, std::chrono::nanoseconds deadline)
{
    lockClock& clock = *chosen.load();
    int error = setLock(descriptor, F_WRLCK, byte);
    while (error == EAGAIN) {
        const auto now = clock.now();
        if (now >= deadline) {
            return EBUSY;
        }
        clock.pause(std::min<std::chrono::nanoseconds>(pollInterval, deadline - now));
        error = setLock(descriptor, F_WRLCK, byte);
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
    setLock(descriptor, F_UNLCK, byte + turnstiles);
    return error;
}

std::string lockFileName(const busIdentity& identity) { return identity.name + ".lock"; }

} // namespace

void useLockClock(lockClock* clock) { chosen = clock != nullptr ? clock : &systemClock; }

/// Opens the bus's lock file and takes a byte of it. @return 0, EBUSY, or why the file cannot be used
int addressLocks::take(unsharedFile& file, off_t byte, std::chrono::milliseconds timeout) const
{
    const int error = takeInSharedFile(file, byte, chosen.load()->now() + timeout);
    if (error != 0) {
        file.close();
    }
    return error;
}

int addressLocks::takeInSharedFile(unsharedFile& file, off_t byte, std::chrono::nanoseconds deadline) const
{
    const std::string name = lockFileName(m_identity);
    for (;;) {
        if (!file.open([&] { return openSharedFile(m_identity, name, sharedUse::create); })) {
            return errnoOfFolder(errno);
        }
        if (const int error = takeInTurn(file.number(), byte, deadline)) {
            return error;
        }
        if (isSharedFile(m_identity, name, file.number())) {
            return 0;
        }
        // another file has taken its place: nobody will meet this lock
        if (chosen.load()->now() >= deadline) {
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
    const int error = setLock(held->second.number(), F_UNLCK, address);
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
        setLock(m_writing.number(), F_UNLCK, m_writingByte);
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
        struct flock request = byteLock(F_RDLCK, writes + address);
        return file.valid() && fcntl(file.number(), F_OFD_GETLK, &request) == 0 && request.l_type != F_UNLCK;
    } catch (const std::exception&) {
        // no memory to find out: the transfer ends as it would by itself
        return false;
    }
}

void addressLocks::releaseAll()
{
    for (auto& [address, file] : m_held) {
        if (file.valid()) {
            setLock(file.number(), F_UNLCK, address);
        }
    }
    m_held.clear();
    endWrite();
}

} // namespace kest::host::iic
