/// Stops a program in the middle of a write, at a moment that the test knows.
#pragma once

#include <cstdint>
#include <string>

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

/// Sends a signal to a program and waits until the program has taken it. @return false when it has ended, or the time
[[nodiscard]] bool deliver(const Program& program, int signal);

/// Whether a program has ended; it is not waited for.
[[nodiscard]] bool hasEnded(const Program& program);

} // namespace kest::test
