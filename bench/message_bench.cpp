/// What the message service costs: reads of 256 bytes in file mode, against an echo server that uses the same frames.
/// Prints one JSON object.
#include <algorithm>
#include <array>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/write.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <memory>
#include <span>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tools/client/client.h"

namespace
{

using namespace kest::client;
using stopwatch = std::chrono::steady_clock;

constexpr std::uint32_t readBytes = 256;
// short rounds, of which the best counts for a ratio: the machine may have other work
constexpr int rounds = 60;
constexpr int perRound = 1600;
// never opened: file mode reads the copy
constexpr const char* location = "sim:planar,L,2C0256,A0";

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "message_bench: %s\n", what.c_str());
    std::exit(1);
}

// --------------------------------------------------------------------------------------------------------- echo server

/// One client of the echo server.
class echo : public std::enable_shared_from_this<echo>
{
public:
    using protocol = asio::local::stream_protocol;

    explicit echo(protocol::socket socket) : m_socket(std::move(socket)) {}

    void read()
    {
        m_socket.async_read_some(asio::buffer(m_input),
                                 [self = shared_from_this()](const asio::error_code& error, std::size_t got) {
                                     if (!error) {
                                         self->answer({self->m_input.data(), got});
                                     }
                                 });
    }

private:
    void answer(std::span<const std::uint8_t> bytes)
    {
        m_output.clear();
        while (!bytes.empty()) {
            bytes = bytes.subspan(m_assembler.feed(bytes));
            if (m_assembler.state() == frameAssembler::stage::complete) {
                frame reply = m_assembler.take();
                reply.flags = flagServed | flagData;
                const auto encoded = encodeFrame(reply);
                m_output.insert(m_output.end(), encoded.begin(), encoded.end());
            }
        }
        asio::async_write(m_socket, asio::buffer(m_output),
                          [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                              if (!error) {
                                  self->read();
                              }
                          });
    }

    protocol::socket m_socket;
    frameAssembler m_assembler{maximumDataBytes};
    std::array<std::uint8_t, 16384> m_input{};
    std::vector<std::uint8_t> m_output;
};

void acceptEcho(echo::protocol::acceptor& acceptor)
{
    acceptor.async_accept([&acceptor](const asio::error_code& error, echo::protocol::socket socket) {
        if (!error) {
            std::make_shared<echo>(std::move(socket))->read();
        }
        acceptEcho(acceptor);
    });
}

/// Serves any number of clients, as the service does, on the same kind of event loop, and does nothing else.
void runEcho(const std::string& path)
{
    asio::io_context context(1);
    echo::protocol::acceptor acceptor(context, echo::protocol::endpoint(path));
    acceptEcho(acceptor);
    context.run();
}

// ------------------------------------------------------------------------------------------------------------- servers

