/// What keeps a request to the message service from doing harm. The service can't be told to do it all the same.
#pragma once

#include <span>
#include <string>

#include "tools/client/client.h"
#include "tools/common/devicetext.h"
#include "tools/common/seeprom.h"

namespace kest::tools
{

/// Through a hub the service can return bytes that were never read. Only the library's trace shows it, and two reads
/// that agree prove nothing.
/// @param force  says so on standard error. Else throws a refusal
void guardHubRead(const device& which, bool force, const std::string& step);

/// Throws unless all bytes arrived: a copy can be shorter than its device.
void requireWhole(const client::answer& answer, const device& which, const byteRange& range, const std::string& step);

/// Refuses a write to another part than the device table expects. The service checks that, too, but not for its raw
/// users. It is asked for the bytes, so that they come from where the write goes.
void guardIdentity(client::serviceConnection& service, const device& which);

/// Asks before bytes are written whose own checksums are wrong. What the part holds besides is not read.
void guardContents(const device& which, const byteRange& range, std::span<const unsigned char> bytes);

} // namespace kest::tools
