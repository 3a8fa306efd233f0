#include "platform/host/configuration/settings.h"

#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

namespace kest::host
{

namespace
{

constexpr const char* systemState = "/var/lib/kest";
constexpr const char* systemSocket = "/run/kest/kestd.socket";

/// Where state lives when nothing is configured: the system's folder for root and for every user who may write to it,
/// else the user's own.
std::filesystem::path defaultStateFolder()
{
    const char* state = environment("XDG_STATE_HOME");
    const char* home = environment("HOME");
    if (geteuid() == 0 || access(systemState, W_OK) == 0) {
        return systemState;
    }
    if (state != nullptr && *state == '/') {
        return std::filesystem::path(state) / "kest";
    }
    if (home != nullptr && *home == '/') {
        return std::filesystem::path(home) / ".local/state/kest";
    }
    return fmt::format("/var/tmp/kest-{}/state", geteuid());
}

} // namespace

void complete(configuration& value)
{
    // a user without a state folder of the configuration's own is a client of the system's service
    const bool hasSystemsSocket = value.stateFolder.empty() || value.stateFolder == systemState;
    if (value.stateFolder.empty()) {
        value.stateFolder = defaultStateFolder();
    }
    if (value.traceFolder.empty()) {
        value.traceFolder = value.stateFolder / "trace";
    }
    if (value.lockFolder.empty()) {
        value.lockFolder = "/run/lock/kest";
    }
    if (value.errorLogSpoolFolder.empty()) {
        value.errorLogSpoolFolder = fmt::format("/var/tmp/kest-{}", geteuid());
    }
    if (value.service.socket.empty()) {
        value.service.socket = hasSystemsSocket ? systemSocket : value.stateFolder / "kestd.socket";
    }
    value.registry.try_emplace("tavo/ReadMode", "HWareMode");
}

const char* environment(const char* name)
{
    const char* value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

} // namespace kest::host
