/// Runs a command and holds it in the middle of its writes, so that a check can do something meanwhile.
///
/// holdwrite COUNT COMMAND...
///
/// Stops the command before its COUNT-th transaction that is one written message of more than an offset: a page. Then
/// it writes the command's process id into the pipe /tmp/held, and lets the command go on when somebody has written a
/// line into the pipe /tmp/goon. A command that ends before that gives process id 0. The exit code is the command's, or
/// 128 and the number of the signal that ended it.
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int cannotRun = 127;
// bytes of an offset
constexpr unsigned offsetBytes = 2;
constexpr int ofSystemCall = SIGTRAP | 0x80;

/// Copies an object out of the command's memory.
template <typename Object>
std::optional<Object> objectAt(pid_t process, std::uintptr_t address)
{
    Object object{};
    const iovec here{.iov_base = &object, .iov_len = sizeof object};
    const iovec there{.iov_base = reinterpret_cast<void*>(address), .iov_len = sizeof object};
    const auto length = process_vm_readv(process, &here, 1, &there, 1, 0);
    return length == static_cast<ssize_t>(sizeof object) ? std::optional(object) : std::nullopt;
}

/// Whether the command enters a system call that sends a page.
bool sendsPage(pid_t process)
{
    __ptrace_syscall_info call{};
    ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof call, &call);
    if (call.op != PTRACE_SYSCALL_INFO_ENTRY || call.entry.nr != SYS_ioctl || call.entry.args[1] != I2C_RDWR) {
        return false;
    }
    const auto list = objectAt<i2c_rdwr_ioctl_data>(process, static_cast<std::uintptr_t>(call.entry.args[2]));
    if (!list || list->nmsgs != 1) {
        return false;
    }
    const auto message = objectAt<i2c_msg>(process, reinterpret_cast<std::uintptr_t>(list->msgs));
    return message && (message->flags & I2C_M_RD) == 0 && message->len > offsetBytes;
}

/// Says that the command is held, or, with 0, that it has ended.
void tellHeld(pid_t process)
{
    std::FILE* pipe = std::fopen("/tmp/held", "w");
    if (pipe != nullptr) {
        std::fprintf(pipe, "%d\n", static_cast<int>(process));
        std::fclose(pipe);
    }
}

void waitForGo()
{
    std::FILE* pipe = std::fopen("/tmp/goon", "r");
    if (pipe != nullptr) {
        static_cast<void>(std::fgetc(pipe));
        std::fclose(pipe);
    }
}

[[noreturn]] void runCommand(char** command)
{
    // a shell's background commands ignore it
    std::signal(SIGINT, SIG_DFL);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    std::raise(SIGSTOP);
    execv(command[0], command);
    std::perror(command[0]);
    _exit(cannotRun);
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 3) {
        std::fputs("usage: holdwrite COUNT COMMAND...\n", stderr);
        return 2;
    }
    long pages = std::strtol(arguments[1], nullptr, 10);
    const pid_t process = fork();
    if (process == 0) {
        runCommand(arguments + 2);
    }
    int state = 0;
    waitpid(process, &state, 0);
    ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    int signal = 0;
    while (ptrace(PTRACE_SYSCALL, process, nullptr, signal) == 0 && waitpid(process, &state, 0) == process &&
           WIFSTOPPED(state)) {
        signal = WSTOPSIG(state) == ofSystemCall || WSTOPSIG(state) == SIGTRAP ? 0 : WSTOPSIG(state);
        if (WSTOPSIG(state) == ofSystemCall && sendsPage(process) && --pages == 0) {
            tellHeld(process);
            waitForGo();
        }
    }
    if (pages > 0) {
        tellHeld(0);
    }
    while (!WIFEXITED(state) && !WIFSIGNALED(state)) {
        waitpid(process, &state, 0);
    }
    return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
}
