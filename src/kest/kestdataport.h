/// The hub's reset line, driven through the data port routines.
#pragma once

#include "kest/dataport.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

/// Changes outputs of the expander that drives a 922 hub's reset line, on a handle that is open already.
/// @return null on success, else an entry that the caller owns.
ErrlEntry* kest_dp_922HUB_reset(const char* address, mern_t handle, kest_dpOperation operation, unsigned int bits,
                                unsigned int mask);

} // namespace kest
