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
/// Bytes that a reset path takes beyond `strlen(path)`, at most: a token without its comma gets one, then come
/// "9552,0xC0" and the terminator.
constexpr unsigned int kest_hubResetPathExtra = 16;
/// Builds the device text of the expander that drives a hub's reset line: the first two tokens of `path`,
/// then "9552," and the address.
/// @param[out] out  `strlen(path) + 1` bytes, zeroed first. They hold the reset path of any device behind a hub, whose
/// own links are longer. For a path that ends sooner, as one of two tokens does, `strlen(path) +
/// kest_hubResetPathExtra` bytes are needed.
void kest_build922HubResetPath(const char* path, char* out, unsigned char hubAddress);

} // namespace kest
