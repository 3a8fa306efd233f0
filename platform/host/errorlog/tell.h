/// The error log's last resort: standard error.
#pragma once

#include <csignal>
#include <string_view>

namespace kest::host
{

/// While it lives, what this thread writes ends nobody: SIGPIPE and SIGXFSZ that its writes cause are taken back, and
/// the writes fail.
class quietWrites
{
public:
    quietWrites();
    quietWrites(const quietWrites&) = delete;
    quietWrites& operator=(const quietWrites&) = delete;
    ~quietWrites();

private:
    sigset_t m_before{};
    sigset_t m_pendingBefore{};
};

/// Tells standard error a text, a second at most: what a full pipe doesn't take until then is given up. Allocates
/// nothing. Any thread; hold no lock that others wait for.
void tellStandardError(std::string_view text) noexcept;

} // namespace kest::host
