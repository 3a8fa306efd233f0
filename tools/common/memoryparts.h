/// Which memory part answers at an address, by the width proof.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/common/foundpart.h"
#include "tools/common/operation.h"

namespace kest::tools
{

/// How memory parts are asked.
struct partAsking {
    std::uint32_t speedKhz = 0; ///< 0 the library's default
    std::uint64_t waitNs = usualWaitNs; ///< for others who have a part
};

/// The memory parts of one bus or one port of a hub. Parts that were judged before help to judge the next: one part can
/// answer at several addresses.
class memoryProofs
{
public:
    /// Fills in source, types, whether the part is ready, and the note. It keeps writers off the part meanwhile, and
    /// throws as a deviceOperation does; also an interruption(). @param part  of which way and address are known
    void judge(const busName& bus, foundPart& part, const partAsking& asking);

private:
    /// A part with one offset byte.
    struct smallPart {
        std::uint8_t address;
        bool goesOn; ///< at other addresses
        std::vector<std::uint8_t> first; ///< 256 bytes; empty when they are not known
    };
    /// Whether an earlier part may answer at the address, too; then its note.
    [[nodiscard]] std::string otherAddressOf(const smallPart& part) const;

    std::vector<smallPart> m_small;
};

/// Settles where parts with one offset byte end, as far as the parts at other addresses show it: a 24C04 to 24C16 has
/// more than one address.
/// @param parts  all that answer on a bus, and behind its hubs
void settleEnds(std::vector<foundPart>& parts);

} // namespace kest::tools
