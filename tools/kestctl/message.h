/// Area "message": requests through the message service, kestd.
#pragma once

#include <cstdint>
#include <string>

#include "tools/kestctl/context.h"

namespace kest::tools
{

struct messageOptions {
    std::string device;
    std::string offset; ///< empty: 0
    std::string length; ///< empty: up to the end, at most what one message moves
    std::string socket; ///< empty: that of the configuration
    std::string timeout = "60"; ///< seconds
    std::string output; ///< of a read: file or "-"; empty: lines for people
    std::string input; ///< of a write: file or "-"; empty: `hex` is given
    std::string hex;
    bool force = false; ///< raw bytes even to a terminal, bytes through a hub; writing where a driver has the device
    bool yes = false;
    std::uint32_t position = 0; ///< of a location
};
/// Through a hub only when forced: bytes may come that were never read (exit code 3).
int runMessageRead(const context& shared, const messageOptions& options);
/// Asks before it writes. The service has no undo file and does not read back.
int runMessageWrite(const context& shared, const messageOptions& options);
/// Shows the device text of a device number.
int runMessageLocation(const context& shared, const messageOptions& options);

} // namespace kest::tools
