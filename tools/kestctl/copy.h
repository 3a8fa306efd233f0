/// Area "copy": the persisted copies that file and mixed mode serve.
#pragma once

#include <string>

#include "tools/kestctl/context.h"
#include "tools/kestctl/seeprom.h"

namespace kest::tools
{

struct copyListOptions {
};
int runCopyList(const context& shared, const copyListOptions& options);

struct copyOptions {
    std::string which; ///< name or number of the device table, or any device number
    std::string file; ///< for import and export; "-" is standard input or output
    bool yes = false; ///< an existing copy may be replaced or removed
    bool force = false; ///< raw bytes even to a terminal; a copy of another size than its device
};
/// Makes a copy from a file's bytes: as many as the device holds, where the table has one of that number.
int runCopyImport(const context& shared, const copyOptions& options);
int runCopyExport(const context& shared, const copyOptions& options);
int runCopyRemove(const context& shared, const copyOptions& options);

struct copyCaptureOptions {
    seepromOptions from; ///< only the device, its speed and its votes count: a capture reads the whole hardware
    bool yes = false;
};
/// Makes a copy from the hardware, of bytes that were read beyond doubt.
int runCopyCapture(const context& shared, const copyCaptureOptions& options);

} // namespace kest::tools
