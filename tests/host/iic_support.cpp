#include "tests/host/iic_support.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>

namespace kest::test
{

Bytes pattern(std::size_t length, unsigned int seed)
{
    Bytes data(length);
    for (std::size_t index = 0; index < length; ++index) {
        data[index] = static_cast<std::uint8_t>(index * 7 + (index >> 8) * 13 + seed * 31);
    }
    return data;
}

Bytes Block::raw() const
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

OwnConfiguration::OwnConfiguration(const std::string& more)
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

void OwnConfiguration::use(const std::string& text) const
{
    std::ofstream(m_folder / "kest.toml") << text;
    setenv("KEST_CONFIG", (m_folder / "kest.toml").c_str(), 1);
    EXPECT_EQ("", host::reloadConfiguration());
}

std::ostream& operator<<(std::ostream& out, const Answer& value)
{
    return out << value.result << " errno " << value.error << " (" << std::strerror(value.error) << ")";
}

OpenDevice::OpenDevice(const std::string& path, NodeType node)
{
    MernNode where;
    where.number = node;
    errno = 0;
    m_handle = mern_iic_open(where, path.c_str(), MERN_OPEN_READ_WRITE_SYNC);
    m_error = errno;
    m_open = std::memcmp(&m_handle, &MERN_INVALID, 20) != 0;
}

OpenDevice::~OpenDevice()
{
    if (m_open) {
        EXPECT_EQ(0, mern_iic_close(m_handle));
    }
}

std::uint32_t OpenDevice::number(unsigned int item)
{
    std::uint32_t value = 0xDEADBEEF;
    EXPECT_EQ((Answer{0, 0}), config(1, item, &value, 4));
    return value;
}

Bytes OpenDevice::readAll(std::size_t length)
{
    Bytes data(length);
    EXPECT_EQ((Answer{static_cast<int>(length), 0}), read(data));
    return data;
}

std::string OpenDevice::firstFailure()
{
    void* data = nullptr;
    const int size = mern_iic_ffdc_extract(m_handle, 0, &data);
    std::string text = size > 0 ? std::string(static_cast<const char*>(data), static_cast<std::size_t>(size)) : "";
    EXPECT_EQ(size > 0, data != nullptr);
    tavo_util_free(&data);
    return text;
}

Bytes registerLock(std::uint8_t address, std::uint32_t timeoutMs)
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

Bytes hubLock(std::uint16_t address, std::uint32_t timeoutMs)
{
    Bytes record(8);
    std::memcpy(record.data() + 2, &address, 2);
    std::memcpy(record.data() + 4, &timeoutMs, 4);
    return record;
}

} // namespace kest::test
