/// The capture of the IIC layer's first-failure data.
#pragma once

#include <cstdint>

#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

/// @param[out] data  the layer's first-failure data, to free with tavo_util_free(). @return 0, or the failure's return
/// code
std::uint32_t kest_wobuFFDCExtract(mern_t handle, ErrlEntry*& entry, void** data, unsigned int* size);
/// @param trace  non-zero: trace the call. @return 0, or the failure's return code
std::uint32_t kest_wobuFFDCUnlock(mern_t handle, ErrlEntry*& entry, int trace);

/// Collects the layer's first-failure data into the entry and releases the layer's hold on it. A step that fails adds
/// its own SRC and a software error (16, 165 or 180). Data found without an entry are not freed, on purpose.
void kest_miscExtractFFDCAndUnlock(ErrlEntry*& entry, mern_t& handle);

} // namespace kest
