#include "platform/host/iic/locks.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <set>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include "platform/host/files/fork.h"
#include "platform/host/iic/sharedfolder.h"

#ifndef F_OFD_SETLK
#define F_OFD_SETLK 37
#endif

namespace kest::host::iic
{
namespace
{

using waitClock = std::chrono::steady_clock;

constexpr std::chrono::microseconds pollInterval{100};
constexpr off_t                     turnstiles = 256; // behind the addresses' own bytes

/// All lock holders of the process. A child that is forked without exec would keep the locks' file descriptions open, and with them the
/// parent's locks after its death.
class forkGuard
{
public:
    static forkGuard& instance()
    {
        static auto* guard = new forkGuard; // lives as long as the process: handles may be closed during its end
        return *guard;
    }
    void add(addressLocks* holder)
    {
        const std::lock_guard hold(m_mutex);
        m_holders.insert(holder);
    }
    void remove(addressLocks* holder)
    {
        const std::lock_guard hold(m_mutex);
        m_holders.erase(holder);
    }
    /// Opens without a fork in between, so that no child gets a descriptor that its holder doesn't know yet.
    template <typename Open>
    int openUnforked(Open open)
    {
        const std::lock_guard hold(m_mutex);
        return open();
    }
    void beforeFork() { m_mutex.lock(); }
    void afterFork(bool inChild)
    {
        if (inChild) {
            std::ranges::for_each(m_holders, &addressLocks::forgetAfterFork);
        }
        m_mutex.unlock();
    }

private:
    forkGuard() { watchForks<forkGuard>(); }

    std::mutex              m_mutex;
    std::set<addressLocks*> m_holders;
};
[[maybe_unused]] const forkGuard& madeAtLoad = forkGuard::instance();

/// @return 0, EAGAIN when somebody else has the byte, or what stands in the way of the file
int setLock(int descriptor, short kind, off_t byte)
{
    struct flock request {
    };
    request.l_type   = kind;
    request.l_whence = SEEK_SET;
    request.l_start  = byte;
    request.l_len    = 1;
    int error        = 0;
    do {
        error = fcntl(descriptor, F_OFD_SETLK, &request) == 0 ? 0 : errno;
    } while (error == EINTR);
    return error == EACCES || error == EAGAIN ? EAGAIN : errnoOfFolder(error);
}

/// Tries until the byte is had or the time is up. @return 0, EBUSY, or what stands in the way of the file
int takeByte(int descriptor, off_t byte, waitClock::time_point deadline)
{
    int error = setLock(descriptor, F_WRLCK, byte);
    while (error == EAGAIN) {
        const auto now = waitClock::now();
        if (now >= deadline) {
            return EBUSY;
        }
        std::this_thread::sleep_for(std::min<waitClock::duration>(pollInterval, deadline - now));
        error = setLock(descriptor, F_WRLCK, byte);
    }
    return error;
}

} // namespace

addressLocks::addressLocks(const busIdentity& identity) : m_identity(identity) { forkGuard::instance().add(this); }

addressLocks::~addressLocks()
{
    forkGuard::instance().remove(this);
    releaseAll();
}

void addressLocks::releaseAll()
{
    if (m_descriptor >= 0) {
        for (std::size_t address = 0; address < m_held.size(); ++address) {
            if (m_held[address]) {
                setLock(m_descriptor, F_UNLCK,
                        static_cast<off_t>(address)); // a stray copy of the descriptor must not keep it
            }
        }
        close(m_descriptor);
        m_descriptor = -1;
        m_held.reset();
    }
}

int addressLocks::open()
{
    int error = 0;
    if (m_descriptor < 0) {
        error = makeSharedFolder(m_identity);
        if (error == 0) {
            error = forkGuard::instance().openUnforked([this] {
                m_descriptor = openSharedFile(m_identity, m_identity.name + ".lock", O_CREAT);
                return m_descriptor < 0 ? errno : 0;
            });
        }
    }
    return errnoOfFolder(error);
}

int addressLocks::lock(std::uint8_t address, std::chrono::milliseconds timeout)
{
    const auto  deadline  = waitClock::now() + timeout;
    const off_t turnstile = turnstiles + address;
    if (m_held[address]) {
        return EDEADLK;
    }
    int error = open();
    if (error == 0) {
        error = takeByte(m_descriptor, turnstile, deadline);
    }
    if (error == 0) {
        error = takeByte(m_descriptor, address, deadline);
        setLock(m_descriptor, F_UNLCK, turnstile);
        m_held[address] = error == 0;
    }
    return error;
}

int addressLocks::unlock(std::uint8_t address)
{
    if (!m_held[address]) {
        return EINVAL;
    }
    m_held[address] = false;
    return setLock(m_descriptor, F_UNLCK, address);
}

void addressLocks::forgetAfterFork()
{
    if (m_descriptor >= 0) {
        close(m_descriptor); // the parent's own descriptor still holds its locks
        m_descriptor = -1;
    }
    m_held.reset();
}

} // namespace kest::host::iic
