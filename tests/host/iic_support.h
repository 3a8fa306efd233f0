/// What the tests of the IIC layer share: configuration blocks, a configuration and folder of the test's own.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "platform/host/configuration/configuration.h"
#include "platform/mern.h"
#include "platform/tavo.h"

namespace kest::test
{

using Bytes = std::vector<std::uint8_t>;

/// Bytes that differ from their neighbours and from the same place in other pages.
inline Bytes pattern(std::size_t length, unsigned int seed = 1)
{
    Bytes data(length);
    for (std::size_t index = 0; index < length; ++index) {
        data[index] = static_cast<std::uint8_t>(index * 7 + (index >> 8) * 13 + seed * 31);
    }
    return data;
}

/// The fields of the configuration block that tests set.
struct Block {
    std::uint16_t speedKhz = 400;
    std::uint16_t address = 0;
    std::uint16_t offsetLength = 0;
    std::uint32_t timeoutMs = 0;
    std::uint16_t writeCycleMs = 5;
    std::uint32_t pageSize = 0;
    std::uint32_t busyWaitMs = 1000;

    [[nodiscard]] Bytes raw() const
    {
        mern_iic_block fields{};
        fields.speedKhz = speedKhz;
        fields.address = address;
        fields.offsetLength = offsetLength;
        fields.timeoutMs = timeoutMs;
        fields.writeCycleMs = writeCycleMs;
        fields.pageSize = pageSize;
        fields.busyWaitMs = busyWaitMs;
        Bytes data(sizeof fields);
        std::memcpy(data.data(), &fields, sizeof fields);
        return data;
    }
};

/// A folder with a kest.toml that this process uses until the next one.
class OwnConfiguration
{
public:
    explicit OwnConfiguration(const std::string& more = "")
    {
        // In memory where there is such a place: the error log waits for the disk at every entry.
        const std::filesystem::path memory = "/dev/shm";
        const bool usable = access(memory.c_str(), W_OK | X_OK) == 0;
        std::string name = ((usable ? memory : std::filesystem::temp_directory_path()) / "kest-iic-XXXXXX").string();
        EXPECT_NE(nullptr, mkdtemp(name.data()));
        m_folder = name;
        std::filesystem::create_directory(m_folder / "state");
        use("state = \"state\"\n[linux]\nlock_folder = \"locks\"\n" + more);
    }
    OwnConfiguration(const OwnConfiguration&) = delete;
    OwnConfiguration& operator=(const OwnConfiguration&) = delete;
    ~OwnConfiguration() { std::filesystem::remove_all(m_folder); }

    void use(const std::string& text) const
    {
        std::ofstream(m_folder / "kest.toml") << text;
        setenv("KEST_CONFIG", (m_folder / "kest.toml").c_str(), 1);
        EXPECT_EQ("", host::reloadConfiguration());
    }
    [[nodiscard]] const std::filesystem::path& folder() const { return m_folder; }

private:
    std::filesystem::path m_folder;
};

/// Result and errno of a call.
struct Answer {
    int result = 0;
    int error = 0; ///< 0 when the call succeeded
    bool operator==(const Answer&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const Answer& value)
{
    return out << value.result << " errno " << value.error << " (" << std::strerror(value.error) << ")";
}

/// An open device with the calls that the tests make, closed at the end.
class OpenDevice
{
public:
    explicit OpenDevice(const std::string& path, NodeType node = -1)
    {
        MernNode where;
        where.number = node;
        errno = 0;
        m_handle = mern_iic_open(where, path.c_str(), MERN_OPEN_READ_WRITE_SYNC);
        m_error = errno;
        m_open = std::memcmp(&m_handle, &MERN_INVALID, 20) != 0;
    }
    OpenDevice(const OpenDevice&) = delete;
    OpenDevice& operator=(const OpenDevice&) = delete;
    ~OpenDevice()
    {
        if (m_open) {
            EXPECT_EQ(0, mern_iic_close(m_handle));
        }
    }
    [[nodiscard]] int error() const { return m_error; } ///< of the open
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
    std::uint32_t number(unsigned int item)
    {
        std::uint32_t value = 0xDEADBEEF;
        EXPECT_EQ((Answer{0, 0}), config(1, item, &value, 4));
        return value;
    }
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
    Bytes readAll(std::size_t length)
    {
        Bytes data(length);
        EXPECT_EQ((Answer{static_cast<int>(length), 0}), read(data));
        return data;
    }
    Answer reset()
    {
        errno = 0;
        const int result = mern_iic_reset(m_handle, 1);
        return {result, result == 0 ? 0 : errno};
    }
    /// @return the first-failure data as text, empty when there is none
    std::string firstFailure()
    {
        void* data = nullptr;
        const int size = mern_iic_ffdc_extract(m_handle, 0, &data);
        std::string text = size > 0 ? std::string(static_cast<const char*>(data), static_cast<std::size_t>(size)) : "";
        EXPECT_EQ(size > 0, data != nullptr);
        tavo_util_free(&data);
        return text;
    }

private:
    mern_t m_handle{};
    int m_error = 0;
    bool m_open = false;
};

/// A lock record, item 17 and 18: kind 2 is big-endian on every host.
inline Bytes registerLock(std::uint8_t address, std::uint32_t timeoutMs)
{
    return {0,
            2,
            0,
            address,
            static_cast<std::uint8_t>(timeoutMs >> 24),
            static_cast<std::uint8_t>(timeoutMs >> 16),
            static_cast<std::uint8_t>(timeoutMs >> 8),
            static_cast<std::uint8_t>(timeoutMs)};
}
/// Kind 0, in the host's byte order.
inline Bytes hubLock(std::uint16_t address, std::uint32_t timeoutMs)
{
    Bytes record(8);
    std::memcpy(record.data() + 2, &address, 2);
    std::memcpy(record.data() + 4, &timeoutMs, 4);
    return record;
}

} // namespace kest::test
