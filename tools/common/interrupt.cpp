#include "tools/common/interrupt.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "base/clock.h"
#include "base/descriptor.h"
#include "tools/common/deadline.h"

namespace kest::tools
{
namespace
{

struct signalRow {
    int number;
    exitCode code;
    const char* what;
    const char* verdict = "";
};
constexpr std::array signalRows{
    signalRow{.number = SIGINT, .code = exitInterrupted, .what = "interrupted"},
    signalRow{.number = SIGTERM, .code = exitTerminated, .what = "ended by SIGTERM"},
    signalRow{.number = SIGHUP, .code = exitHungUp, .what = "ended by SIGHUP: the terminal was closed"},
    signalRow{.number = SIGALRM, .code = exitFailed, .what = "the time of --timeout is up", .verdict = "timeout"},
};

constexpr std::uint64_t secondInterruptNs = nsPerSecond;

void writeWord(const fileDescriptor& event)
{
    constexpr std::uint64_t once = 1;
    static_cast<void>(!write(event.number(), &once, sizeof once));
}

/// Takes the signals in a thread of its own. All others block them: no system call of a transfer is interrupted, and a
/// second ^C gets through even while a transfer hangs.
class signalTaker
{
public:
    signalTaker();
    signalTaker(const signalTaker&) = delete;
    signalTaker& operator=(const signalTaker&) = delete;
    ~signalTaker();

    [[nodiscard]] int signal() const { return m_signal.load(); }
    /// Counts a signal. Only the first one is remembered.
    void count(int number);
    /// Can be read once there was a signal.
    [[nodiscard]] int told() const { return m_told.number(); }
    void setLastWords(const std::string& line)
    {
        const std::lock_guard guard(m_lock);
        m_lastWords = line;
    }
    [[nodiscard]] std::string lastWords()
    {
        const std::lock_guard guard(m_lock);
        return m_lastWords;
    }

private:
    void take();
    void note(int number);
    [[noreturn]] void endAtOnce();

