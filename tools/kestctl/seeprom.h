/// Area "seeprom": reading, writing and comparing SEEPROMs.
#pragma once

#include <cstdint>
#include <string>

#include "tools/common/seeprom.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

/// What every verb takes.
struct seepromOptions {
    std::string device;
    std::string mode; ///< empty: hardware; of a restore, where the bytes came from
    std::string offset; ///< empty: 0
    std::string length; ///< empty: up to the end
    std::uint32_t speedKhz = 0;
    std::uint32_t writeCycleMs = 0;
    std::uint32_t votes = 1;
};

struct seepromReadOptions {
    seepromOptions from;
    std::string output; ///< file or "-"; empty: lines for people
    bool force = false; ///< raw bytes even to a terminal
};
int runSeepromRead(const context& shared, const seepromReadOptions& options);

struct seepromWriteOptions {
    seepromOptions to;
    std::string input; ///< file or "-"; empty: `hex` is given
    std::string hex;
    carefulWriteOptions care;
};
int runSeepromWrite(const context& shared, const seepromWriteOptions& options);

struct seepromCompareOptions {
    seepromOptions with;
    std::string other; ///< file or "-"; for diff also a device
};
/// Exit code 5 when device and file differ.
int runSeepromVerify(const context& shared, const seepromCompareOptions& options);
/// Shows the lines that differ; exit code 5 when there are any.
int runSeepromDiff(const context& shared, const seepromCompareOptions& options);

struct seepromDumpOptions {
    seepromOptions from;
    std::string output = "-";
};
/// Writes a dump file that `restore` takes.
int runSeepromDump(const context& shared, const seepromDumpOptions& options);

struct seepromRestoreOptions {
    std::string file;
    seepromOptions to; ///< device: empty for the one that the file names
    carefulWriteOptions care;
};
int runSeepromRestore(const context& shared, const seepromRestoreOptions& options);

} // namespace kest::tools