class process
{
public:
    template <typename Body>
    explicit process(const Body& body)
    {
        m_pid = fork();
        if (m_pid == 0) {
            body();
            _exit(127);
        }
    }
    process(const process&) = delete;
    process& operator=(const process&) = delete;
    ~process()
    {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    [[nodiscard]] double residentMib() const
    {
        std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
        double kib = 0;
        for (std::string word; status >> word;) {
            if (word == "VmRSS:") {
                status >> kib;
            }
        }
        return kib / 1024;
    }

private:
    pid_t m_pid;
};

void awaitServer(const std::string& socket)
{
    const auto until = stopwatch::now() + std::chrono::seconds(20);
    while (!serviceConnection(socket).connected()) {
        if (stopwatch::now() > until) {
            fail("no server at " + socket);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

/// Makes the state folder of a service in file mode, where copy 0, which serves messages, holds 32 KiB.
std::filesystem::path makeState()
{
    std::string folder = (std::filesystem::temp_directory_path() / "kest-bench-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) {
        fail("no temporary folder");
    }
    const std::filesystem::path path = folder;
    std::filesystem::create_directories(path / "qorn/P3_Root");
    std::ofstream(path / "qorn/P3_Root/0") << std::string(32768, 'k');
    std::ofstream(path / "kest.toml") << "state = \".\"\n[registry]\n\"tavo/ReadMode\" = "
                                         "\"FileMode\"\n[service]\nsocket = \"kestd.socket\"\n[[device]]\n"
                                         "number = 0\nlocation = \""
                                      << location << "\"\n";
    return path;
}

// ------------------------------------------------------------------------------------------------------------- clients

void readOnce(serviceConnection& connection)
{
    const answer got = connection.readSeeprom(location, 512, readBytes);
    if (!got || got.data.size() != readBytes) {
        fail("read: " + got.message);
    }
}

void echoOnce(serviceConnection& connection)
{
    const answer got = connection.request(typeRead, std::vector<std::uint8_t>(readBytes, 'k'));
    if (!got || got.data.size() != readBytes) {
        fail("echo: " + got.message);
    }
}

struct load {
    double perSecond = 0; ///< from when the first client begins until the last has ended
    std::vector<double> tripsUs;
};

struct clientRun {
    stopwatch::time_point begin, end;
    std::vector<double> tripsUs;
};

template <typename Request>
load measure(const std::string& socket, int clients, const Request& request)
{
    std::vector<clientRun> runs(static_cast<std::size_t>(clients));
    std::latch ready(clients);
    std::vector<std::jthread> threads;
    for (clientRun& mine : runs) {
        threads.emplace_back([&ready, &mine, &request, &socket, clients] {
            serviceConnection connection(socket);
            mine.tripsUs.reserve(static_cast<std::size_t>(perRound / clients));
            request(connection);
            ready.arrive_and_wait();
            mine.begin = mine.end = stopwatch::now();
            for (int number = 0; number < perRound / clients; ++number) {
                request(connection);
                const auto now = stopwatch::now();
                mine.tripsUs.push_back(std::chrono::duration<double, std::micro>(now - mine.end).count());
                mine.end = now;
            }
        });
    }
    // joins the threads
    threads.clear();
    load result;
    const auto begin = std::ranges::min(runs, {}, &clientRun::begin).begin;
    const auto end = std::ranges::max(runs, {}, &clientRun::end).end;
    for (const clientRun& run : runs) {
        result.tripsUs.insert(result.tripsUs.end(), run.tripsUs.begin(), run.tripsUs.end());
    }
    result.perSecond = static_cast<double>(result.tripsUs.size()) / std::chrono::duration<double>(end - begin).count();
    return result;
}

double percentile(std::vector<double> values, std::size_t percent)
{
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(values.size() * percent / 100);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

} // namespace

int main()
{
    const std::filesystem::path folder = makeState();
    const std::string echoSocket = folder / "echo.socket", socket = folder / "kestd.socket";
    double ratio[2] = {}, best[2][2] = {}, residentMib = 0;
    // 99th percentile of each round with one client
    std::vector<double> p99Us;
    constexpr int clients[2] = {1, 16};
    {
        const process echoServer([&] { runEcho(echoSocket); });
        const process service([&] {
            const std::string config = folder / "kest.toml";
            // standard output is for the figures
            dup2(STDERR_FILENO, STDOUT_FILENO);
            execl(KEST_BIN_DIR "/kestd", "kestd", "--config", config.c_str(), nullptr);
        });
        awaitServer(echoSocket);
        awaitServer(socket);
        for (int round = 0; round < rounds; ++round) {
            for (const int index : {0, 1}) {
                const load floor = measure(echoSocket, clients[index], echoOnce);
                const load real = measure(socket, clients[index], readOnce);
                best[index][0] = std::max(best[index][0], floor.perSecond);
                best[index][1] = std::max(best[index][1], real.perSecond);
                if (clients[index] == 1) {
                    p99Us.push_back(percentile(real.tripsUs, 99));
                }
            }
        }
        // the service is idle again, after the load
        residentMib = service.residentMib();
    }
    for (const int index : {0, 1}) {
        ratio[index] = best[index][1] / best[index][0];
    }
    std::filesystem::remove_all(folder);
    std::printf("{\"message.ratio_1\": %.2f, \"message.ratio_16\": %.2f, \"message.p99_us\": %.1f, "
                "\"kestd.idle_rss_mib\": %.2f}\n",
                ratio[0], ratio[1], percentile(p99Us, 50), residentMib);
    std::fprintf(stderr, "messages/s: echo %.0f %.0f, kestd %.0f %.0f\n", best[0][0], best[1][0], best[0][1],
                 best[1][1]);
    return 0;
}
