/// Stops a program in the middle of its work, at a moment that the test knows.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/descriptor.h"
#include "platform/host/iic/locks.h"
#include "tests/tools/program.h"

namespace kest::test
{

/// The lock that the IIC layer holds while it writes a page. While the test has it, a program that writes to the device
/// waits within its first page. The test's process must use the same machine.
class HeldPages
{
public:
    HeldPages(const std::string& bus, std::uint8_t address);

    /// Waits until another process waits to write a page. @return false when none does within the limit for everything
    [[nodiscard]] bool awaitWriter() const;
    void letGo() { m_locks.endWrite(); }

private:
    host::iic::busIdentity m_identity;
    std::uint8_t m_address;
    host::iic::addressLocks m_locks;
};

/// The lock of all buses of a simulated machine. While the test has it, another process waits before whatever happens
/// next on a bus.
class HeldMachine
{
public:
    /// @param folder  of the machine, which has been used before
    explicit HeldMachine(const std::filesystem::path& folder);

    /// Waits until another process waits for a bus. @return false when none does within the limit for everything
    [[nodiscard]] bool awaitUser() const;
    void letGo() { m_file = fileDescriptor(); }

private:
    fileDescriptor m_file;
    std::string m_inode; ///< as /proc/locks has it
};

/// Waits until a program has taken a signal that was sent to it. @return false when it has ended, or the time
[[nodiscard]] bool isTaken(const Program& program, int signal);
/// Sends a signal to a program and waits until the program has taken it. @return false when it has ended, or the time
[[nodiscard]] bool deliver(const Program& program, int signal);

/// Whether a program has ended; it is not waited for.
[[nodiscard]] bool hasEnded(const Program& program);

} // namespace kest::test
