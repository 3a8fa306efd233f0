#include "tools/kestctl/dumpworker.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "base/files.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/progress.h"

namespace kest::tools
{
namespace
{

static_assert(std::atomic<std::uint32_t>::is_always_lock_free, "it is shared by processes");

constexpr int signalCodes = 128;

/// Both ends of a pipe.
struct pipeEnds {
    fileDescriptor reading;
    fileDescriptor writing;

    pipeEnds()
    {
        std::array<int, 2> numbers{};
        if (pipe2(numbers.data(), O_CLOEXEC) != 0) {
            throw systemFailure(errno, "dump", "a pipe");
        }
        reading = fileDescriptor(ownDescriptor(numbers[0]));
        writing = fileDescriptor(ownDescriptor(numbers[1]));
    }
};

} // namespace

dumpWorker::dumpWorker(const busDumps& bus, sharedProgress& shown, const dumper& dump)
{
    pipeEnds ends;
    pipeEnds lines;
    const pid_t starter = getpid();
    m_pid = fork();
    if (m_pid < 0) {
        throw systemFailure(errno, "dump", "a process for " + bus.bus);
    }
    if (m_pid == 0) {
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != starter || dup2(lines.writing.number(), STDERR_FILENO) < 0) {
            _exit(exitFailed);
        }
        work(bus, shown, dump, ends.writing.number());
    }
    m_ends = std::move(ends.reading);
    m_lines = std::move(lines.reading);
}

dumpWorker::dumpWorker(dumpWorker&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)), m_ends(std::move(other.m_ends)), m_lines(std::move(other.m_lines))
{
}

dumpWorker::~dumpWorker()
{
    pass(SIGTERM);
    wait();
}

void dumpWorker::work(const busDumps& bus, sharedProgress& shown, const dumper& dump, int ends)
{
    int code = exitDone;
    try {
        // from the first device to the last: none is left half done
        const interruptWatch watch;
        bool goesOn = true;
        for (std::uint32_t index = 0; index < bus.dumps.size() && goesOn; ++index) {
            const plannedDump& each = bus.dumps[index];
            progress::mirror(&shown.now, each.bytes);
            const dumpEnd end{index, dump(each)};
            shown.now = 0;
            shown.before += each.bytes;
            writeAll(ends, std::string_view(reinterpret_cast<const char*>(&end), sizeof end));
            // a signal between two devices is reported by the later one
            goesOn = interruptSignal() == 0 || end.code == exitDone;
        }
    } catch (const std::exception&) {
        code = exitFailed;
    } catch (const failure& why) {
        code = why.code;
    }
    _exit(code);
}

bool dumpWorker::take(dumpEnd& end)
{
    const ssize_t got = read(m_ends.number(), &end, sizeof end);
    if (got != static_cast<ssize_t>(sizeof end)) {
        m_ends = fileDescriptor();
        return false;
    }
    return true;
}

bool dumpWorker::take(std::string& text)
{
    std::array<char, 4096> room{};
    const ssize_t got = read(m_lines.number(), room.data(), room.size());
    if (got <= 0) {
        m_lines = fileDescriptor();
        return false;
    }
    text.append(room.data(), static_cast<std::size_t>(got));
    return true;
}

void dumpWorker::pass(int signal) const
{
    if (m_pid > 0) {
        kill(m_pid, signal);
    }
}

int dumpWorker::wait()
{
    int status = 0;
    if (m_pid > 0) {
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {}
        m_pid = -1;
    }
    return WIFSIGNALED(status) ? signalCodes + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace kest::tools
