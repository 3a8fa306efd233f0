#include "tests/tools/program.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>

#include "base/quietwrites.h"

namespace kest::test
{

std::string readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::filesystem::path& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
}

Environment::Environment(std::map<std::string, std::string> added, char* last)
{
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        // without effect on variables in `added`
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

Program::Program(const std::string& name, std::vector<std::string> arguments, RunOptions options)
    : m_options(std::move(options)), m_deadline(std::chrono::steady_clock::now() + m_options.limit)
{
    std::vector<std::string> command = commandOf(name);
    command.insert(command.end(), std::make_move_iterator(arguments.begin()), std::make_move_iterator(arguments.end()));
    start(command);
}

Program::~Program()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        finish();
    }
}

void Program::sendSignal(int number) const { kill(m_pid, number); }

std::optional<std::string> Program::readLine()
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

void Program::closeTerminal()
{
    closeEnd(m_input);
    closeEnd(m_output);
}

bool Program::waitFor(const std::string& text)
{
    while (m_result.output.find(text) == std::string::npos) {
        if (!pump()) {
            return false;
        }
    }
    return true;
}

RunResult Program::finish()
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

void Program::closeEnd(int& descriptor)
{
    if (descriptor >= 0) {
        close(descriptor);
    }
    descriptor = -1;
}

void Program::start(const std::vector<std::string>& command)
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

void Program::limit() const
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

bool Program::pump()
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
        const quietWrites quiet;
        const ssize_t written = write(m_input, m_options.input.data(), m_options.input.size());
        if (written > 0) {
            m_options.input.erase(0, static_cast<std::size_t>(written));
        } else if (errno != EAGAIN) {
            // the program does not read any more
            m_options.input.clear();
            closeEnd(m_input);
        }
    }
    return true;
}

void Program::take(const pollfd& wait, int& descriptor, std::string& into)
{
    if (wait.revents == 0) {
        return;
    }
    std::array<char, 65536> block; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const ssize_t got = read(descriptor, block.data(), block.size());
    if (got > 0) {
        into.append(block.data(), static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
        // on a terminal whose program has ended read() fails with EIO
        closeEnd(descriptor);
    }
}

RunResult run(const std::string& name, std::vector<std::string> arguments, RunOptions options)
{
    return Program(name, std::move(arguments), std::move(options)).finish();
}

MachineTest::MachineTest()
{
    const RunResult made = run("kestctl", {"sim", "new", machine().string()});
    EXPECT_EQ(0, made.exit) << made.output << made.errors;
}

bool MachineTest::letStrangersIn() const
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

std::string MachineTest::says(std::vector<std::string> arguments, RunOptions options) const
{
    const RunResult result = kestctl(std::move(arguments), std::move(options));
    EXPECT_EQ(0, result.exit) << result.errors;
    EXPECT_EQ("", result.errors);
    return result.output;
}

} // namespace kest::test
