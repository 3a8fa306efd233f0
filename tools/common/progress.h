/// Progress of long work on standard error, when that is a terminal that takes escape sequences.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace kest::tools
{

/// Shows bytes done, rate and time left, in one line that is overwritten, from the second half second on.
class progress
{
public:
    /// @param what  "read planar-vpd"
    /// @param total  bytes to do; 0 shows nothing
    /// @param quiet  nothing is shown before this time has passed
    progress(std::string what, std::uint64_t total, std::chrono::milliseconds quiet = std::chrono::milliseconds(500));
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;
    ~progress(); ///< clears the line

    void update(std::uint64_t done);

    /// From now on work of `total` bytes also stores the bytes done here, for a process that shows them. Null: none.
    static void mirror(std::atomic<std::uint32_t>* done, std::uint64_t total);

private:
    std::string m_what;
    std::uint64_t m_total;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_next; ///< when the line is written again
    bool m_terminal;
    bool m_shown = false;
};

/// "12.0 KiB of 64.0 KiB, 3.1 KiB/s, 17 s left". Time left is "-" while it is not known.
[[nodiscard]] std::string progressText(std::uint64_t done, std::uint64_t total, std::chrono::duration<double> elapsed);

} // namespace kest::tools
