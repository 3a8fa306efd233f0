/// Reading the header of a ring's bytes.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/host/trace/layout.h"
#include "platform/host/trace/record.h"

namespace kest::host::trace
{

/// A header's words in this machine's order.
struct headerReading {
    ringHeader header{};
    bool foreign = false;
    std::string trouble; ///< why the ring can't be read; empty when it can
};

/// Checks that the lanes lie within the bytes.
headerReading readHeader(std::span<const std::uint8_t> image);

/// What the header says about the ring, its texts escaped.
ringInfo makeInfo(const ringHeader& header);

} // namespace kest::host::trace
