#include "tests/tools/kestd_support.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <span>
#include <sys/un.h>
#include <sys/wait.h>

namespace kest::test
{

int boundSocket(const std::filesystem::path& path, int type)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address)) << path;
    if (type == SOCK_STREAM) {
        EXPECT_EQ(0, listen(descriptor, 64));
    }
    return descriptor;
}

RawClient::RawClient(const std::filesystem::path& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    m_descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    m_connected = connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void RawClient::finishSending() const { shutdown(m_descriptor, SHUT_WR); }

void RawClient::hangUp()
{
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
    m_descriptor = -1;
}

bool RawClient::send(const std::vector<std::uint8_t>& bytes, int flags) const
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t sent = ::send(m_descriptor, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | flags);
        if (sent <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(sent);
    }
    return true;
}

std::optional<client::frame> RawClient::receive()
{
    using Stage = client::frameAssembler::stage;
    const auto until = std::chrono::steady_clock::now() + patience;
    while (m_assembler.state() == Stage::incomplete) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count();
        pollfd wait{m_descriptor, POLLIN, 0};
        if (m_at == m_input.size()) {
            m_input.resize(65536);
            m_at = 0;
            const ssize_t got = left > 0 && poll(&wait, 1, static_cast<int>(left)) > 0
                                    ? recv(m_descriptor, m_input.data(), m_input.size(), 0)
                                    : -1;
            m_input.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
            if (got <= 0) {
                return std::nullopt;
            }
        }
        m_at += m_assembler.feed(std::span(m_input).subspan(m_at));
    }
    EXPECT_EQ(Stage::complete, m_assembler.state());
    return m_assembler.take();
}

bool RawClient::isHungUp()
{
    const std::optional<client::frame> more = receive();
    EXPECT_FALSE(more.has_value());
    pollfd wait{m_descriptor, POLLIN, 0};
    return !more && poll(&wait, 1, 0) > 0;
}

FakeService::~FakeService()
{
    m_thread.join();
    close(m_listening);
}

void putWord(std::vector<std::uint8_t>& payload, std::uint32_t word)
{
    payload.resize(payload.size() + sizeof word);
    std::memcpy(payload.data() + payload.size() - sizeof word, &word, sizeof word);
}

client::frame seepromRequest(std::uint16_t type, std::uint32_t offset, std::uint32_t length, std::uint16_t identifier,
                             const std::string& location)
{
    client::frame request;
    request.identifier = identifier;
    request.type = type;
    for (const std::uint32_t word : {offset, 0u, length}) {
        putWord(request.payload, word);
    }
    request.payload.insert(request.payload.end(), location.begin(), location.end());
    request.payload.push_back(0);
    return request;
}

Daemon::Daemon(const std::filesystem::path& folder, std::vector<std::string> arguments, int handed,
               std::map<std::string, std::string> environment, const std::vector<std::string>& runner)
    : m_errors(folder / "kestd.errors"), m_manager(folder / ("notify" + std::to_string(++m_count))),
      m_notify(boundSocket(m_manager, SOCK_DGRAM))
{
    // it may run as another user
    std::filesystem::permissions(m_manager, std::filesystem::perms(0777));
    std::vector<std::string> words = runner;
    const std::vector<std::string> command = commandOf("kestd");
    words.insert(words.end(), command.begin(), command.end());
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    environment.emplace("NOTIFY_SOCKET", m_manager);
    // the child fills in its process number
    std::array<char, 32> listener{};
    if (handed >= 0) {
        environment.emplace("LISTEN_FDS", "1");
    }
    const Environment variables(std::move(environment), handed >= 0 ? listener.data() : nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        dup2(open(m_errors.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
        if (handed >= 0) {
            if (handed == 3) {
                fcntl(3, F_SETFD, 0);
            } else {
                dup2(handed, 3);
            }
            std::snprintf(listener.data(), listener.size(), "LISTEN_PID=%d", getpid());
        }
        execvpe(pointers[0], pointers.data(), variables.pointers());
        _exit(127);
    }
}

Daemon::~Daemon()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_notify);
}

void Daemon::signal(int number) const { kill(m_pid, number); }

bool Daemon::isReady()
{
    const bool ready = says("READY=1");
#ifdef KEST_THREAD_SANITIZER
    // clang 14's runtime can lose a signal that comes while the main thread sets out to wait for the first time
    while (ready && mainThreadState() == 'R') {
        std::this_thread::yield();
    }
#endif
    return ready;
}

std::vector<std::string> Daemon::saidUntil(const std::string& text)
{
    const auto until = std::chrono::steady_clock::now() + patience;
    std::vector<std::string> said;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count();
        pollfd wait{m_notify, POLLIN, 0};
        char buffer[512];
        if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) <= 0) {
            return {};
        }
        const ssize_t got = recv(m_notify, buffer, sizeof buffer, 0);
        if (got > 0) {
            said.emplace_back(buffer, static_cast<std::size_t>(got));
            if (said.back().find(text) != std::string::npos) {
                return said;
            }
        }
    }
}

int Daemon::end()
{
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
}

rlim_t Daemon::limit(__rlimit_resource what, rlim_t soft) const
{
    rlimit before{};
    EXPECT_EQ(0, prlimit(m_pid, what, nullptr, &before));
    const rlimit after{soft, before.rlim_max};
    EXPECT_EQ(0, prlimit(m_pid, what, &after, nullptr));
    return before.rlim_cur;
}

std::size_t Daemon::descriptors() const
{
    const auto folder = std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/fd");
    return static_cast<std::size_t>(std::distance(folder, std::filesystem::directory_iterator()));
}

long Daemon::statusKib(const std::string& name) const
{
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
    long kib = -1;
    for (std::string word; status >> word;) {
        if (word == name + ":") {
            status >> kib;
        }
    }
    return kib;
}

KestdTest::KestdTest()
{
    // other users connect, too
    std::filesystem::permissions(folder(), std::filesystem::perms(0755));
    std::filesystem::create_directories(folder() / "state/qorn/P3_Root");
    for (std::size_t at = 0; at < 65536; ++at) {
        contents.push_back(static_cast<std::uint8_t>(at * 7 + at / 256));
    }
    writeFile(copyFile(), std::string(contents.begin(), contents.end()));
    configure("");
}

std::vector<std::string> KestdTest::configured(const std::vector<std::string>& more) const
{
    std::vector<std::string> arguments{"--config", (folder() / "kest.toml").string()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

Daemon& KestdTest::start(int handed, std::map<std::string, std::string> environment)
{
    m_daemon.emplace(folder(), configured(), handed, std::move(environment));
    EXPECT_TRUE(m_daemon->isReady()) << m_daemon->errors();
    return *m_daemon;
}

} // namespace kest::test
