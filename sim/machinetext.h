/// The text of a machine file, and whether the file still has it.
#pragma once

#include "sim/filestamp.h"

#include <cstdint>
#include <filesystem>
#include <string>

namespace kest::sim
{

class machineText
{
public:
    /// Reads the file. Throws std::system_error where the system refused it, and std::runtime_error for a file that is
    /// not a regular one or too large.
    /// @param tickNs  as for fileStamp::isSettled()
    explicit machineText(std::filesystem::path file, std::uint64_t tickNs = fileStamp::safeTickNs);

    [[nodiscard]] const std::filesystem::path& file() const { return m_file; }
    [[nodiscard]] const std::string& text() const { return m_text; }

    /// Whether the file still has the text. Reads it, unless the system says that nobody has written to it since it was
    /// read last. Throws as the constructor.
    bool stillHolds();

private:
    std::string read();

    const std::filesystem::path m_file;
    const std::uint64_t m_tickNs;
    std::string m_text;
    fileStamp m_stamp; ///< of a file that is sure to have the text
};

} // namespace kest::sim
