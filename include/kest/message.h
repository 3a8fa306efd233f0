/// The request entry point for message dispatchers.
#pragma once

class ErrlEntry;
class NetcMessage;

extern "C" {

/// Serves one request message and fills the reply. May be entered by any thread.
///
/// Types: 0x8001 read a SEEPROM, 0x8002 write one, 0x8003 always refused, 0x8004 device number to location text. All
/// words of a payload are 32-bit, in host byte order (big-endian on a service processor). Read and write: offset, a
/// reserved word, length, NUL-terminated device text (256 bytes at most are looked at), then for a write the data.
/// Location: device number, position.
/// @param context  not used
/// @return null when all went well, else an entry that the caller owns. Return code 0x8000132B with module 0xFF: there
/// is no memory for the data of a write, which is then not begun, or for those of the reply, whose flags are then 0.
ErrlEntry* kestProcessMsg(void* context, NetcMessage* request, NetcMessage* reply);
}

namespace kest
{
using ::kestProcessMsg;
}
