#include "tests/host/iic_support.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>

#include "platform/host/configuration/configuration.h"

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
    : m_used(write("state = \"state\"\n[linux]\nlock_folder = \"locks\"\n" + more))
{
    std::filesystem::create_directory(folder() / "state");
}

void OwnConfiguration::use(const std::string& text) const
{
    write(text);
    EXPECT_EQ("", host::reloadConfiguration());
}

std::filesystem::path OwnConfiguration::write(const std::string& text) const
{
    const std::filesystem::path file = folder() / "kest.toml";
    std::ofstream(file) << text;
    return file;
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
