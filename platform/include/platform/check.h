/// @file
/// What a platform says of itself to `kest_platform_check`, the checks of this interface. A port defines
/// kest_describePort(), links the archive with its platform and the library, and runs the program: each check prints
/// one line. docs/porting.md shows how.
#pragma once

#include <cstdint>
#include <string>

/// A SEEPROM that the checks may write. They put back what was there, but use it for nothing else meanwhile.
struct kest_checkedMemory {
    const char* path = nullptr; ///< for mern_iic_open(), without an address; null: there is none
    const char* text = nullptr; ///< device text on the local node
    std::uint16_t address = 0; ///< 8-bit form
    std::uint16_t offsetLength = 0; ///< bytes of a position that the part takes, 1 or 2
    std::uint32_t pageSize = 0; ///< bytes, 8 or more
    std::uint32_t size = 0; ///< bytes, four pages or more
};

/// What the checks can use. A check that needs what a port leaves out is not made, and says so.
struct kest_checkedPort {
    kest_checkedMemory memory{}; ///< on the bus that all checks of devices use
    std::uint16_t silentAddress = 0; ///< of that bus, where nothing answers, 8-bit form; 0: none is known
    const char* silentText = nullptr; ///< device text of a SEEPROM at that address
    /// Device text of a 9554 or 9555 on the memory's bus, whose outputs and directions the checks may change.
    const char* expanderText = nullptr;
    std::uint16_t expanderAddress = 0; ///< of the same, 8-bit form
    const char* missingPath = nullptr; ///< a path of no bus
    std::int32_t missingNode = -1; ///< a node that is not mapped, 0-7; -1: none is known
    bool keepsFirstFailures = false; ///< failed calls leave first-failure data
    const char* registryKey = nullptr; ///< that is set
    const char* registryValue = nullptr; ///< its value, 1 to 63 bytes
    const char* missingKey = "kest/check/no such key"; ///< that is not set
    bool hasCopy = false; ///< the device `copyNumber` has a persisted copy of 64 bytes or more
    std::uint32_t copyNumber = 0; ///< a device number
    const char* location = nullptr; ///< location text of the device `locatedNumber` at position 0
    std::uint32_t locatedNumber = 0; ///< a device number
    bool hasMissingNumber = false; ///< no device has the number `missingNumber`
    std::uint32_t missingNumber = 0; ///< a device number
    /// Null: the log cannot be read back. Else it returns the committed entries with that log id as text, each with the
    /// text of its collected traces and its user details in lower-case hexadecimal digits; empty when there are none.
    std::string (*committedText)(std::uint32_t logId) = nullptr;
};

/// Defined by the port; called once, in main().
/// @return what the checks may use
kest_checkedPort kest_describePort();
