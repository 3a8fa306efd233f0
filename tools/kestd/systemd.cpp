#include "tools/kestd/systemd.h"

#include <cstdlib>
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/socket.h>
#include <unistd.h>

#ifdef KEST_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#else
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/un.h>
#endif

namespace kest::service
{
namespace
{

constexpr int firstHandedDescriptor = 3;

#ifndef KEST_HAVE_SYSTEMD
// The few calls of libsystemd that the service needs, for builds without it: the same environment variables, the same
// meaning.

/// A variable's number; -1 when it is unset or none.
std::int64_t numberFrom(const char* variable)
{
    const char* text = std::getenv(variable);
    char* end = nullptr;
    errno = 0;
    const auto number = text == nullptr ? -1 : std::strtoll(text, &end, 10);
    return text != nullptr && end != text && *end == '\0' && errno == 0 ? number : -1;
}

int sd_listen_fds(int /*unsetEnvironment*/)
{
    const std::int64_t count = numberFrom("LISTEN_PID") == getpid() ? numberFrom("LISTEN_FDS") : 0;
    for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
        unsetenv(variable);
    }
    for (int descriptor = firstHandedDescriptor;
         descriptor < firstHandedDescriptor + std::min<std::int64_t>(count, 1024); ++descriptor) {
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
    return static_cast<int>(std::clamp<std::int64_t>(count, 0, 1024));
}

int sd_is_socket_unix(int descriptor, int type, int /*listening*/, const char* /*path*/, size_t /*length*/)
{
    const auto option = [descriptor](int name) {
        int value = -1;
        socklen_t size = sizeof value;
        return getsockopt(descriptor, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
    };
    return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == type && option(SO_ACCEPTCONN) == 1 ? 1 : 0;
}

void sd_notify(int /*unsetEnvironment*/, const char* state)
{
    const char* path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path == nullptr || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path) {
        return;
    }
    std::memcpy(address.sun_path, path, std::strlen(path));
    // an abstract socket
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor >= 0) {
        (void)sendto(descriptor, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                     size);
        close(descriptor);
    }
}

int sd_watchdog_enabled(int /*unsetEnvironment*/, std::uint64_t* micros)
{
    const std::int64_t wanted = numberFrom("WATCHDOG_USEC");
    const std::int64_t owner = numberFrom("WATCHDOG_PID");
    const bool ours = owner == -1 || owner == getpid();
    *micros = wanted > 0 && ours ? static_cast<std::uint64_t>(wanted) : 0;
    return *micros > 0 ? 1 : 0;
}
#endif

} // namespace

handedSocket takeHandedSocket()
{
    handedSocket handed;
    const int count = sd_listen_fds(1);
    if (count > 1) {
        handed.error = "more than one socket was handed over";
    } else if (count == 1 && sd_is_socket_unix(firstHandedDescriptor, SOCK_STREAM, 1, nullptr, 0) <= 0) {
        handed.error = "the socket handed over is no listening Unix stream socket";
    } else if (count == 1) {
        handed.descriptor = firstHandedDescriptor;
    }
    return handed;
}

void notify(const char* state) { sd_notify(0, state); }

void notifyReloading()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    notify(fmt::format("RELOADING=1\nMONOTONIC_USEC={}", micros).c_str());
}

std::optional<std::chrono::microseconds> watchdogInterval()
{
    std::uint64_t micros = 0;
    return sd_watchdog_enabled(0, &micros) > 0 ? std::optional(std::chrono::microseconds(micros)) : std::nullopt;
}

} // namespace kest::service
