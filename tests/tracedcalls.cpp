#include "tests/tracedcalls.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <optional>
#include <span>

#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kest::test
{
namespace
{

// no option of prctl(): it does nothing, and shows where the counted work begins and ends
constexpr int mark = 0x4B657374;
// exit codes of the child
constexpr int workedCode = 0;
constexpr int failedCode = 1;
constexpr int refusedCode = 2;
constexpr unsigned long plainMessages = I2C_FUNC_I2C | I2C_FUNC_SMBUS_EMUL;

/// Keeps a stopped child's system call from being run, and gives it a result. @return whether it can be done here
bool skipCall(pid_t child)
{
#ifdef __x86_64__
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, child, nullptr, &registers) != 0) {
        return false;
    }
    registers.orig_rax = static_cast<unsigned long long>(-1);
    return ptrace(PTRACE_SETREGS, child, nullptr, &registers) == 0;
#else
    static_cast<void>(child);
    return false;
#endif
}

bool setResult(pid_t child, long result)
{
#ifdef __x86_64__
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, child, nullptr, &registers) != 0) {
        return false;
    }
    registers.rax = static_cast<unsigned long long>(result);
    return ptrace(PTRACE_SETREGS, child, nullptr, &registers) == 0;
#else
    static_cast<void>(child);
    static_cast<void>(result);
    return false;
#endif
}

template <typename Value>
bool fetch(pid_t child, std::uint64_t address, std::span<Value> into)
{
    const iovec here{into.data(), into.size_bytes()};
    const iovec there{reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), into.size_bytes()};
    return process_vm_readv(child, &here, 1, &there, 1, 0) == static_cast<ssize_t>(into.size_bytes());
}

template <typename Value>
bool give(pid_t child, std::uint64_t address, std::span<Value> from)
{
    const iovec here{from.data(), from.size_bytes()};
    const iovec there{reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), from.size_bytes()};
    return process_vm_writev(child, &here, 1, &there, 1, 0) == static_cast<ssize_t>(from.size_bytes());
}

/// @return the result of the call: the number of messages, or a negative errno
long moveMessages(pid_t child, std::uint64_t argument)
{
    i2c_rdwr_ioctl_data request{};
    std::array<i2c_msg, I2C_RDWR_IOCTL_MAX_MSGS> messages{};
    if (!fetch(child, argument, std::span(&request, 1)) || request.nmsgs > messages.size()) {
        return -EFAULT;
    }
    const std::span<i2c_msg> all = std::span(messages).first(request.nmsgs);
    if (!fetch(child, reinterpret_cast<std::uintptr_t>(request.msgs), all)) {
        return -EFAULT;
    }
    for (const i2c_msg& message : all) {
        std::vector<std::uint8_t> bytes(message.len);
        std::ranges::generate(bytes, [next = std::uint8_t{0}]() mutable { return next++; });
        if ((message.flags & I2C_M_RD) != 0 &&
            !give(child, reinterpret_cast<std::uintptr_t>(message.buf), std::span(bytes))) {
            return -EFAULT;
        }
    }
    return static_cast<long>(request.nmsgs);
}

/// @return the result of an ioctl that an adapter answers; nothing for another one
std::optional<long> answerOf(pid_t child, std::uint64_t request, std::uint64_t argument)
{
    unsigned long functions = plainMessages;
    switch (request) {
    case I2C_FUNCS:
        return give(child, argument, std::span(&functions, 1)) ? 0 : -EFAULT;
    case I2C_RDWR:
        return moveMessages(child, argument);
    default:
        return std::nullopt;
    }
}

/// Follows one child from stop to stop.
class Tracer
{
public:
    explicit Tracer(pid_t child) : m_child(child) {}
    TracedCalls run();

private:
    bool begin();
    void enter(const __ptrace_syscall_info& call);
    void leave();
    void refuse(const char* what);

    pid_t m_child;
    TracedCalls m_traced;
    bool m_counts = false; ///< between the marks
    std::optional<long> m_answer; ///< of the call that the child is in
};

void Tracer::refuse(const char* what)
{
    const int error = errno;
    m_traced.refusal = std::string(what) + ": " + std::strerror(error);
    kill(m_child, SIGKILL);
}

/// The child has asked to be traced and stopped itself.
bool Tracer::begin()
{
    int status = 0;
    if (waitpid(m_child, &status, 0) != m_child || !WIFSTOPPED(status)) {
        m_traced.refusal = "a process may not be traced here";
        return false;
    }
    if (ptrace(PTRACE_SETOPTIONS, m_child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
        refuse("options of ptrace");
    }
    return true;
}

void Tracer::enter(const __ptrace_syscall_info& call)
{
    if (call.entry.nr == SYS_prctl && call.entry.args[0] == mark) {
        m_counts = !m_counts;
        return;
    }
    if (m_counts) {
        m_traced.numbers.push_back(call.entry.nr);
    }
    if (call.entry.nr == SYS_ioctl) {
        m_answer = answerOf(m_child, call.entry.args[1], call.entry.args[2]);
    }
    if (m_answer && !skipCall(m_child)) {
        refuse("results of system calls can't be given here");
    }
}

void Tracer::leave()
{
    if (m_answer && !setResult(m_child, *m_answer)) {
        refuse("result of a system call");
    }
    m_answer.reset();
}

TracedCalls Tracer::run()
{
    int status = 0;
    long passedOn = 0;
    for (bool stopped = begin(); stopped; stopped = WIFSTOPPED(status)) {
        if (WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80)) {
            __ptrace_syscall_info call{};
            if (ptrace(PTRACE_GET_SYSCALL_INFO, m_child, sizeof call, &call) <= 0) {
                refuse("what system call it is");
            } else if (call.op == PTRACE_SYSCALL_INFO_ENTRY) {
                enter(call);
            } else {
                leave();
            }
        }
        const bool isSignal = WIFSTOPPED(status) && WSTOPSIG(status) != (SIGTRAP | 0x80);
        passedOn = isSignal ? WSTOPSIG(status) : 0;
        ptrace(PTRACE_SYSCALL, m_child, nullptr, passedOn);
        if (waitpid(m_child, &status, 0) != m_child) {
            refuse("waiting for the traced process");
            break;
        }
    }
    m_traced.worked = WIFEXITED(status) && WEXITSTATUS(status) == workedCode;
    return m_traced;
}

[[noreturn]] void runChild(const std::function<bool()>& work)
{
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
        _exit(refusedCode);
    }
    raise(SIGSTOP);
    bool good = work() && work();
    prctl(mark);
    good = work() && good;
    prctl(mark);
    _exit(good ? workedCode : failedCode);
}

} // namespace

TracedCalls traceCalls(const std::function<bool()>& work)
{
    const pid_t child = fork();
    if (child < 0) {
        return {.numbers = {}, .refusal = "no child"};
    }
    if (child == 0) {
        runChild(work);
    }
    return Tracer(child).run();
}

std::filesystem::path makeTracedAdapter(const std::filesystem::path& folder)
{
    std::filesystem::create_directories(folder / "dev");
    std::filesystem::create_symlink("/dev/null", folder / "dev" / "i2c-0");
    const std::filesystem::path file = folder / "kest.toml";
    std::ofstream(file) << "state = \"state\"\n[linux]\nlock_folder = \"locks\"\n[nodes]\n0 = \"" << folder.string()
                        << "\"\n";
    return file;
}

} // namespace kest::test
