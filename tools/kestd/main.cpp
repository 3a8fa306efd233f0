/// kestd: serves SEEPROM requests of other processes over a Unix-domain socket.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fmt/core.h>
#include <malloc.h>
#include <optional>
#include <string>

#include "kest/version.h"
#include "platform/host/configuration/configuration.h"
#include "tools/common/commandline.h"
#include "tools/common/failure.h"
#include "tools/common/startup.h"
#include "tools/kestd/service.h"
#include "tools/kestd/systemd.h"

namespace
{

KEST_STARTS_FIRST;

using kest::tools::exitFailed;
using kest::tools::exitWrongUse;

constexpr const char* footer = R"(Clients are permitted by user and group (service.* in the configuration); root and
the user that kestd runs as may read and write. They may name the devices of the
device table; service.raw_users and raw_groups may name any device.

SIGTERM  answer every request that has come whole, and exit
SIGHUP   read the configuration again; --reload N checks it first, sends the
         signal to process N, and reports both to a service manager

kestd reports on standard output when it serves. It takes the socket that a
service manager hands over, and reports to it when it is ready.
Exit codes: 0 ended by a signal, 1 failed, 2 wrong use.)";

struct options {
    std::string config;
    std::string socket;
    std::int32_t reloaded = 0; ///< process that is to read its configuration again; 0 none
};

int fail(int exit, const std::string& error)
{
    fmt::print(stderr, "kestd: {}\n", error);
    return exit;
}

/// Has another kestd read its configuration again, unless that is wrong. The service manager hears of the reload before
/// this process ends, and then waits until the other one is ready.
int reload(std::int32_t process)
{
    kest::service::notifyReloading();
    if (kill(process, SIGHUP) != 0) {
        const int error = errno;
        kest::service::notify("READY=1");
        return fail(exitFailed, fmt::format("process {}: {}", process, std::strerror(error)));
    }
    return 0;
}

int serve(const options& wanted, const kest::host::configuration& current)
{
    const auto handed = kest::service::takeHandedSocket();
    if (handed.error != nullptr) {
        return fail(exitFailed, handed.error);
    }
    const std::string path = wanted.socket.empty() ? current.service.socket.string() : wanted.socket;
    kest::service::messageService service;
    std::string error = service.listen(handed.descriptor, path);
    if (error.empty()) {
        fmt::print("kestd: serving at {}\n", handed.descriptor >= 0 ? "the socket handed over" : path);
        // the process that started it may wait for the line
        std::fflush(stdout);
        error = service.run();
    }
    return error.empty() ? 0 : fail(exitFailed, error);
}

int work(const options& wanted)
{
    if (!wanted.config.empty()) {
        kest::host::useConfigurationFile(wanted.config);
    }
    const auto& current = kest::host::currentConfiguration();
    if (!kest::host::configurationError().empty()) {
        return fail(exitWrongUse, kest::host::configurationError());
    }
    return wanted.reloaded != 0 ? reload(wanted.reloaded) : serve(wanted, current);
}

} // namespace

int main(int argc, char** argv)
{
    // a heap for each thread would never give back what its busiest moment took
    mallopt(M_ARENA_MAX, 2);
    options wanted;
    kest::tools::commandLine line("Serves requests to read and write SEEPROMs over a Unix-domain socket.");
    kest::tools::command program = line.root();
    program.footer(footer);
    program.versionFlag(std::string("kestd ") + kest_version());
    program.text("--config", wanted.config, "configuration to use instead of $KEST_CONFIG or /etc/kest/kest.toml",
                 "FILE");
    program.text("--socket", wanted.socket, "listen here instead of at the configured path", "PATH");
    program.number("--reload", wanted.reloaded, "have the kestd with this process id read its configuration again", 2);
    try {
        const std::optional<int> end = line.parseOrExit(argc, argv, exitWrongUse);
        return end ? *end : work(wanted);
    } catch (const kest::tools::failure& why) {
        return fail(exitWrongUse, why.what);
    } catch (const std::exception& error) {
        return fail(exitFailed, error.what());
    }
}
