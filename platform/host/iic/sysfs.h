/// What the kernel shows of its I2C adapters, whether or not they have nodes that this process may open.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kest::host::iic
{

/// A device that the kernel knows: from a device tree, the firmware's tables, or a user who told it.
struct kernelDevice {
    std::uint8_t address = 0; ///< 8-bit form
    std::string name; ///< the kernel's name of the part, "24c256"; empty when it can't be read
    std::optional<std::string> driver; ///< that has the address; empty: none has; nothing: can't be read
};

/// The kernel's file system of devices.
class sysfs
{
public:
    /// @param root  where it is mounted
    explicit sysfs(std::filesystem::path root = "/sys") : m_root(std::move(root)) {}

    /// Numbers of the adapters, in order. @param[out] error  0, or the errno that kept them from being read
    [[nodiscard]] std::vector<unsigned int> adapters(int& error) const;
    /// The kernel's name of an adapter; empty when it is not known.
    [[nodiscard]] std::string adapterName(unsigned int number) const;
    /// The clock of an adapter as the device tree has it, Hz; 0 when it has none.
    [[nodiscard]] std::uint32_t adapterClockHz(unsigned int number) const;
    /// Devices with 7-bit addresses on an adapter, by address. @param[out] error  as for adapters()
    [[nodiscard]] std::vector<kernelDevice> devices(unsigned int number, int& error) const;

private:
    [[nodiscard]] std::filesystem::path adapterFolder(unsigned int number) const;
    [[nodiscard]] kernelDevice device(const std::filesystem::path& folder, unsigned int address7) const;

    std::filesystem::path m_root;
};

} // namespace kest::host::iic
