/// Runs the built programs and catches what they say: standard output, standard error, exit code; on pipes, files or a
/// terminal.
#pragma once

#include "tests/places.h"
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <optional>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace kest::test
{

using namespace std::chrono_literals;

/// Reads and writes whole files.
inline std::string readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
inline void writeFile(const std::filesystem::path& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
}

/// A folder of its own, removed with all it holds.
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kest-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        m_path = name;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    [[nodiscard]] const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

/// This process's environment and `added` on top of it, as exec() takes it. Made before a fork: the child of a process
/// with threads must not allocate.
class Environment
{
public:
    /// @param last  a variable whose text may still change, or null; the caller's
    explicit Environment(std::map<std::string, std::string> added, char* last = nullptr)
    {
        for (char** variable = environ; *variable != nullptr; ++variable) {
            const std::string text = *variable;
            // unless it is set anew
            added.emplace(text.substr(0, text.find('=')), text.substr(text.find('=') + 1));
        }
        for (const auto& [name, value] : added) {
            m_texts.push_back(name + "=" + value);
        }
        for (std::string& text : m_texts) {
            m_pointers.push_back(text.data());
        }
        if (last != nullptr) {
            m_pointers.push_back(last);
        }
        m_pointers.push_back(nullptr);
    }
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
    Program(const std::string& name, std::vector<std::string> arguments, RunOptions options = {})
        : m_options(std::move(options)), m_deadline(std::chrono::steady_clock::now() + m_options.limit)
    {
        std::vector<std::string> command = emulator();
        command.push_back(std::string(kest::tests::programFolder) + "/" + name);
        command.insert(command.end(), std::make_move_iterator(arguments.begin()),
                       std::make_move_iterator(arguments.end()));
        start(command);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            finish();
        }
    }

    [[nodiscard]] pid_t pid() const { return m_pid; }
    void sendSignal(int number) const { kill(m_pid, number); }

    /// The next whole line of standard output, without its end; nothing when the output ended or time is up first.
    std::optional<std::string> readLine()
    {
        std::size_t end = 0;
        while ((end = m_result.output.find('\n', m_lineStart)) == std::string::npos) {
            if (!pump()) {
                return std::nullopt;
            }
        }
        std::string line = m_result.output.substr(m_lineStart, end - m_lineStart);
        m_lineStart = end + 1;
        return line;
    }

    /// Writes to standard input (a terminal's, too) while the program runs.
    void type(const std::string& text) { m_options.input += text; }

    /// Waits until the output holds `text`. @return false when the output ended or time is up first
    bool waitFor(const std::string& text)
    {
        while (m_result.output.find(text) == std::string::npos) {
            if (!pump()) {
                return false;
            }
        }
        return true;
    }

    /// Takes all the output there is and waits for the end.
    RunResult finish()
    {
        m_finishing = true;
        while (pump()) {
            continue;
        }
        if (m_pid > 0) {
            int status = 0;
            pid_t ended = 0;
            while ((ended = waitpid(m_pid, &status, WNOHANG)) == 0 || (ended < 0 && errno == EINTR)) {
                if (std::chrono::steady_clock::now() >= m_deadline) {
                    kill(m_pid, SIGKILL);
                }
                poll(nullptr, 0, 2);
            }
            m_result.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            m_result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            m_pid = -1;
        }
        closeEnd(m_input);
        closeEnd(m_output);
        closeEnd(m_errors);
        return m_result;
    }

private:
    static std::vector<std::string> emulator()
    {
        std::vector<std::string> words;
        std::istringstream text(kest::tests::emulator);
        for (std::string word; std::getline(text, word, ';');) {
            if (!word.empty()) {
                words.push_back(word);
            }
        }
        return words;
    }

    static void closeEnd(int& descriptor)
    {
        if (descriptor >= 0) {
            close(descriptor);
        }
        descriptor = -1;
    }

    void start(const std::vector<std::string>& command)
    {
        std::array<int, 2> input{-1, -1};
        std::array<int, 2> output{-1, -1};
        std::array<int, 2> errors{-1, -1};
        int terminal = -1;
        if (!m_options.terminal && (pipe2(input.data(), O_CLOEXEC) < 0 || pipe2(output.data(), O_CLOEXEC) < 0 ||
                                    pipe2(errors.data(), O_CLOEXEC) < 0)) {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        std::vector<char*> words;
        for (const std::string& word : command) {
            words.push_back(const_cast<char*>(word.c_str()));
        }
        words.push_back(nullptr);
        const Environment environment(m_options.environment);
        winsize size{24, 80, 0, 0};
        m_pid = m_options.terminal ? forkpty(&terminal, nullptr, nullptr, &size) : fork();
        if (m_pid < 0) {
            throw std::system_error(errno, std::generic_category(), "fork");
        }
        if (m_pid == 0) {
            if (!m_options.terminal) {
                dup2(input[0], 0);
                dup2(m_options.outputTo.empty() ? output[1]
                                                : open(m_options.outputTo.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666),
                     1);
                dup2(errors[1], 2);
            }
            for (const int number : m_options.closed) {
                close(number);
            }
            limit();
            if (!m_options.folder.empty() && chdir(m_options.folder.c_str()) < 0) {
                _exit(126);
            }
            execvpe(words[0], words.data(), environment.pointers());
            _exit(127);
        }
        if (m_options.terminal) {
            m_input = terminal;
            m_output = dup(terminal);
            fcntl(m_output, F_SETFD, FD_CLOEXEC);
            fcntl(m_input, F_SETFD, FD_CLOEXEC);
        } else {
            close(input[0]);
            close(output[1]);
            close(errors[1]);
            m_input = input[1];
            m_output = output[0];
            m_errors = errors[0];
        }
        fcntl(m_input, F_SETFL, fcntl(m_input, F_GETFL) | O_NONBLOCK);
        if (m_options.closeOutput) {
            closeEnd(m_output);
        }
    }

    /// In the child: what it may not do.
    void limit() const
    {
        if (m_options.largestFile != 0) {
            const rlimit bound{m_options.largestFile, m_options.largestFile};
            // the write fails instead, as on a full disk
            std::signal(SIGXFSZ, SIG_IGN);
            setrlimit(RLIMIT_FSIZE, &bound);
        }
        constexpr unsigned nobody = 65534;
        if (m_options.stranger && geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0)) {
            _exit(126);
        }
    }

    /// Moves what can be moved, waiting for something. @return false when both outputs have ended, or time is up
    bool pump()
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - std::chrono::steady_clock::now());
        if ((m_output < 0 && m_errors < 0) || left.count() <= 0) {
            return false;
        }
        if (m_input >= 0 && m_options.input.empty() && m_finishing && !m_options.terminal) {
            closeEnd(m_input);
        }
        std::array<pollfd, 3> waits{
            {{m_output, POLLIN, 0}, {m_errors, POLLIN, 0}, {m_options.input.empty() ? -1 : m_input, POLLOUT, 0}}};
        const int ready = poll(waits.data(), waits.size(), static_cast<int>(left.count()));
        if (ready <= 0) {
            return ready == 0 || errno == EINTR;
        }
        take(waits[0], m_output, m_result.output);
        take(waits[1], m_errors, m_result.errors);
        if (waits[2].revents != 0) {
            const ssize_t written = write(m_input, m_options.input.data(), m_options.input.size());
            if (written > 0) {
                m_options.input.erase(0, static_cast<std::size_t>(written));
            } else if (errno != EAGAIN) {
                // it does not want more
                m_options.input.clear();
                closeEnd(m_input);
            }
        }
        return true;
    }

    static void take(const pollfd& wait, int& descriptor, std::string& into)
    {
        if (wait.revents == 0) {
            return;
        }
        std::array<char, 65536> block; // NOLINT(cppcoreguidelines-pro-type-member-init)
        const ssize_t got = read(descriptor, block.data(), block.size());
        if (got > 0) {
            into.append(block.data(), static_cast<std::size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            // a terminal whose program ended answers EIO
            closeEnd(descriptor);
        }
    }

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
inline RunResult run(const std::string& name, std::vector<std::string> arguments, RunOptions options = {})
{
    return Program(name, std::move(arguments), std::move(options)).finish();
}

/// A test that has a demo machine of its own, which `kestctl sim new` wrote, as the configured one.
class MachineTest : public ::testing::Test
{
protected:
    MachineTest()
    {
        const RunResult made = run("kestctl", {"sim", "new", machine().string()});
        EXPECT_EQ(0, made.exit) << made.output << made.errors;
    }

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
    [[nodiscard]] bool letStrangersIn() const
    {
        using std::filesystem::perms;
        constexpr perms others = perms::others_read | perms::others_exec;
        std::filesystem::permissions(folder(), others, std::filesystem::perm_options::add);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder())) {
            std::filesystem::permissions(entry.path(), entry.is_directory() ? others : perms::others_read,
                                         std::filesystem::perm_options::add);
        }
        return run("kestctl", {"--version"}, {.stranger = true}).exit == 0;
    }
    /// kestctl's standard output; the test fails when it does not end with exit code 0 and nothing on standard error.
    std::string says(std::vector<std::string> arguments, RunOptions options = {}) const
    {
        const RunResult result = kestctl(std::move(arguments), std::move(options));
        EXPECT_EQ(0, result.exit) << result.errors;
        EXPECT_EQ("", result.errors);
        return result.output;
    }

private:
    TemporaryFolder m_folder;
};

} // namespace kest::test
