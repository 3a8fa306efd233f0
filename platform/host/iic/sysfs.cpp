#include "platform/host/iic/sysfs.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>

#include "base/files.h"

namespace kest::host::iic
{
namespace
{

constexpr const char* devicesFolder = "bus/i2c/devices";
// the kernel gives such a file the size of a page, whatever is in it
constexpr std::size_t longestAttribute = 1 << 16;
constexpr unsigned int highestAddress7 = 0x7F;

/// The first line of a file; empty when it can't be read.
std::string lineOf(const std::filesystem::path& file)
{
    std::vector<std::uint8_t> bytes;
    static_cast<void>(readFile(file, longestAttribute, bytes));
    return {bytes.begin(), std::ranges::find(bytes, '\n')};
}

bool wholeNumber(std::string_view digits, int base, unsigned int& number)
{
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, base);
    return error == std::errc{} && end == digits.data() + digits.size();
}

/// Names in a folder. @param[out] error  0 or an errno
std::vector<std::string> namesIn(const std::filesystem::path& folder, int& error)
{
    std::vector<std::string> names;
    std::error_code code;
    for (std::filesystem::directory_iterator entry(folder, code), end; !code && entry != end; entry.increment(code)) {
        names.push_back(entry->path().filename().string());
    }
    error = code.value();
    return names;
}

/// The driver behind a device's link; empty when the device has none.
std::optional<std::string> driverOf(const std::filesystem::path& device)
{
    std::error_code code;
    const std::filesystem::path link = std::filesystem::read_symlink(device / "driver", code);
    if (code == std::errc::no_such_file_or_directory) {
        return "";
    }
    return code ? std::nullopt : std::optional(link.filename().string());
}

} // namespace

std::filesystem::path sysfs::adapterFolder(unsigned int number) const
{
    return m_root / devicesFolder / ("i2c-" + std::to_string(number));
}

std::vector<unsigned int> sysfs::adapters(int& error) const
{
    constexpr std::string_view prefix = "i2c-";
    std::vector<unsigned int> numbers;
    for (const std::string& name : namesIn(m_root / devicesFolder, error)) {
        unsigned int number = 0;
        if (name.starts_with(prefix) && wholeNumber(std::string_view(name).substr(prefix.size()), 10, number)) {
            numbers.push_back(number);
        }
    }
    std::ranges::sort(numbers);
    return numbers;
}

std::string sysfs::adapterName(unsigned int number) const
{
    const std::string name = lineOf(adapterFolder(number) / "name");
    return name.empty() ? lineOf(m_root / "class/i2c-dev" / ("i2c-" + std::to_string(number)) / "name") : name;
}

std::uint32_t sysfs::adapterClockHz(unsigned int number) const
{
    // of a device tree, big-endian
    constexpr std::size_t cellBytes = 4;
    std::vector<std::uint8_t> bytes;
    std::uint32_t hertz = 0;
    static_cast<void>(readFile(adapterFolder(number) / "of_node/clock-frequency", longestAttribute, bytes));
    for (const std::uint8_t byte : bytes) {
        hertz = hertz << 8 | byte;
    }
    return bytes.size() == cellBytes ? hertz : 0;
}

kernelDevice sysfs::device(const std::filesystem::path& folder, unsigned int address7) const
{
    return {.address = static_cast<std::uint8_t>(address7 << 1U),
            .name = lineOf(folder / "name"),
            .driver = driverOf(folder)};
}

/// A device's folder is named ADAPTER-00HH. Other prefixes stand for 10-bit addresses and for addresses at which the
/// adapter itself answers another controller.
std::vector<kernelDevice> sysfs::devices(unsigned int number, int& error) const
{
    constexpr std::size_t digits = 4;
    const std::string prefix = std::to_string(number) + "-";
    std::vector<kernelDevice> found;
    for (const std::string& name : namesIn(m_root / devicesFolder, error)) {
        unsigned int address7 = 0;
        if (name.starts_with(prefix) && name.size() == prefix.size() + digits &&
            wholeNumber(std::string_view(name).substr(prefix.size()), 16, address7) && address7 <= highestAddress7) {
            found.push_back(device(m_root / devicesFolder / name, address7));
        }
    }
    std::ranges::sort(found, {}, &kernelDevice::address);
    return found;
}

} // namespace kest::host::iic
