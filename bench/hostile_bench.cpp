/// How much hostile clients slow down honest ones. 20 honest clients and the service have one processor, the load has
/// another. The load is first a program that only computes, then 180 hostile clients of every kind that docs/testing.md
/// lists. Prints one JSON object.
///
/// hostile_bench [--each]: with --each it also measures 180 clients of each kind and prints that on standard error. The
/// environment variable KESTD names another kestd to measure.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "bench/scratchfolder.h"
#include "tools/client/client.h"

namespace
{

using namespace kest::client;
using namespace std::chrono_literals;
using stopwatch = std::chrono::steady_clock;

constexpr int honestClients = 20;
constexpr int hostileClients = 180;
// between an honest client's requests
constexpr auto honestPause = 10ms;
// until the load is steady
constexpr auto settling = 1s;
constexpr auto measuring = 4s;
constexpr std::uint32_t honestBytes = 256;
// numbers of processors
constexpr int servicePlace = 0;
constexpr int loadPlace = 1;
constexpr uid_t nobody = 65534;
// never opened: file mode reads the copy
constexpr const char* location = "sim:planar,L,2C0256,A0";

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "hostile_bench: %s\n", what.c_str());
    std::exit(1);
}

void pinTo(int processor)
{
    cpu_set_t places;
    CPU_ZERO(&places);
    CPU_SET(processor, &places);
    if (sched_setaffinity(0, sizeof places, &places) != 0) {
        fail("this machine does not have two processors");
    }
}

// ------------------------------------------------------------------------------------------------------------- hostile

