/// Runs the built programs on pipes, files or a terminal, and collects standard output, standard error and exit code.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/places.h"
#include "tests/temporaryfolder.h"

namespace kest::test
{

using namespace std::chrono_literals;

/// Reads and writes whole files.
std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& content);

/// This process's environment and the variables of `added`, in the form that exec() takes. Make it before a fork: the
/// child of a process with threads must not allocate.
class Environment
{
public:
    /// @param last  a variable whose text may still change, or null; the caller's
    explicit Environment(std::map<std::string, std::string> added, char* last = nullptr);
    [[nodiscard]] char* const* pointers() const { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

struct RunOptions {
    std::string input = {}; ///< the whole of standard input
    std::map<std::string, std::string> environment = {}; ///< set on top of this process's own
    std::filesystem::path folder = {}; ///< working folder
    std::string outputTo = {}; ///< standard output goes to this file, "/dev/full" for instance
    bool closeOutput = false; ///< nobody reads standard output
    std::vector<int> closed = {}; ///< descriptors, of 0, 1 and 2, that it is started without
    std::uint64_t largestFile = 0; ///< limit of a file's size in bytes; 0: none
    bool stranger = false; ///< when root runs the test, the program runs as a user without rights
    bool terminal = false; ///< all three streams are one terminal, whose contents are in `output`
    std::chrono::milliseconds limit = 60'000ms; ///< the program is killed after this, and `signal` says so
};

struct RunResult {
    int exit = -1; ///< exit code; -1 when a signal ended it
    int signal = 0;
    std::string output;
    std::string errors;
};

/// A program that was started and runs beside the test.
class Program
{
public:
    /// @param name  of a program of the build; run by the emulator when there is one
    Program(const std::string& name, std::vector<std::string> arguments, RunOptions options = {});
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    [[nodiscard]] pid_t pid() const { return m_pid; }
    void sendSignal(int number) const;

    /// The next whole line of standard output, without its end; nothing when the output or the time ends first.
    std::optional<std::string> readLine();

    /// Writes to standard input or the terminal while the program runs.
    void type(const std::string& text) { m_options.input += text; }

    /// Closes the terminal, as its window does.
    void closeTerminal();

    /// Waits until the output holds `text`. @return false when the output or the time ends first
    bool waitFor(const std::string& text);

    /// Reads all output and waits for the end of the program.
    RunResult finish();

private:
    static void closeEnd(int& descriptor);

    void start(const std::vector<std::string>& command);

    /// In the child: sets the limits of the options.
    void limit() const;

    /// Waits, then moves the input and output that it can. @return false when both outputs or the time have ended
    bool pump();

    static void take(const pollfd& wait, int& descriptor, std::string& into);

    RunOptions m_options;
    std::chrono::steady_clock::time_point m_deadline;
    RunResult m_result;
    std::size_t m_lineStart = 0;
    bool m_finishing = false;
    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    int m_errors = -1;
};

/// Runs a program to its end.
RunResult run(const std::string& name, std::vector<std::string> arguments, RunOptions options = {});

/// A test with its own demo machine, written by `kestctl sim new`, which is the configured one.
class MachineTest : public ::testing::Test
{
protected:
    MachineTest();

    [[nodiscard]] std::filesystem::path machine() const { return m_folder.path() / "machine"; }
    [[nodiscard]] std::filesystem::path folder() const { return m_folder.path(); }

    /// Options with the machine configured.
    [[nodiscard]] RunOptions configured(RunOptions options = {}) const
    {
        options.environment.emplace("KEST_CONFIG", (machine() / "kest.toml").string());
        return options;
    }
    [[nodiscard]] RunResult kestctl(std::vector<std::string> arguments, RunOptions options = {}) const
    {
        return run("kestctl", std::move(arguments), configured(std::move(options)));
    }
    /// Lets users without any rights read what is in the folder. @return whether they can start the programs
    [[nodiscard]] bool letStrangersIn() const;
    /// kestctl's standard output. The test fails unless the exit code is 0 and standard error is empty.
    std::string says(std::vector<std::string> arguments, RunOptions options = {}) const;

private:
    TemporaryFolder m_folder;
};

} // namespace kest::test
