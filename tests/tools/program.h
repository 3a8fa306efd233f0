/// Runs the built programs and catches what they say: standard output, standard error, exit code; on pipes, files or a
/// terminal.
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

/// This process's environment and `added` on top of it, as exec() takes it. Made before a fork: the child of a process
/// with threads must not allocate.
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
    std::string input = {}; ///< given to standard input, then its end
    std::map<std::string, std::string> environment = {}; ///< set on top of this process's own
    std::filesystem::path folder = {}; ///< working folder
    std::string outputTo = {}; ///< standard output goes to this file, "/dev/full" for instance
    bool closeOutput = false; ///< nobody reads standard output
    std::vector<int> closed = {}; ///< of 0, 1 and 2: what it is started without
    std::uint64_t largestFile = 0; ///< no file may grow beyond so many bytes; 0 any may
    bool stranger = false; ///< run by root, it is a user without any rights
    bool terminal = false; ///< all three streams are one terminal; `output` has what it shows
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

    /// The next whole line of standard output, without its end; nothing when the output ended or time is up first.
    std::optional<std::string> readLine();

    /// Writes to standard input (a terminal's, too) while the program runs.
    void type(const std::string& text) { m_options.input += text; }

    /// Waits until the output holds `text`. @return false when the output ended or time is up first
    bool waitFor(const std::string& text);

    /// Takes all the output there is and waits for the end.
    RunResult finish();

private:
    static void closeEnd(int& descriptor);

    void start(const std::vector<std::string>& command);

    /// In the child: what it may not do.
    void limit() const;

    /// Moves what can be moved, waiting for something. @return false when both outputs have ended, or time is up
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

/// A test that has a demo machine of its own, which `kestctl sim new` wrote, as the configured one.
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
    /// kestctl's standard output; the test fails when it does not end with exit code 0 and nothing on standard error.
    std::string says(std::vector<std::string> arguments, RunOptions options = {}) const;

private:
    TemporaryFolder m_folder;
};

} // namespace kest::test
