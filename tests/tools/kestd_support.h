/// What the message service's tests share: a service in file mode with a state folder of its own, and raw connections
/// to it.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/places.h"
#include "tests/sanitizers.h"
#include "tests/tools/program.h"
#include "tools/client/client.h"

namespace kest::test
{

// the limit for what must happen; far more than it takes
constexpr auto patience = 30s;

/// There is no such device: file mode reads the copy and opens none.
constexpr const char* someLocation = "sim:planar,L,2C0256,A0";

/// A Unix socket at `path`: a listening one, or one for datagrams.
int boundSocket(const std::filesystem::path& path, int type);

/// A connection that sends exactly what a test wants, valid or not.
class RawClient
{
public:
    explicit RawClient(const std::filesystem::path& path);
    explicit RawClient(int descriptor) : m_descriptor(descriptor), m_connected(true) {}
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    ~RawClient() { hangUp(); }

    [[nodiscard]] bool connected() const { return m_connected; }
    /// Ends sending; receiving continues.
    void finishSending() const;
    void hangUp();

    /// @return whether all of it could be sent
    bool send(const std::vector<std::uint8_t>& bytes, int flags = 0) const;
    bool send(const client::frame& request) const { return send(client::encodeFrame(request)); }

    /// The next frame; nothing when the service hung up, or after `patience`.
    std::optional<client::frame> receive();

    /// Whether the service hangs up without another byte.
    bool isHungUp();

private:
    int m_descriptor = -1;
    bool m_connected = false;
    client::frameAssembler m_assembler{1 << 20};
    std::vector<std::uint8_t> m_input;
    std::size_t m_at = 0;
};

/// A service that does `behaviour` with its first client.
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
    ~FakeService();
    [[nodiscard]] std::filesystem::path path() const { return m_folder.path() / "fake"; }

private:
    TemporaryFolder m_folder;
    int m_listening;
    std::thread m_thread;
};

/// Appends a word in host byte order.
void putWord(std::vector<std::uint8_t>& payload, std::uint32_t word);

client::frame seepromRequest(std::uint16_t type, std::uint32_t offset, std::uint32_t length,
                             std::uint16_t identifier = 1, const std::string& location = someLocation);

/// kestd as a child, with what a service manager would give it.
class Daemon
{
public:
    /// @param handed  a listening socket to hand over, or -1
    /// @param runner  a command that runs it
    Daemon(const std::filesystem::path& folder, std::vector<std::string> arguments, int handed = -1,
           std::map<std::string, std::string> environment = {}, const std::vector<std::string>& runner = {});
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon();

    [[nodiscard]] pid_t pid() const { return m_pid; }
    void signal(int number) const;

    /// Waits until the service is ready for requests and signals.
    bool isReady();

    /// Waits until the service has sent `text` to its manager.
    bool says(const std::string& text) { return !saidUntil(text).empty(); }

    /// @return what the service has sent to its manager, up to the message with `text`; nothing when that does not come
    std::vector<std::string> saidUntil(const std::string& text);

    /// Where its manager listens.
    [[nodiscard]] const std::filesystem::path& manager() const { return m_manager; }

    /// Has the service read its configuration again. @return whether it reports that it has
    bool reload()
    {
        signal(SIGHUP);
        return says("RELOADING=1") && says("READY=1");
    }

    /// Waits for its end. @return exit code, or 256 and the signal
    int end();
    int stop()
    {
        signal(SIGTERM);
        return end();
    }

    [[nodiscard]] std::string errors() const { return readFile(m_errors); }

    /// Changes one of its limits. @return the former soft limit
    rlim_t limit(__rlimit_resource what, rlim_t soft) const;

    /// The number of its open descriptors.
    [[nodiscard]] std::size_t descriptors() const;

    /// A number of its /proc status, in KiB.
    [[nodiscard]] long statusKib(const std::string& name) const;

private:
    /// @return the kernel's letter: 'R' means running or ready to run
    [[nodiscard]] char mainThreadState() const
    {
        // "PID (NAME) STATE ..."
        const std::string status = readFile("/proc/" + std::to_string(m_pid) + "/stat");
        const std::size_t name = status.rfind(") ");
        return name == std::string::npos || name + 2 >= status.size() ? '?' : status[name + 2];
    }

    static inline int m_count = 0;
    std::filesystem::path m_errors;
    std::filesystem::path m_manager;
    int m_notify = -1;
    pid_t m_pid = -1;
};

/// A test with a service in file mode, whose copy holds 64 KiB.
class KestdTest : public ::testing::Test
{
protected:
    KestdTest();

    [[nodiscard]] std::filesystem::path folder() const { return m_folder.path(); }
    [[nodiscard]] std::filesystem::path socketPath() const { return folder() / "kestd.socket"; }
    /// Arguments that have a program use the folder's kest.toml, with `more` behind them.
    [[nodiscard]] std::vector<std::string> configured(const std::vector<std::string>& more = {}) const;
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
    Daemon& start(int handed = -1, std::map<std::string, std::string> environment = {});
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
