/// The dumps of one bus, in a process of their own.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>

#include "base/descriptor.h"
#include "tools/kestctl/dumpplan.h"

namespace kest::tools
{

/// How far a worker is, in memory that it shares with its starter.
struct sharedProgress {
    std::atomic<std::uint32_t> before; ///< bytes of the devices that it is done with
    std::atomic<std::uint32_t> now; ///< of the one at work
};

/// How one dump ended, as it goes through a pipe.
struct dumpEnd {
    std::uint32_t index; ///< of the device on its bus
    std::int32_t code; ///< exit code
};

/// A process that dumps the devices of a bus one after the other. It has a process group of its own: a ^C of the
/// terminal reaches its starter alone, which passes it on. It ends when its starter dies.
class dumpWorker
{
public:
    /// Dumps one device. @return its exit code; what failed is on standard error
    using dumper = std::function<int(const plannedDump&)>;

    /// Throws a `failure` when there is no process for it.
    /// @param shown  outlives the worker
    dumpWorker(const busDumps& bus, sharedProgress& shown, const dumper& dump);
    dumpWorker(dumpWorker&&) noexcept;
    dumpWorker& operator=(dumpWorker&&) = delete;
    /// Ends it with SIGTERM, unless it has ended, and waits.
    ~dumpWorker();

    /// To poll; -1 at their end.
    [[nodiscard]] int ends() const { return m_ends.number(); }
    [[nodiscard]] int lines() const { return m_lines.number(); }
    /// Reads one end. @return false at the last one
    bool take(dumpEnd& end);
    /// Reads what it has written to standard error. @return false at the end
    bool take(std::string& text);

    void pass(int signal) const;
    /// Waits for its end. @return 0, or 128 and the signal's number when a signal ended it
    int wait();

private:
    [[noreturn]] static void work(const busDumps& bus, sharedProgress& shown, const dumper& dump, int ends);

    pid_t m_pid = -1;
    fileDescriptor m_ends;
    fileDescriptor m_lines;
};

} // namespace kest::tools
