/// The insides of an error log entry, and what the host's own services make entries with.
#pragma once

#include <array>
#include <cstdint>
#include <deque>

#include "platform/errl.h"
#include "platform/host/errorlog/store.h"

struct SrciSrc::State {
    kest::host::loggedSrc src;
};

/// `facts.srcs` stays empty: an SRC is an object of its own, because callers hold on to it.
struct ErrlEntry::State {
    kest::host::loggedEntry facts;
    std::deque<SrciSrc>     srcs;
};

namespace kest::host
{

/// An entry of one of the host's services: unrecovered, software to blame, procedure callout 4, return code 0x80000000 with the reason.
/// @param words  user data 1-4. @return an entry that the caller owns; null when there is no memory
ErrlEntry* newHostEntry(std::uint16_t component, std::uint8_t module, std::uint16_t reason,
                        const std::array<std::uint32_t, 4>& words);

} // namespace kest::host