/// A connection without manners. Its calls return whether they succeeded.
class rudeConnection
{
public:
    explicit rudeConnection(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        m_descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        m_open = connect(m_descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    rudeConnection(const rudeConnection&) = delete;
    rudeConnection& operator=(const rudeConnection&) = delete;
    ~rudeConnection() { close(m_descriptor); }

    bool send(const std::vector<std::uint8_t>& bytes, std::size_t count = SIZE_MAX, int flags = 0)
    {
        std::size_t at = 0;
        for (count = std::min(count, bytes.size()); m_open && at < count;) {
            const ssize_t sent = ::send(m_descriptor, bytes.data() + at, count - at, MSG_NOSIGNAL | flags);
            if (sent < 0 && errno == EAGAIN) {
                // the socket is full, but the connection stays
                return false;
            }
            m_open = sent > 0;
            at += sent > 0 ? static_cast<std::size_t>(sent) : 0;
        }
        return m_open;
    }
    /// Waits for bytes and drops them.
    bool take()
    {
        std::array<char, 65536> bytes{};
        m_open = m_open && recv(m_descriptor, bytes.data(), bytes.size(), 0) > 0;
        return m_open;
    }
    void finishSending() const { shutdown(m_descriptor, SHUT_WR); }
    /// Keeps the connection until the service ends it.
    void hold()
    {
        for (pollfd state{m_descriptor, 0, 0}; m_open && (state.revents & POLLHUP) == 0;) {
            poll(&state, 1, -1);
        }
    }

private:
    int m_descriptor = -1;
    bool m_open = false;
};

std::vector<std::uint8_t> transfer(std::uint16_t type, std::uint32_t length, const std::string& text = location)
{
    // host byte order
    const std::uint32_t words[] = {0, 0, length};
    std::vector<std::uint8_t> payload(sizeof words + text.size() + 1 + (type == typeWrite ? length : 0));
    std::memcpy(payload.data(), words, sizeof words);
    std::memcpy(payload.data() + sizeof words, text.data(), text.size());
    return encodeFrame({1, type, 0, 0, 0, std::move(payload)});
}

/// The same request many times.
std::vector<std::uint8_t> many(int count)
{
    std::vector<std::uint8_t> bytes;
    for (const auto one = transfer(typeRead, honestBytes); count > 0; --count) {
        bytes.insert(bytes.end(), one.begin(), one.end());
    }
    return bytes;
}

void askAndTake(rudeConnection& client, const std::vector<std::uint8_t>& request)
{
    while (client.send(request) && client.take()) {}
}

constexpr const char* kinds[] = {"idle",      "half a header",  "huge length",      "a byte short",   "never reads",
                                 "pipelines", "largest reads",  "hangs up",         "half-closes",    "connects only",
                                 "in crumbs", "other protocol", "failing requests", "no such device", "writes"};

/// The life of one connection of a kind.
void misbehave(std::size_t kind, const std::string& path)
{
    rudeConnection client(path);
    switch (kind) {
    case 0:
        client.hold();
        break;
    case 1:
        client.send(transfer(typeRead, honestBytes), 7);
        client.hold();
        break;
    case 2:
        client.send(
            std::vector<std::uint8_t>{0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 0x80, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        client.hold();
        break;
    case 3: {
        const auto bytes = transfer(typeWrite, 60000);
        client.send(bytes, bytes.size() - 1);
        client.hold();
        break;
    }
    case 4:
        while (client.send(transfer(typeRead, maximumDataBytes), SIZE_MAX, MSG_DONTWAIT)) {}
        client.hold();
        break;
    case 5:
        askAndTake(client, many(64));
        break;
    case 6:
        askAndTake(client, transfer(typeRead, maximumDataBytes));
        break;
    case 7:
        client.send(many(100));
        break;
    case 8:
        client.send(many(100));
        client.finishSending();
        while (client.take()) {}
        break;
    case 9:
        break;
    case 10:
        for (const auto request = transfer(typeRead, honestBytes); client.send(request);) {
            for (const std::uint8_t byte : request) {
                client.send({byte});
            }
            client.take();
        }
        break;
    case 11:
        client.send(std::vector<std::uint8_t>(100, 'x'));
        client.hold();
        break;
    case 12:
        askAndTake(client, encodeFrame({1, 0x8003, 0, 0, 0, {}}));
        break;
    case 13:
        askAndTake(client, transfer(typeRead, 1, "sim:planar,L,2C0256,C0"));
        break;
    default:
        askAndTake(client, transfer(typeWrite, 4096));
        break;
    }
}

/// @param kind  that of all clients; -1: a mixture of all kinds
[[noreturn]] void runHostile(const std::string& path, int kind, bool asNobody)
{
    pinTo(loadPlace);
    if (asNobody && (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0)) {
        std::_Exit(1);
    }
    std::vector<std::jthread> threads;
    for (std::size_t number = 0; number < hostileClients; ++number) {
        threads.emplace_back([number, kind, &path] {
            for (;;) {
                misbehave(kind >= 0 ? static_cast<std::size_t>(kind) : number % std::size(kinds), path);
            }
        });
    }
    for (;;) {
        pause();
    }
}

[[noreturn]] void burn()
{
    pinTo(loadPlace);
    for (std::atomic<unsigned> turns{0};;) {
        ++turns;
    }
}

// ----------------------------------------------------------------------------------------------------------- processes

class process
{
public:
    template <typename Body>
    explicit process(const Body& body)
    {
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            body();
            _exit(127);
        }
    }
    process(const process&) = delete;
    process& operator=(const process&) = delete;
    ~process()
    {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    /// @return a number from the process's /proc status
    [[nodiscard]] long status(const std::string& name) const
    {
        std::ifstream file("/proc/" + std::to_string(m_pid) + "/status");
        long number = 0;
        for (std::string word; file >> word;) {
            if (word == name + ":") {
                file >> number;
            }
        }
        return number;
    }
    [[nodiscard]] long descriptors() const
    {
        std::error_code gone;
        const auto folder = std::filesystem::directory_iterator("/proc/" + std::to_string(m_pid) + "/fd", gone);
        return gone ? 0 : std::distance(folder, std::filesystem::directory_iterator());
    }

private:
    pid_t m_pid;
};

void makeState(const std::filesystem::path& path, const std::string& service)
{
    // clients of another user connect, too
    std::filesystem::permissions(path, std::filesystem::perms(0755));
    std::filesystem::create_directories(path / "qorn/P3_Root");
    std::ofstream(path / "qorn/P3_Root/0") << std::string(maximumDataBytes, 'k');
    std::ofstream(path / "kest.toml") << "state = \".\"\n[registry]\n\"tavo/ReadMode\" = \"FileMode\"\n"
                                      << "[[device]]\nnumber = 0\nlocation = \"" << location << "\"\n"
                                      << "[service]\nsocket = \"kestd.socket\"\n"
                                      << service << "\n";
}

[[noreturn]] void runService(const std::filesystem::path& folder)
{
    const char* const given = std::getenv("KESTD");
    const std::string config = folder / "kest.toml", program = given != nullptr ? given : KEST_BIN_DIR "/kestd";
    pinTo(servicePlace);
    dup2(open((folder / "errors").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
    // standard output is for the figures
    dup2(STDERR_FILENO, STDOUT_FILENO);
    execl(program.c_str(), "kestd", "--config", config.c_str(), nullptr);
    _exit(127);
}

// ----------------------------------------------------------------------------------------------------------- measuring

struct figures {
    double p50Us = 0, p99Us = 0, worstUs = 0;
    long requests = 0, failures = 0;
    // the highest values of the service that were seen
    long threads = 0, descriptors = 0, residentKib = 0;
};

/// One honest client: it sends a request, notes how long the reply took, and pauses. It makes a lost connection anew,
/// and the request that met the loss counts as failed.
void beHonest(const std::string& socket, stopwatch::time_point begin, stopwatch::time_point end,
              std::vector<double>& tripsUs, std::atomic<long>& failures)
{
    serviceConnection connection(socket);
    while (stopwatch::now() < end) {
        const auto asked = stopwatch::now();
        const answer got = connection.readSeeprom(location, 512, honestBytes);
        const auto now = stopwatch::now();
        if (asked >= begin) {
            tripsUs.push_back(std::chrono::duration<double, std::micro>(now - asked).count());
            failures += got && got.data.size() == honestBytes ? 0 : 1;
        }
        if (!connection.connected()) {
            std::destroy_at(&connection);
            std::construct_at(&connection, socket);
        }
        std::this_thread::sleep_for(honestPause);
    }
}

figures measure(const std::filesystem::path& folder, const process& service)
{
    const auto begin = stopwatch::now() + settling, end = begin + measuring;
    std::vector<std::vector<double>> trips(honestClients);
    std::vector<std::jthread> threads;
    std::atomic<long> failures{0};
    figures result;
    for (std::vector<double>& mine : trips) {
        threads.emplace_back([&] { beHonest(folder / "kestd.socket", begin, end, mine, failures); });
    }
    while (stopwatch::now() < end) {
        result.threads = std::max(result.threads, service.status("Threads"));
        result.descriptors = std::max(result.descriptors, service.descriptors());
        result.residentKib = std::max(result.residentKib, service.status("VmRSS"));
        std::this_thread::sleep_for(100ms);
    }
    // joins the threads
    threads.clear();
    std::vector<double> all;
    for (const std::vector<double>& mine : trips) {
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::ranges::sort(all);
    result.requests = static_cast<long>(all.size());
    result.failures = failures;
    if (!all.empty()) {
        result.p50Us = all[all.size() / 2];
        result.p99Us = all[all.size() * 99 / 100];
        result.worstUs = all.back();
    }
    return result;
}

/// @param kind  that of the hostile clients; -1: all kinds; -2: a program that only computes, instead of them
figures scenario(const std::string& name, const std::string& limits, int kind, bool asNobody)
{
    const kest::bench::scratchFolder scratch;
    const std::filesystem::path& folder = scratch.path();
    makeState(folder, limits);
    figures result;
    {
        const process service([&] { runService(folder); });
        const auto until = stopwatch::now() + 20s;
        while (!serviceConnection(folder / "kestd.socket").connected()) {
            if (stopwatch::now() > until) {
                fail("no service at " + folder.string());
            }
            std::this_thread::sleep_for(5ms);
        }
        const process load([&] { kind == -2 ? burn() : runHostile(folder / "kestd.socket", kind, asNobody); });
        result = measure(folder, service);
    }
    std::fprintf(stderr,
                 "%-28s p50 %8.0f us, p99 %8.0f us, worst %8.0f us; %ld requests, %ld failed; %ld threads, %ld "
                 "descriptors, %ld KiB\n",
                 name.c_str(), result.p50Us, result.p99Us, result.worstUs, result.requests, result.failures,
                 result.threads, result.descriptors, result.residentKib);
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    // fails at once where there is no second processor
    pinTo(loadPlace);
    pinTo(servicePlace);
    // so that all 180 clients of one user get a place
    const std::string roomForAll = "max_clients_per_user = 256";
    const std::string reader = "read_users = [65534]";
    const bool root = geteuid() == 0;
    const figures calm = scenario("a processor burner", roomForAll, -2, false);
    const figures same = scenario("180 hostile, same user", roomForAll, -1, false);
    const figures other = root ? scenario("180 hostile, another reader", roomForAll + "\n" + reader, -1, true) : same;
    const figures shares = root ? scenario("the same, default shares", reader, -1, true) : same;
    if (argc > 1 && std::strcmp(argv[1], "--each") == 0) {
        for (std::size_t kind = 0; kind < std::size(kinds); ++kind) {
            static_cast<void>(scenario(kinds[kind], roomForAll, static_cast<int>(kind), false));
        }
    }
    std::printf(
        "{\"hostile.calm_p99_us\": %.0f, \"hostile.same_user_p99_us\": %.0f, \"hostile.other_user_p99_us\": %.0f, "
        "\"hostile.default_shares_p99_us\": %.0f, \"hostile.threads\": %ld, \"hostile.descriptors\": %ld}\n",
        calm.p99Us, same.p99Us, other.p99Us, shares.p99Us, std::max(same.threads, other.threads),
        std::max(same.descriptors, other.descriptors));
    return 0;
}
