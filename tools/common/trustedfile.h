/// Files in a folder that several users may write to: which of them may decide what a device holds.
#pragma once

#include <string>
#include <vector>

namespace kest::tools
{

/// Whether a file is a regular one, not a link, of root, of this process's user or of its folder's owner. One that is
/// gone is none.
/// @param folder  descriptor of the open folder
[[nodiscard]] bool isTrusted(int folder, const std::string& name);

/// What came of readTrusted().
struct trustedRead {
    std::vector<unsigned char> bytes; ///< empty when there is an error, or a distrust
    std::string distrust = {}; ///< why the file may not be used: "it belongs to user 1000"
    int error = 0; ///< an `errno`; EFBIG when the file is larger than the limit
};
/// Reads a whole file of a folder when it is a trusted one. Waits for nobody: a pipe is none.
/// @param folder  descriptor of the open folder
[[nodiscard]] trustedRead readTrusted(int folder, const std::string& name, std::size_t limitBytes);

} // namespace kest::tools
