/// Messages to and from the service manager. Without one, nothing happens.
#pragma once

#include <chrono>
#include <optional>

namespace kest::service
{

/// The listening socket that was handed over at start: exactly one, a Unix stream socket.
struct handedSocket {
    int descriptor = -1; ///< -1 when none was
    const char* error = nullptr; ///< what was handed over is not usable
};
handedSocket takeHandedSocket();

/// Says "READY=1" and the like.
void notify(const char* state);

/// Says that a reload begins. It ends with READY=1.
void notifyReloading();

/// How often the manager wants a sign of life; nothing when it wants none.
std::optional<std::chrono::microseconds> watchdogInterval();

} // namespace kest::service
