/// Writes that fail where they would end the process.
#pragma once

#include <csignal>

namespace kest
{

/// While it lives, a write of this thread to a pipe without readers fails with EPIPE, one past the limit on file sizes
/// with EFBIG, and that is all: the SIGPIPE or SIGXFSZ that comes with each is blocked and taken back. What the program
/// itself does about the signals stays as it is.
class quietWrites
{
public:
    quietWrites();
    quietWrites(const quietWrites&) = delete;
    quietWrites& operator=(const quietWrites&) = delete;
    /// Leaves `errno` as it is.
    ~quietWrites();

private:
    sigset_t m_before{};
    sigset_t m_pendingBefore{};
};

} // namespace kest
