#include "tools/common/output.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "tools/common/deadline.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/preferences.h"

namespace kest::tools
{
namespace
{

bool isSet(const char* variable)
{
    const char* value = std::getenv(variable);
    return value != nullptr && *value != 0;
}

/// What the user says goes before the environment, and that before the kind of standard output.
bool wantsColour(bool terminal)
{
    if (preferred().colour != colourChoice::automatic) {
        return preferred().colour == colourChoice::always;
    }
    if (isSet("NO_COLOR")) {
        return false;
    }
    const char* force = std::getenv("CLICOLOR_FORCE");
    const bool forced = isSet("CLICOLOR_FORCE") && std::string_view(force) != "0";
    return forced || (terminal && takesSequences());
}

constexpr std::array<const char*, 6> sequences{"", "\033[1m", "\033[31m", "\033[32m", "\033[33m", "\033[2m"};

} // namespace

void output::check(bool good)
{
    if (good) {
        return;
    }
    const int error = errno;
    m_broken = true;
    if (error == EPIPE) {
        return;
    }
    throw failure{.code = exitFailed, .what = std::strerror(error), .device = "standard output", .step = "write"};
}

void output::text(std::string_view what)
{
    bytes(std::span(reinterpret_cast<const unsigned char*>(what.data()), what.size()));
}

void output::bytes(std::span<const unsigned char> what)
{
    if (!m_broken && !what.empty()) {
        beginsOutput();
        check(std::fwrite(what.data(), 1, what.size(), stdout) == what.size());
    }
}

void output::json(const jsonValue& value, int indent) { text(value.dump(indent) + "\n"); }

void output::flush()
{
    if (!m_broken) {
        check(std::fflush(stdout) == 0);
    }
}

bool output::terminal() const { return isatty(STDOUT_FILENO) == 1; }

std::string output::paint(colour shade, std::string_view what) const
{
    static const bool wanted = wantsColour(terminal());
    const char* on = wanted ? sequences[static_cast<std::size_t>(shade)] : "";
    return std::string(on) + std::string(what) + (*on == 0 ? "" : "\033[0m");
}

output& standardOutput()
{
    static output theOne;
    static const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    static_cast<void>(ignored);
    return theOne;
}

void note(const std::string& line)
{
    if (!preferred().quiet) {
        std::fputs(("kestctl: " + escaped(line) + "\n").c_str(), stderr);
    }
}

bool takesSequences()
{
    const char* terminal = std::getenv("TERM");
    return terminal != nullptr && *terminal != 0 && std::strcmp(terminal, "dumb") != 0;
}

bool canAsk() { return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1; }

void confirm(const std::string& question, bool yes)
{
    if (yes) {
        return;
    }
    if (!canAsk()) {
        throw failure{.code = exitRefused, .what = question + " not confirmed", .tryThis = "--yes confirms it"};
    }
    std::fputs((escaped(question) + " Go on? [y/N] ").c_str(), stderr);
    std::array<char, 16> answer{};
    if (!waitForInput(STDIN_FILENO)) {
        std::fputs("\n", stderr);
        throwIfInterrupted("", "question");
    }
    const bool answered = std::fgets(answer.data(), answer.size(), stdin) != nullptr;
    if (!answered || (answer[0] != 'y' && answer[0] != 'Y')) {
        throw failure{.code = exitRefused, .what = "not confirmed, nothing was done"};
    }
}

} // namespace kest::tools
