#include "bench/servers.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tools/client/client.h"

namespace kest::bench
{

void fail(const std::string& what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

process::process(const std::function<void()>& body) : m_pid(fork())
{
    if (m_pid == 0) {
        body();
        _exit(127);
    }
}

process::~process()
{
    kill(m_pid, SIGTERM);
    waitpid(m_pid, nullptr, 0);
}

double process::residentKib() const
{
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
    double kib = 0;
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            status >> kib;
        }
    }
    return kib;
}

void makeState(const std::filesystem::path& state)
{
    std::filesystem::create_directories(copyOf(state).parent_path());
    std::ofstream(copyOf(state)) << std::string(32768, 'k');
    std::ofstream(state / "kest.toml") << "state = \".\"\n[registry]\n\"tavo/ReadMode\" = \"FileMode\"\n[service]\n"
                                          "socket = \"kestd.socket\"\nmax_clients = 1024\nmax_clients_per_user = 1024\n"
                                          "[[device]]\nnumber = 0\nlocation = \""
                                       << location << "\"\n";
}

std::filesystem::path copyOf(const std::filesystem::path& state) { return state / "qorn/P3_Root/0"; }

std::filesystem::path serviceSocketOf(const std::filesystem::path& state) { return state / "kestd.socket"; }

std::unique_ptr<process> startService(const std::filesystem::path& state)
{
    auto started = std::make_unique<process>([&] {
        const std::string config = state / "kest.toml";
        // standard output is for the figures
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execl(KEST_BIN_DIR "/kestd", "kestd", "--config", config.c_str(), nullptr);
    });
    awaitServer(serviceSocketOf(state));
    return started;
}

void awaitServer(const std::filesystem::path& socket)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!client::serviceConnection(socket).connected()) {
        if (std::chrono::steady_clock::now() > until) {
            fail("no server at " + socket.string());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace kest::bench
