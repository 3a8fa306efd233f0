/// Files of examples/ that are part of the program.
#pragma once

#include <span>
#include <string_view>

namespace kest::tools
{

struct embeddedFile {
    std::string_view name; ///< without folder
    std::span<const unsigned char> bytes;
};

[[nodiscard]] std::span<const embeddedFile> embeddedFiles();

} // namespace kest::tools
