/// What the message service's tests share: a service in file mode with a state folder of its own, and raw connections
/// to it.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <optional>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/places.h"
#include "tests/sanitizers.h"
#include "tests/tools/program.h"
#include "tools/client/client.h"

namespace kest::test
{

// for what has to happen; far more than it takes
constexpr auto patience = 30s;

/// Fits nothing that exists: file mode reads the copy and opens no device.
constexpr const char* someLocation = "sim:planar,L,2C0256,A0";

/// A Unix socket at `path`, listening or of datagrams.
inline int boundSocket(const std::filesystem::path& path, int type)
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

/// A connection without any manners of its own.
class RawClient
{
public:
    explicit RawClient(const std::filesystem::path& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        m_descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        m_connected = connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    explicit RawClient(int descriptor) : m_descriptor(descriptor), m_connected(true) {}
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    ~RawClient() { hangUp(); }

    [[nodiscard]] bool connected() const { return m_connected; }
    /// Sends no more, and goes on receiving.
    void finishSending() const { shutdown(m_descriptor, SHUT_WR); }
    void hangUp()
    {
        if (m_descriptor >= 0) {
            close(m_descriptor);
        }
        m_descriptor = -1;
    }

    /// @return whether all of it was taken
    bool send(const std::vector<std::uint8_t>& bytes, int flags = 0) const
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
    bool send(const client::frame& request) const { return send(client::encodeFrame(request)); }

    /// The next frame; nothing when the service hung up, or time is up.
    std::optional<client::frame> receive()
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

    /// Whether the service hangs up without another byte.
    bool isHungUp()
    {
        const std::optional<client::frame> more = receive();
        EXPECT_FALSE(more.has_value());
        pollfd wait{m_descriptor, POLLIN, 0};
        return !more && poll(&wait, 1, 0) > 0;
    }

private:
    int m_descriptor = -1;
    bool m_connected = false;
    client::frameAssembler m_assembler{1 << 20};
    std::vector<std::uint8_t> m_input;
    std::size_t m_at = 0;
};

/// A service that does as told with its first client.
class FakeService
{
public:
    explicit FakeService(std::function<void(RawClient&)> behaviour)
        : m_listening(boundSocket(path(), SOCK_STREAM)), m_thread([this, behaviour = std::move(behaviour)] {
              RawClient client(accept(m_listening, nullptr, nullptr));
              behaviour(client);
          })
    {
    }
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;
    ~FakeService()
    {
        m_thread.join();
        close(m_listening);
    }
    [[nodiscard]] std::filesystem::path path() const { return m_folder.path() / "fake"; }

private:
    TemporaryFolder m_folder;
    int m_listening;
    std::thread m_thread;
};

/// Words of a payload: host byte order.
inline void putWord(std::vector<std::uint8_t>& payload, std::uint32_t word)
{
    payload.resize(payload.size() + sizeof word);
    std::memcpy(payload.data() + payload.size() - sizeof word, &word, sizeof word);
}

inline client::frame seepromRequest(std::uint16_t type, std::uint32_t offset, std::uint32_t length,
                                    std::uint16_t identifier = 1, const std::string& location = someLocation)
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

/// kestd as a child, with what a service manager would give it.
class Daemon
{
public:
    /// @param handed  a listening socket to hand over, or -1
    /// @param runner  a command that runs it
    Daemon(const std::filesystem::path& folder, std::vector<std::string> arguments, int handed = -1,
           std::map<std::string, std::string> environment = {}, const std::vector<std::string>& runner = {})
        : m_errors(folder / "kestd.errors")
    {
        const auto notifyPath = folder / ("notify" + std::to_string(++m_count));
        m_notify = boundSocket(notifyPath, SOCK_DGRAM);
        // it may run as another user
        std::filesystem::permissions(notifyPath, std::filesystem::perms(0777));
        std::vector<std::string> words = runner;
        std::istringstream emulator(kest::tests::emulator);
        for (std::string word; std::getline(emulator, word, ';');) {
            words.push_back(word);
        }
        words.push_back(std::string(kest::tests::programFolder) + "/kestd");
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        environment.emplace("NOTIFY_SOCKET", notifyPath);
        // the child knows its number
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
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_notify);
    }

    [[nodiscard]] pid_t pid() const { return m_pid; }
    void signal(int number) const { kill(m_pid, number); }

    /// Waits until the service is ready for requests and signals.
    bool isReady()
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

