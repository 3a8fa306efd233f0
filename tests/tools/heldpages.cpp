#include "tests/tools/heldpages.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

#include "platform/host/iic/bytelocks.h"
#include "platform/host/iic/operationlock.h"

#ifndef F_OFD_SETLK
#define F_OFD_SETLK 37
#endif

namespace kest::test
{
namespace
{

/// Waits for what another process does. @return false when it does not happen
template <typename Condition>
bool awaitThat(Condition condition)
{
    const auto limit = std::chrono::steady_clock::now() + 30s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= limit) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

host::iic::busIdentity identityOf(const std::string& bus)
{
    int error = 0;
    const auto lock =
        host::iic::operationLock::of(bus, MERN_NODE_LOCAL, {.address = 0xA0}, host::iic::operationUse::read, error);
    EXPECT_EQ(0, error);
    return lock->identity();
}

} // namespace

HeldPages::HeldPages(const std::string& bus, std::uint8_t address)
    : m_identity(identityOf(bus)), m_address(address), m_locks(m_identity)
{
    EXPECT_TRUE(m_locks.beginWrite(address, 0ms));
}

bool HeldPages::awaitWriter() const
{
    // behind the bytes of the addresses, of those who wait for them, and of the pages being written
    constexpr off_t waitingWriters = 768;
    const fileDescriptor file(
        ownDescriptor(open((m_identity.folder / (m_identity.name + ".lock")).c_str(), O_RDWR | O_CLOEXEC)));
    return file.valid() &&
           awaitThat([&] { return host::iic::isByteLocked(file.number(), F_WRLCK, waitingWriters + m_address); });
}

HeldMachine::HeldMachine(const std::filesystem::path& folder)
    : m_file(ownDescriptor(open((folder / "machine.state").c_str(), O_RDWR | O_CLOEXEC)))
{
    struct flock all {
    };
    all.l_type = F_WRLCK;
    all.l_whence = SEEK_SET;
    struct stat facts {
    };
    EXPECT_EQ(0, fcntl(m_file.number(), F_OFD_SETLK, &all));
    EXPECT_EQ(0, fstat(m_file.number(), &facts));
    m_inode = ":" + std::to_string(facts.st_ino) + " ";
}

bool HeldMachine::awaitUser() const
{
    // "1: -> OFDLCK ADVISORY  WRITE -1 08:01:1234 0 0"
    return awaitThat([&] {
        std::istringstream locks(readFile("/proc/locks"));
        for (std::string line; std::getline(locks, line);) {
            if (line.find("-> OFDLCK") != std::string::npos && line.find(m_inode) != std::string::npos) {
                return true;
            }
        }
        return false;
    });
}

bool isTaken(const Program& program, int signal)
{
    return awaitThat([&] {
        const std::string status = readFile("/proc/" + std::to_string(program.pid()) + "/status");
        const std::size_t line = status.find("ShdPnd:\t");
        if (line == std::string::npos) {
            return false;
        }
        const std::uint64_t pending = std::stoull(status.substr(line + 8, 16), nullptr, 16);
        return (pending & std::uint64_t{1} << static_cast<unsigned>(signal - 1)) == 0;
    });
}

bool deliver(const Program& program, int signal)
{
    program.sendSignal(signal);
    return isTaken(program, signal);
}

bool hasEnded(const Program& program)
{
    siginfo_t about{};
    return waitid(P_PID, static_cast<id_t>(program.pid()), &about, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           about.si_pid == program.pid();
}

} // namespace kest::test
