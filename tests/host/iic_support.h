/// What the tests of the IIC layer share: configuration blocks, open devices, and a test's own configuration in its own
/// folder.
#pragma once

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>
#include <unistd.h>
#include <vector>

#include "platform/mern.h"
#include "platform/tavo.h"
#include "tests/host/usedconfiguration.h"
#include "tests/temporaryfolder.h"

namespace kest::test
{

using Bytes = std::vector<std::uint8_t>;

/// Bytes that differ from their neighbours, and from those at the same place in other pages.
Bytes pattern(std::size_t length, unsigned int seed = 1);

/// The fields of the configuration block that tests set.
struct Block {
    std::uint16_t speedKhz = 400;
    std::uint16_t address = 0;
    std::uint16_t offsetLength = 0;
    std::uint32_t timeoutMs = 0;
    std::uint16_t writeCycleMs = 5;
    std::uint32_t pageSize = 0;
    std::uint32_t busyWaitMs = 1000;

    [[nodiscard]] Bytes raw() const;
};

/// A folder with a kest.toml that this process uses while it lives.
class OwnConfiguration
{
public:
    explicit OwnConfiguration(const std::string& more = "");

    void use(const std::string& text) const;
    [[nodiscard]] const std::filesystem::path& folder() const { return m_folder.path(); }

private:
    std::filesystem::path write(const std::string& text) const;

    TemporaryFolder m_folder{TemporaryFolder::inMemory};
    UsedConfiguration m_used;
};

/// Result and errno of a call.
struct Answer {
    int result = 0;
    int error = 0; ///< 0 when the call succeeded
    bool operator==(const Answer&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Answer& value);

/// An open device with the calls that the tests make, closed at the end.
class OpenDevice
{
public:
    explicit OpenDevice(const std::string& path, NodeType node = -1);
    OpenDevice(const OpenDevice&) = delete;
    OpenDevice& operator=(const OpenDevice&) = delete;
    ~OpenDevice();
    [[nodiscard]] int error() const { return m_error; } ///< errno of the open
    mern_t& handle() { return m_handle; }

    Answer set(const Block& values)
    {
        Bytes raw = values.raw();
        return config(2, 19, raw.data(), 44);
    }
    Answer config(int direction, unsigned int item, void* value, unsigned int size)
    {
        errno = 0;
        const int result = mern_iic_config(m_handle, direction, static_cast<wobu_iic_cfg_t>(item), value, size);
        return {result, result == 0 ? 0 : errno};
    }
    Answer setNumber(unsigned int item, std::uint32_t value) { return config(2, item, &value, 4); }
    /// @return an item's value; the call must succeed
    std::uint32_t number(unsigned int item);
    Answer seek(long offset)
    {
        errno = 0;
        const int result = mern_iic_seek(m_handle, offset, 0);
        return {result, result == 0 ? 0 : errno};
    }
    Answer read(Bytes& data)
    {
        errno = 0;
        const int result = mern_iic_read(m_handle, data.data(), static_cast<unsigned int>(data.size()));
        return {result, result == static_cast<int>(data.size()) ? 0 : errno};
    }
    Answer write(const Bytes& data)
    {
        errno = 0;
        const int result = mern_iic_write(m_handle, data.data(), static_cast<unsigned int>(data.size()));
        return {result, result == static_cast<int>(data.size()) ? 0 : errno};
    }
    /// @return what was read; the read must succeed
    Bytes readAll(std::size_t length);
    Answer reset()
    {
        errno = 0;
        const int result = mern_iic_reset(m_handle, 1);
        return {result, result == 0 ? 0 : errno};
    }
    /// @return the first-failure data as text, empty when there is none
    std::string firstFailure();

private:
    mern_t m_handle{};
    int m_error = 0;
    bool m_open = false;
};

/// A record of items 17 and 18, the locks. Kind 2, for registers, is big-endian on every host.
Bytes registerLock(std::uint8_t address, std::uint32_t timeoutMs);
/// Kind 0, for hubs, is in the host's byte order.
Bytes hubLock(std::uint16_t address, std::uint32_t timeoutMs);

} // namespace kest::test
