/// Runs a command and counts its instructions in user mode: counted COMMAND...
///
/// The last line on standard error is "instructions N": of the command from its start to its end, with all its threads
/// and children. The processor's counters must be known to the kernel.
#include <cstdint>
#include <cstdio>

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int cannotRun = 127;

/// Opens a counter of a process that begins to count when the process runs another program.
int openCounter(pid_t process)
{
    perf_event_attr what{};
    what.type = PERF_TYPE_HARDWARE;
    what.size = sizeof what;
    what.config = PERF_COUNT_HW_INSTRUCTIONS;
    what.disabled = 1;
    what.inherit = 1;
    what.exclude_kernel = 1;
    what.exclude_hv = 1;
    what.enable_on_exec = 1;
    return static_cast<int>(syscall(SYS_perf_event_open, &what, process, -1, -1, 0));
}

[[noreturn]] void runCommand(int go, char** command)
{
    char byte = 0;
    if (read(go, &byte, 1) == 1) {
        close(go);
        execvp(command[0], command);
    }
    std::perror(command[0]);
    _exit(cannotRun);
}

} // namespace

int main(int count, char** arguments)
{
    int go[2];
    if (count < 2 || pipe(go) != 0) {
        std::fputs("usage: counted COMMAND...\n", stderr);
        return 2;
    }
    const pid_t process = fork();
    if (process == 0) {
        close(go[1]);
        runCommand(go[0], arguments + 1);
    }
    const int counter = openCounter(process);
    if (counter < 0) {
        std::perror("perf_event_open");
    }
    const char byte = 0;
    static_cast<void>(!write(go[1], &byte, 1));
    int state = 0;
    waitpid(process, &state, 0);
    std::uint64_t instructions = 0;
    if (counter >= 0 && read(counter, &instructions, sizeof instructions) == sizeof instructions) {
        std::fprintf(stderr, "instructions %llu\n", static_cast<unsigned long long>(instructions));
    }
    return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
}