    /// Waits until the service has told the manager `text`.
    bool says(const std::string& text)
    {
        const auto until = std::chrono::steady_clock::now() + patience;
        for (;;) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count();
            pollfd wait{m_notify, POLLIN, 0};
            char buffer[512];
            if (left <= 0 || poll(&wait, 1, static_cast<int>(left)) <= 0) {
                return false;
            }
            const ssize_t got = recv(m_notify, buffer, sizeof buffer, 0);
            if (got > 0 && std::string(buffer, static_cast<std::size_t>(got)).find(text) != std::string::npos) {
                return true;
            }
        }
    }

    /// Has it read its configuration again. @return whether it says that it has
    bool reload()
    {
        signal(SIGHUP);
        return says("RELOADING=1") && says("READY=1");
    }

    /// Waits for its end. @return exit code, or 256 and the signal
    int end()
    {
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    int stop()
    {
        signal(SIGTERM);
        return end();
    }

    [[nodiscard]] std::string errors() const { return readFile(m_errors); }

    /// Changes one of its limits. @return what the soft limit was
    rlim_t limit(__rlimit_resource what, rlim_t soft) const
    {
        rlimit before{};
        EXPECT_EQ(0, prlimit(m_pid, what, nullptr, &before));
        const rlimit after{soft, before.rlim_max};
        EXPECT_EQ(0, prlimit(m_pid, what, &after, nullptr));
        return before.rlim_cur;
    }

    /// As many as it has open.
    [[nodiscard]] std::size_t descriptors() const
    {
        const auto folder = std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/fd");
        return static_cast<std::size_t>(std::distance(folder, std::filesystem::directory_iterator()));
    }

    /// A number of its /proc status, in KiB.
    [[nodiscard]] long statusKib(const std::string& name) const
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

private:
    /// @return the kernel's letter: 'R' runs or wants to
    [[nodiscard]] char mainThreadState() const
    {
        // "PID (NAME) STATE ..."
        const std::string status = readFile("/proc/" + std::to_string(m_pid) + "/stat");
        const std::size_t name = status.rfind(") ");
        return name == std::string::npos || name + 2 >= status.size() ? '?' : status[name + 2];
    }

    static inline int m_count = 0;
    std::filesystem::path m_errors;
    int m_notify = -1;
    pid_t m_pid = -1;
};

/// A test with a service in file mode, whose copy holds 64 KiB.
class KestdTest : public ::testing::Test
{
protected:
    KestdTest()
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

    [[nodiscard]] std::filesystem::path folder() const { return m_folder.path(); }
    [[nodiscard]] std::filesystem::path socketPath() const { return folder() / "kestd.socket"; }
    [[nodiscard]] std::filesystem::path copyFile() const { return folder() / "state/qorn/P3_Root/0"; }

    /// The device table has `someLocation` with number 0.
    /// @param service  lines of the section [service]
    void configure(const std::string& service, const std::string& mode = "FileMode", const std::string& more = "") const
    {
        writeFile(folder() / "kest.toml",
                  "state = \"state\"\n[registry]\n\"tavo/ReadMode\" = \"" + mode +
                      "\"\n[errorlog]\nspool = \"spool\"\n[[device]]\nnumber = 0\nlocation = \"" + someLocation +
                      "\"\n[service]\nsocket = \"kestd.socket\"\n" + service + "\n" + more);
    }

    /// Starts the service and waits until it is ready.
    Daemon& start(int handed = -1, std::map<std::string, std::string> environment = {})
    {
        m_daemon.emplace(folder(), std::vector<std::string>{"--config", (folder() / "kest.toml").string()}, handed,
                         std::move(environment));
        EXPECT_TRUE(m_daemon->isReady()) << m_daemon->errors();
        return *m_daemon;
    }
    Daemon& daemon() { return *m_daemon; }

    [[nodiscard]] client::serviceConnection connect(std::chrono::milliseconds timeout = patience) const
    {
        return client::serviceConnection(socketPath(), timeout);
    }

    [[nodiscard]] std::vector<std::uint8_t> part(std::size_t offset, std::size_t length) const
    {
        return {contents.begin() + static_cast<std::ptrdiff_t>(offset),
                contents.begin() + static_cast<std::ptrdiff_t>(offset + length)};
    }

    std::vector<std::uint8_t> contents;

private:
    TemporaryFolder m_folder;
    std::optional<Daemon> m_daemon;
};

} // namespace kest::test
