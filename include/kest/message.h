/// @file
/// The request entry point for message dispatchers.
#pragma once

#include <cstdint>

class ErrlEntry;
class NetcMessage;

namespace kest
{

/// What a request asks for. All words of a payload are 32-bit, in host byte order (big-endian on a service processor).
enum kest_messageType : std::uint16_t {
    /// Offset, a reserved word, length, NUL-terminated device text. At most 256 bytes of the text are used.
    KEST_MSG_SEEPROM_READ = 0x8001,
    /// The same, then the data.
    KEST_MSG_SEEPROM_WRITE = 0x8002,
    /// Always refused.
    KEST_MSG_REFUSED = 0x8003,
    /// Device number, position. The reply has the device's location text.
    KEST_MSG_LOCATION = 0x8004,
};

/// Bits of a reply's flags.
enum kest_replyFlag : std::uint8_t {
    KEST_REPLY_WRITTEN = 0x01, ///< a write was served
    KEST_REPLY_DATA = 0x02, ///< the reply has a payload
    KEST_REPLY_SERVED = 0x40, ///< with one of the two above
};

} // namespace kest

extern "C" {

/// Serves one request message and fills the reply. Any thread may call it.
/// @param context  not used
/// @param request  stays the caller's; must not be null
/// @param[out] reply  gets the request's identifier and type, flags, and the payload when there is one; stays the
/// caller's
/// @return null when all went well, else an entry that the caller owns. Return code 0x8000132B with module 0xFF means
/// no memory: for the data of a write, which is then not started, or for the reply's data; its flags are then 0.
ErrlEntry* kestProcessMsg(void* context, NetcMessage* request, NetcMessage* reply);
}

namespace kest
{
using ::kestProcessMsg;
}

using enum kest::kest_messageType;
using enum kest::kest_replyFlag;
using kest::kest_messageType;
using kest::kest_replyFlag;