    sigset_t m_watched{};
    sigset_t m_former{};
    fileDescriptor m_signals;
    fileDescriptor m_told;
    fileDescriptor m_stop;
    std::atomic<int> m_signal{0};
    std::uint64_t m_lastInterruptNs = 0; ///< of the thread alone
    std::mutex m_lock; ///< of the last words
    std::string m_lastWords;
    std::thread m_thread;
};

// of the one thread that works on devices
std::unique_ptr<signalTaker> taker;
unsigned watches = 0;
unsigned held = 0;

signalTaker::signalTaker()
{
    sigemptyset(&m_watched);
    for (const signalRow& row : signalRows) {
        struct sigaction present {
        };
        // nohup, and commands that a script runs in the background, have them ignored
        const bool counts = row.number != SIGALRM || endsInTime();
        if (counts && sigaction(row.number, nullptr, &present) == 0 && present.sa_handler != SIG_IGN) {
            sigaddset(&m_watched, row.number);
        }
    }
    m_told = fileDescriptor(ownDescriptor(eventfd(0, EFD_CLOEXEC)));
    m_stop = fileDescriptor(ownDescriptor(eventfd(0, EFD_CLOEXEC)));
    m_signals = fileDescriptor(ownDescriptor(signalfd(-1, &m_watched, SFD_CLOEXEC)));
    if (!m_told.valid() || !m_stop.valid() || !m_signals.valid()) {
        throw systemFailure(errno, "watch for", "signals");
    }
    pthread_sigmask(SIG_BLOCK, &m_watched, &m_former);
    try {
        m_thread = std::thread([this] { take(); });
    } catch (const std::system_error& why) {
        pthread_sigmask(SIG_SETMASK, &m_former, nullptr);
        throw systemFailure(why.code().value(), "watch for", "signals");
    }
}

signalTaker::~signalTaker()
{
    writeWord(m_stop);
    m_thread.join();
    pthread_sigmask(SIG_SETMASK, &m_former, nullptr);
}

void signalTaker::take()
{
    for (;;) {
        std::array<pollfd, 2> waits{{{m_signals.number(), POLLIN, 0}, {m_stop.number(), POLLIN, 0}}};
        if (poll(waits.data(), waits.size(), -1) < 0) {
            continue;
        }
        signalfd_siginfo came{};
        if (waits[0].revents != 0 && read(m_signals.number(), &came, sizeof came) == sizeof came) {
            note(static_cast<int>(came.ssi_signo));
        } else if (waits[1].revents != 0) {
            return;
        }
    }
}

void signalTaker::note(int number)
{
    if (number == SIGINT) {
        const std::uint64_t now = clockNs(CLOCK_MONOTONIC);
        if (m_lastInterruptNs != 0 && now - m_lastInterruptNs <= secondInterruptNs) {
            endAtOnce();
        }
        m_lastInterruptNs = now;
    }
    count(number);
}

void signalTaker::count(int number)
{
    int none = 0;
    if (m_signal.compare_exchange_strong(none, number)) {
        writeWord(m_told);
    }
}

void signalTaker::endAtOnce()
{
    const std::lock_guard guard(m_lock);
    static_cast<void>(writeAll(STDERR_FILENO, m_lastWords.empty()
                                                  ? std::string_view("kestctl: interrupted, ended at once\n")
                                                  : std::string_view(m_lastWords)));
    _exit(exitInterrupted);
}

/// Waits for a descriptor, for a signal, and for a time. @param descriptor  -1: none
/// @return false when a signal came first
bool waitWatched(int descriptor, const timespec* time)
{
    std::array<pollfd, 2> waits{{{descriptor, POLLIN, 0}, {taker != nullptr ? taker->told() : -1, POLLIN, 0}}};
    uninterrupted([&] { return ppoll(waits.data(), waits.size(), time, nullptr); });
    // the end of a terminal is seen at once; its signal may be on the way
    if ((waits[0].revents & POLLHUP) != 0 && taker != nullptr) {
        taker->count(SIGHUP);
    }
    return interruptSignal() == 0;
}

} // namespace

interruptWatch::interruptWatch()
{
    if (watches == 0) {
        taker = std::make_unique<signalTaker>();
    }
    ++watches;
}

interruptWatch::~interruptWatch()
{
    --watches;
    if (watches == 0) {
        taker.reset();
    }
}

interruptsHeld::interruptsHeld() { ++held; }
interruptsHeld::~interruptsHeld() { --held; }

int interruptSignal() { return taker == nullptr || held > 0 ? 0 : taker->signal(); }

int interruptDescriptor() { return taker == nullptr ? -1 : taker->told(); }

failure interruption(int signal, const std::string& device, const std::string& step)
{
    const auto* row = std::ranges::find(signalRows, signal, &signalRow::number);
    const signalRow& found = row == signalRows.end() ? signalRows.front() : *row;
    return {.code = found.code,
            .what = found.what,
            .device = device,
            .step = step,
            .verdict = found.verdict,
            .signal = signal};
}

bool isInterruption(const failure& why) { return why.signal != 0; }

void throwIfInterrupted(const std::string& device, const std::string& step)
{
    if (const int signal = interruptSignal()) {
        throw interruption(signal, device, step);
    }
}

void setLastWords(const std::string& line)
{
    if (taker != nullptr) {
        taker->setLastWords(line);
    }
}

finalWords::finalWords(const std::string& line) : m_former(taker != nullptr ? taker->lastWords() : "")
{
    setLastWords(line);
}

bool waitForInput(int terminal) { return waitWatched(terminal, nullptr); }

bool pauseUnlessInterrupted(std::uint64_t nanoseconds)
{
    const timespec time{static_cast<time_t>(nanoseconds / nsPerSecond), static_cast<long>(nanoseconds % nsPerSecond)};
    return waitWatched(-1, &time);
}

} // namespace kest::tools
