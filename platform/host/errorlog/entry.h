/// The insides of an error log entry, and what the host's own services make entries with.
#pragma once

#include <array>
#include <cstdint>
#include <list>

#include "platform/errl.h"
#include "platform/host/errorlog/record.h"

struct SrciSrc::State {
    kest::host::loggedSrc src;
};

/// Lies in the entry's own room. The first SRC and the numbers of `facts` need no further memory; everything else is
/// allocated when it is added.
struct ErrlEntry::State {
    /// An SRC and what callers hold on to.
    struct heldSrc {
        explicit heldSrc(const kest::host::loggedSrc& src) : words{src} {}
        heldSrc(const heldSrc&) = delete;
        heldSrc& operator=(const heldSrc&) = delete;
        ~heldSrc() = default;

        SrciSrc::State words;
        SrciSrc handle{&words};
    };

    explicit State(const kest::host::loggedSrc& src) : first(src) {}

    kest::host::loggedEntry facts; ///< `facts.srcs` stays empty
    heldSrc first;
    std::list<heldSrc> further;
};

namespace kest::host
{

/// @return what the entry holds so far; commit items are 0
loggedEntry describeEntry(const ErrlEntry& entry);

/// An entry of one of the host's services: unrecovered, software to blame, procedure callout 4, return code 0x80000000
/// with the reason.
/// @param words  user data 1-4. @return an entry that the caller owns; null when there is no memory
ErrlEntry* newHostEntry(std::uint16_t component, std::uint8_t module, std::uint16_t reason,
                        const std::array<std::uint32_t, 4>& words);

} // namespace kest::host
