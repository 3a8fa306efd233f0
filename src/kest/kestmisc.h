/// Device texts.
#pragma once

#include "kest/address.h"
#include "kest/text.h"
#include "kestffdc.h"

namespace kest
{

/// A device made from a device text `path,node,type,value[,value]...`. Both texts are allocated with array new. They
/// and the list belong to the record's user. Open takes (devicePath, nodeName).
struct kest_deviceInfo {
    char* nodeName; ///< the text's second token
    char* devicePath; ///< the text's first token
    kest_deviceAddress* addressList; ///< chain of the links
};

/// Fills `info` from a device text. Link types and values are hexadecimal; a hub's link has two values, address and
/// port.
/// @return null on success; else the working copy of the text up to the last token read, to delete with `delete[]`, and
/// what was made so far stays in `info` for its user to release. Does not touch `devicePath` before the first token is
/// found.
char* kest_miscConvertTokensToAddress(kest_deviceInfo* info, const char* text);

/// Fills only the two texts of `info`, from the first two tokens; further ones are ignored.
/// @return null on success, else the working copy of the text, to delete with `delete[]`; a first token found stays in
/// `info`.
char* kest_miscSplitDetectionTokens(kest_deviceInfo* info, const char* text);

/// Releases the two texts and the chain and nulls the fields.
void kest_miscReleaseDeviceInfo(kest_deviceInfo& info);

} // namespace kest
