/// What the message service costs: reads of 256 bytes in file mode, against an echo server that uses the same frames and
/// reads the same copy, and against D-Bus. Prints one JSON object. With an argument it measures the curve instead.
#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <latch>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "bench/echo.h"
#include "bench/scratchfolder.h"
#include "bench/servers.h"
#include "tools/client/client.h"
#ifdef KEST_HAVE_SYSTEMD
#include "bench/dbusreads.h"
#endif

namespace
{

using namespace kest::bench;
using kest::client::serviceConnection;
using stopwatch = std::chrono::steady_clock;

constexpr std::uint32_t readOffset = 512;
constexpr std::uint32_t readBytes = 256;
/// Short rounds, in turns: the machine may have other work.
constexpr int rounds = 25;
constexpr int fewRequests = 1600;
constexpr int manyClients = 256;
constexpr int idleClients = 256;

void readOnce(serviceConnection& connection)
{
    const kest::client::answer got = connection.readSeeprom(location, readOffset, readBytes);
    if (!got || got.data.size() != readBytes) {
        fail("read: " + got.message);
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
load measure(const std::string& socket, int clients, int requests, const Request& request)
{
    std::vector<clientRun> runs(static_cast<std::size_t>(clients));
    std::latch ready(clients);
    std::vector<std::jthread> threads;
    for (clientRun& mine : runs) {
        threads.emplace_back([&ready, &mine, &request, &socket, clients, requests] {
            serviceConnection connection(socket);
            mine.tripsUs.reserve(static_cast<std::size_t>(requests / clients));
            request(connection);
            ready.arrive_and_wait();
            mine.begin = mine.end = stopwatch::now();
            for (int number = 0; number < requests / clients; ++number) {
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

/// Each client makes some requests at least.
int requestsOf(int clients) { return std::max(fewRequests, 16 * clients); }

/// What rounds came to. The best of each side counts: other work of the machine only ever slows one.
struct bestRounds {
    double perSecond = 0;
    double p99Us = std::numeric_limits<double>::max();

    void take(const load& round)
    {
        perSecond = std::max(perSecond, round.perSecond);
        p99Us = std::min(p99Us, percentile(round.tripsUs, 99));
    }
};

struct comparison {
    bestRounds service;
    bestRounds echo;
    [[nodiscard]] double ratio() const { return service.perSecond / echo.perSecond; }
};

/// Service and echo in turns.
comparison compare(const std::string& service, const std::string& echo, int clients)
{
    comparison found;
    for (int round = 0; round < rounds; ++round) {
        found.echo.take(measure(echo, clients, requestsOf(clients), readOnce));
        found.service.take(measure(service, clients, requestsOf(clients), readOnce));
    }
    return found;
}

#ifdef KEST_HAVE_SYSTEMD
/// @return reads a second through the service over those through D-Bus, each with one client
double compareWithDbus(const std::string& service, dbusReads& dbus)
{
    double best = 0;
    bestRounds ours;
    for (int round = 0; round < rounds; ++round) {
        const auto begin = stopwatch::now();
        for (int number = 0; number < fewRequests; ++number) {
            dbus.read(readOffset, readBytes);
        }
        best = std::max(best, fewRequests / std::chrono::duration<double>(stopwatch::now() - begin).count());
        ours.take(measure(service, 1, fewRequests, readOnce));
    }
    return ours.perSecond / best;
}
#endif

/// @return what each client takes that has connected, has had one reply and is idle
double residentPerClient(const process& service, const std::string& socket)
{
    const double before = service.residentKib();
    std::vector<serviceConnection> clients;
    for (int number = 0; number < idleClients; ++number) {
        readOnce(clients.emplace_back(socket));
    }
    return (service.residentKib() - before) / idleClients;
}

nlohmann::json figures(const std::filesystem::path& state, const std::string& echo)
{
    const std::string socket = serviceSocketOf(state);
    const auto service = startService(state);
    nlohmann::json told;
    readOnce(*std::make_unique<serviceConnection>(socket));
    told["kestd.rss_per_client_kib"] = residentPerClient(*service, socket);
    const comparison one = compare(socket, echo, 1);
    const comparison some = compare(socket, echo, 16);
    const comparison many = compare(socket, echo, manyClients);
    told["message.ratio_1"] = one.ratio();
    told["message.ratio_16"] = some.ratio();
    told["message.ratio_256"] = many.ratio();
    told["message.p99_ratio"] = some.service.p99Us / some.echo.p99Us;
    told["message.p99_us"] = one.service.p99Us;
    told["message.per_s_1"] = one.service.perSecond;
    told["message.per_s_16"] = some.service.perSecond;
#ifdef KEST_HAVE_SYSTEMD
    dbusReads direct(copyOf(state));
    told["message.dbus_direct_ratio"] = compareWithDbus(socket, direct);
    if (privateBus::isInstalled()) {
        const privateBus bus(state);
        dbusReads throughBus(copyOf(state), bus);
        told["message.dbus_ratio"] = compareWithDbus(socket, throughBus);
    }
#endif
    // after the load
    told["kestd.idle_rss_mib"] = service->residentKib() / 1024;
    return told;
}

nlohmann::json curve(const std::filesystem::path& state, const std::string& echo)
{
    const std::string socket = serviceSocketOf(state);
    const auto service = startService(state);
    nlohmann::json real = nlohmann::json::array();
    nlohmann::json floor = nlohmann::json::array();
    for (const int clients : {1, 4, 16, 64, 256}) {
        const comparison found = compare(socket, echo, clients);
        floor.push_back({clients, found.echo.perSecond});
        real.push_back({clients, found.service.perSecond});
    }
    return {{"curve.message.per_s", real}, {"curve.message.echo_per_s", floor}};
}

} // namespace

int main(int argc, char**)
{
    const scratchFolder scratch;
    const std::filesystem::path& state = scratch.path();
    makeState(state);
    const std::string echo = state / "echo.socket";
    nlohmann::json told;
    {
        const process echoServer([&] { runEcho(echo, copyOf(state)); });
        awaitServer(echo);
        told = argc > 1 ? curve(state, echo) : figures(state, echo);
    }
    std::printf("%s\n", told.dump().c_str());
    return 0;
}
