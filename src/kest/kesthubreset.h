/// The reset of a 922 hub that does not answer, through the expander that drives its reset line.
#pragma once

#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

/// Resets the hub. @param[in,out] errl  not null: takes what came of it
void kest_handle_hub_reset(ErrlEntry*& errl, const char* path, mern_t handle, unsigned int hubAddress);
/// Resets the hub when the entry says that it did not acknowledge its address (ENXIO); else, or without an entry, does
/// nothing.
void kest_resetSilentHub(ErrlEntry*& errl, const char* path, mern_t handle, unsigned int hubAddress);
/// A reset path takes at most so many bytes more than `strlen(path)`: a comma, "9552,0xC0" and the terminator.
constexpr unsigned int kest_hubResetPathExtra = 16;
/// Builds the device text of the expander that drives a hub's reset line: the first two tokens of `path`,
/// then "9552," and the address.
/// @param[out] out  `strlen(path) + 1` bytes, zeroed first. That is enough for any device behind a hub. A shorter path,
/// such as one of two tokens, needs `strlen(path) + kest_hubResetPathExtra`.
void kest_build922HubResetPath(const char* path, char* out, unsigned char hubAddress);

} // namespace kest
