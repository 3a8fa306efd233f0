/// The text of a machine file, and whether the file still has it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <sys/stat.h>

namespace kest::sim
{

class machineText
{
public:
    /// Longer than the tick of most file systems' stamps, which is that of the kernel: at most 10 ms.
    static constexpr std::uint64_t safeTickNs = 100'000'000;

    /// Reads the file. Throws std::system_error where the system refused it, and std::runtime_error for a file that is
    /// not a regular one or too large.
    /// @param tickNs  a file that was changed less than this before it is read may be changed again without a new stamp
    explicit machineText(std::filesystem::path file, std::uint64_t tickNs = safeTickNs);

    [[nodiscard]] const std::filesystem::path& file() const { return m_file; }
    [[nodiscard]] const std::string& text() const { return m_text; }

    /// Whether the file still has the text. Reads it, unless the system says that nobody has written to it since it was
    /// read last. Throws as the constructor.
    bool stillHolds();

private:
    /// What the system knows of a file. No write leaves it as it is, unless two come within one tick of its clock.
    struct version {
        dev_t device = 0;
        ino_t number = 0;
        off_t size = -1;
        std::uint64_t modifiedNs = 0, changedNs = 0;

        bool operator==(const version&) const = default;
    };
    [[nodiscard]] static version versionOf(const struct ::stat& found);
    std::string read();

    const std::filesystem::path m_file;
    const std::uint64_t m_tickNs;
    std::string m_text;
    version m_version; ///< that is sure to have the text
};

} // namespace kest::sim
