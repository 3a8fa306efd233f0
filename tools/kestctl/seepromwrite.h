/// Verbs "seeprom write" and "seeprom restore", and what others share with them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/common/carefulwrite.h"
#include "tools/common/dumpfile.h"
#include "tools/kestctl/context.h"
#include "tools/kestctl/seepromchoice.h"

namespace kest::tools
{

class command;

void addSeepromWrite(command area, context& shared);
void addSeepromRestore(command area, context& shared);

/// The options of every verb that writes with care.
void addCare(command verb, carefulWriteOptions& care, seepromOptions& to);
/// What they say in the end: --force means the type, and all that a write refuses.
/// @param doing  what others are told: "seeprom write"
[[nodiscard]] carefulWriteOptions careOf(const carefulWriteOptions& given, const seepromOptions& to,
                                         const std::string& doing);

/// Writes and reports that. No signal ends the program between the two.
/// @param more  fields that the JSON has besides
int writeAndTell(const context& shared, seeprom& chip, std::uint32_t offset, std::span<const unsigned char> bytes,
                 const carefulWriteOptions& care, const std::vector<jsonField>& more = {});

/// Writes a dump's bytes back and reports that. Throws a `failure` (exit code 2) for a device of another type.
/// @param file  of the dump, for messages
int writeBack(const context& shared, seeprom& chip, const std::string& file, const dumpContents& contents,
              const carefulWriteOptions& care);

} // namespace kest::tools
