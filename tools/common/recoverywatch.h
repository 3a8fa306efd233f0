/// Finds out whether a hub recovered during a read.
#pragma once

namespace kest::tools
{

/// Looks for a recovery in the library's trace, from its construction on. A read that succeeds only when repeated does
/// not return its data: the buffer then holds zeros that no chip ever sent.
class recoveryWatch
{
public:
    recoveryWatch();
    /// Whether there was one; true also when the trace no longer reaches back to the construction.
    [[nodiscard]] bool recovered() const;

private:
    int m_number;
};

} // namespace kest::tools
