/// ^C and its like while a device is at work: nothing is cut off in the middle, and nothing ends without a word.
#pragma once

#include <cstdint>
#include <string>

#include "tools/common/failure.h"

namespace kest::tools
{

/// While there is one, SIGINT, SIGTERM and SIGHUP (also of a closed terminal) no longer end the process, and neither does
/// the end of its time (deadline.h): they are remembered, and the code at work looks for them where it can end well. A
/// transfer is never cut off by one. A second SIGINT within a second of the first ends the process at once all the same,
/// with exit code 130 and the last words.
///
/// A signal that was ignored when the watch began stays ignored. Watches may be nested; the outermost counts. Threads
/// that were made before it must block these signals themselves. Throws a `failure` when there is no thread or
/// descriptor for it.
class interruptWatch
{
public:
    interruptWatch();
    interruptWatch(const interruptWatch&) = delete;
    interruptWatch& operator=(const interruptWatch&) = delete;
    ~interruptWatch();
};

/// While there is one, signals are remembered and nobody sees them: what reads back after an interruption goes on.
class interruptsHeld
{
public:
    interruptsHeld();
    interruptsHeld(const interruptsHeld&) = delete;
    interruptsHeld& operator=(const interruptsHeld&) = delete;
    ~interruptsHeld();
};

/// @return the number of the first signal since the outermost watch began; 0 when there was none, or when they are held
[[nodiscard]] int interruptSignal();

/// A descriptor that can be read once there was a signal, for those who wait for others as well; -1 without a watch.
[[nodiscard]] int interruptDescriptor();

/// The failure of an operation that a signal has ended. No entry of the error log belongs to it.
[[nodiscard]] failure interruption(int signal, const std::string& device, const std::string& step);
/// Whether a failure is one of these.
[[nodiscard]] bool isInterruption(const failure& why);
/// Throws interruption() when there was a signal.
void throwIfInterrupted(const std::string& device, const std::string& step);

/// What is printed when a second SIGINT ends the process at once: a whole line. Empty: that it was ended.
void setLastWords(const std::string& line);

/// Other last words, as long as this object lasts: then those from before.
class finalWords
{
public:
    explicit finalWords(const std::string& line);
    finalWords(const finalWords&) = delete;
    finalWords& operator=(const finalWords&) = delete;
    ~finalWords() { setLastWords(m_former); }

private:
    std::string m_former;
};

/// Waits until a terminal can be read. @return false when a signal came first, or the terminal was closed while there
/// is a watch
[[nodiscard]] bool waitForInput(int terminal);
/// Lets time pass. @return false when a signal came first, or before
[[nodiscard]] bool pauseUnlessInterrupted(std::uint64_t nanoseconds);

} // namespace kest::tools
