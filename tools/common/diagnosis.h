/// Why a device did not answer: what its bus shows after the failure. docs/kestctl.md has the table of symptoms.
#pragma once

#include <string>

#include "tools/common/devicetext.h"
#include "tools/common/failure.h"

namespace kest::tools
{

/// Verdict of a transfer in which the target did not acknowledge a data byte; nothing more is known of it.
constexpr const char* verdictRefusedByte = "refused-byte";

/// What the layer knows about a transfer that failed with ENXIO or ETIME.
struct unanswered {
    int error = 0;
    /// Of the first-failure data: "absent", "busy" after a page of the transfer's own, "other writer"; empty when not
    /// known.
    std::string silence = {};
};

/// Tells an absent device from one in a write cycle, from another program's writing and from a held bus, by asking the
/// address for some more time than a write cycle takes. Puts exit code, text, hint and verdict into `why`; leaves it as
/// it is when the bus shows nothing more. Makes no error entry.
void diagnoseSilence(const unanswered& transfer, const device& which, failure& why);

} // namespace kest::tools
