/// Which device an error log entry is about, and what its adapter lacked.
#pragma once

#include <string>
#include <string_view>

#include "platform/host/errorlog/record.h"

namespace kest::host
{

/// @return the device of an entry by its user details: device text, else device path, else "BUS@HH" of the
/// first-failure data; empty without these
std::string deviceOf(const loggedEntry& entry);

/// @return what the adapter lacked for the transfer that failed, as the entry's first-failure data say; empty when they
/// do not
std::string lackOf(const loggedEntry& entry);

/// @return why the target did not acknowledge, as the entry's first-failure data say: "busy", "absent", "other writer";
/// empty when they do not
std::string silenceOf(const loggedEntry& entry);

/// @return how the latest transaction of the failed call ended, as the entry's first-failure data say: "arbitration lost",
/// "data not acknowledged", "short" and others; empty when they do not
std::string endingOf(const loggedEntry& entry);

/// @param record  first-failure data of the IIC layer, or other bytes in their place
/// @return bus and address of the failed transfer: "BUS@HH"; empty when the record is not whole or names none
std::string deviceOfRecord(std::string_view record);

} // namespace kest::host
