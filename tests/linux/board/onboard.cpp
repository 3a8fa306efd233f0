/// Runs on an emulated board with a real kernel: the IIC layer with chips and drivers that other people wrote.
///
/// onboard BUS MISSING STATE
///   BUS      number of the adapter, /dev/i2c-BUS
///   MISSING  errno of this board's adapter for an address without a device: ENXIO or ETIME
///   STATE    detect state of such an address: 0 or 4
///
/// 24C256 at 0xA0 (the layer's alone) and 0xA8 (also the kernel's at24 driver's), PCA9552 at 0xC0, TMP105 at 0x90 and
/// 0x92 (also the kernel's lm75 driver's). Each check is a line "KEST ok NAME" or "KEST FAIL NAME: why"; the last is
/// "KEST done PASSED FAILED".
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "platform/host/iic/tools.h"
#include "platform/mern.h"
#include "platform/tavo.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

int passed = 0;
int failed = 0;

void check(const char* name, bool good, const std::string& why = "")
{
    std::printf("KEST %s %s%s%s\n", good ? "ok" : "FAIL", name, good ? "" : ": ", good ? "" : why.c_str());
    std::fflush(stdout);
    (good ? passed : failed) += 1;
}

/// The bytes that the host expects in the image afterwards.
bytes pattern(std::size_t length, unsigned int seed)
{
    bytes data(length);
    for (std::size_t index = 0; index < length; ++index) {
        data[index] = static_cast<std::uint8_t>(index * 7 + seed);
    }
    return data;
}

struct answer {
    int result;
    int error;
    std::string text() const { return "result " + std::to_string(result) + ", errno " + std::to_string(error); }
};

class device
{
public:
    device(const std::string& bus, std::uint16_t address, std::uint16_t offsetLength, std::uint32_t page)
    {
        const MernNode local;
        const std::uint16_t cycleMs = offsetLength == 0 ? 0 : 5;
        const std::uint32_t busyWaitMs = 1000;
        std::uint8_t block[44]{};
        std::memcpy(block + 2, &address, sizeof address);
        std::memcpy(block + 4, &offsetLength, sizeof offsetLength);
        std::memcpy(block + 20, &cycleMs, sizeof cycleMs);
        std::memcpy(block + 24, &page, sizeof page);
        std::memcpy(block + 40, &busyWaitMs, sizeof busyWaitMs);
        m_handle = mern_iic_open(local, bus.c_str(), 0x1002);
        mern_iic_config(m_handle, 2, WOBU_IIC_BLOCK, block, sizeof block);
    }
    device(const device&) = delete;
    device& operator=(const device&) = delete;
    ~device() { mern_iic_close(m_handle); }

    answer read(long position, bytes& data)
    {
        mern_iic_seek(m_handle, position, 0);
        errno = 0;
        const int result = mern_iic_read(m_handle, data.data(), static_cast<unsigned int>(data.size()));
        return {result, errno};
    }
    bytes readAll(long position, std::size_t length)
    {
        bytes data(length);
        return read(position, data).result == static_cast<int>(length) ? data : bytes{};
    }
    answer write(long position, const bytes& data)
    {
        mern_iic_seek(m_handle, position, 0);
        errno = 0;
        const int result = mern_iic_write(m_handle, data.data(), static_cast<unsigned int>(data.size()));
        return {result, errno};
    }
    std::uint32_t detectState()
    {
        std::uint32_t state = 99;
        mern_iic_config(m_handle, 1, WOBU_IIC_DETECT_STATE, &state, sizeof state);
        return state;
    }
    int lock(std::uint8_t address)
    {
        std::uint8_t record[8] = {0, 2, 0, address, 0, 0, 0, 50};
        errno = 0;
        return mern_iic_config(m_handle, 2, WOBU_IIC_LOCK, record, sizeof record) == 0 ? 0 : errno;
    }
    answer reset()
    {
        errno = 0;
        const int result = mern_iic_reset(m_handle, 1);
        return {result, errno};
    }
    std::string firstFailure()
    {
        void* data = nullptr;
        const int size = mern_iic_ffdc_extract(m_handle, 0, &data);
        std::string text = size > 0 ? std::string(static_cast<const char*>(data), static_cast<std::size_t>(size)) : "";
        tavo_util_free(&data);
        mern_iic_ffdc_unlock(m_handle, 0);
        return text;
    }

private:
    mern_t m_handle{};
};

bytes fileBytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void checkEeprom(const std::string& bus)
{
    device chip(bus, 0xA0, 2, 64);
    const bytes whole = chip.readAll(0, 32768);
    std::ofstream("/whole.bin", std::ios::binary)
        .write(reinterpret_cast<const char*>(whole.data()), static_cast<std::streamsize>(whole.size()));
    check("eeprom: whole read", whole.size() == 32768);
    const bytes data = pattern(200, 17);
    const answer wrote = chip.write(0xFE, data);
    check("eeprom: write across pages", wrote.result == 200, wrote.text());
    check("eeprom: reads back", chip.readAll(0xFE, 200) == data);
}

/// The layer and the kernel's driver use one chip.
void checkAgainstDriver(const std::string& bus, const std::string& number)
{
    const std::string driver = "/sys/bus/i2c/devices/" + number + "-0054/eeprom";
    device chip(bus, 0xA8, 2, 64);
    check("at24: the driver has the chip", std::filesystem::exists(driver));
    check("at24: both read the same", chip.readAll(0, 32768) == fileBytes(driver));
    const answer wrote = chip.write(1000, pattern(300, 40));
    const bytes seen = fileBytes(driver);
    check("at24: the driver reads what the layer wrote",
          wrote.result == 300 && seen.size() == 32768 &&
              std::ranges::equal(pattern(300, 40), std::span(seen).subspan(1000, 300)),
          wrote.text());
    const bytes theirs = pattern(90, 99);
    const int descriptor = open(driver.c_str(), O_WRONLY);
    const bool sent = pwrite(descriptor, theirs.data(), theirs.size(), 5000) == static_cast<ssize_t>(theirs.size());
    close(descriptor);
    check("at24: the layer reads what the driver wrote", sent && chip.readAll(5000, 90) == theirs);
}

void checkLedDriver(const std::string& bus)
{
    device plain(bus, 0xC0, 0, 0);
    device registers(bus, 0xC0, 1, 0);
    // a prescaler
    const answer wrote = plain.write(0, {0x02, 0x4B});
    check("pca9552: plain write", wrote.result == 2, wrote.text());
    const answer pointed = plain.write(0, {0x02});
    check("pca9552: register, then a plain read", pointed.result == 1 && plain.readAll(0, 1) == bytes{0x4B},
          pointed.text());
    check("pca9552: register and data in one transaction", registers.readAll(2, 1) == bytes{0x4B});
    // with auto-increment
    const answer selectors = plain.write(0, {0x16, 0x11, 0x22, 0x33, 0x44});
    check("pca9552: four selectors at once",
          selectors.result == 5 && registers.readAll(0x16, 4) == bytes{0x11, 0x22, 0x33, 0x44}, selectors.text());
}

/// Compares the layer's reading of one sensor with the kernel driver's reading of another of the same type.
void checkSensor(const std::string& bus, const std::string& number)
{
    const std::string folder = "/sys/bus/i2c/devices/" + number + "-0049/hwmon";
    long theirs = -1;
    std::error_code problem;
    for (const auto& entry : std::filesystem::directory_iterator(folder, problem)) {
        std::ifstream(entry.path() / "temp1_input") >> theirs;
    }
    device sensor(bus, 0x90, 1, 0);
    const bytes raw = sensor.readAll(0, 2);
    const long ours = raw.size() == 2 ? static_cast<std::int16_t>(raw[0] << 8 | raw[1]) * 1000 / 256 : -2;
    check("sensor: the temperature that the board was given", ours == 25500, std::to_string(ours) + " millidegrees");
    check("sensor: its twin's driver says the same", theirs == ours, std::to_string(theirs));
}

void checkErrors(const std::string& bus, int missing, std::uint32_t missingState)
{
    device absent(bus, 0xAE, 2, 64);
    bytes data(4);
    answer result = absent.read(0, data);
    check("missing device: errno of a read", result.result == 0 && result.error == missing, result.text());
    const std::string record = absent.firstFailure();
    check("missing device: first-failure data", record.find("\"operation\":\"read\",\"bus\":\"/dev/i2c-") == 1, record);
    result = absent.write(0, data);
    check("missing device: errno of a write", result.result == 0 && result.error == missing, result.text());
    std::uint32_t state = absent.detectState();
    check("missing device: detect state", state == missingState, std::to_string(state));
    absent.firstFailure();

    device chip(bus, 0xA0, 0, 0);
    state = chip.detectState();
    check("detect state of a chip", state == 3, std::to_string(state));
    bytes tooLong(8193);
    result = chip.read(0, tooLong);
    check("too long for one message", result.result == 0 && result.error == EINVAL, result.text());
    device direct(bus, 0xA0, 2, 64);
    result = direct.read(0x10000, data);
    check("position beyond the offset", result.result == 0 && result.error == EINVAL, result.text());
    result = direct.reset();
    check("reset", result.result == 0, result.text());
    check("usable after the reset", direct.readAll(0, 4).size() == 4);
    const MernNode local;
    errno = 0;
    mern_t handle = mern_iic_open(local, "/dev/i2c-99@A0", 0x1002);
    check("no such bus", std::memcmp(&handle, &MERN_INVALID, sizeof handle) == 0 && errno == ENOENT,
          std::to_string(errno));
}

void checkLocks(const std::string& bus)
{
    device one(bus, 0xC0, 0, 0);
    device other(bus, 0xC0, 0, 0);
    check("lock", one.lock(0xC0) == 0);
    check("lock of another handle", other.lock(0xC0) == EBUSY);
    check("lock held already", one.lock(0xC0) == EDEADLK);
}

void checkScan(const std::string& bus)
{
    using kest::host::iic::presence;
    int error = 0;
    const auto wires = kest::host::iic::toolBus::open(bus, -1, error);
    std::string found;
    for (const auto& each : wires->scan()) {
        char text[16];
        std::snprintf(text, sizeof text, "%s%02X ", each.state == presence::heldByDriver ? "driver:" : "",
                      unsigned{each.address});
        found += each.state == presence::present || each.state == presence::heldByDriver ? text : "";
    }
    check("scan: chips and drivers", found == "90 driver:92 A0 driver:A8 C0 ", found);
    std::printf("KEST note adapter \"%s\"\n", wires->adapterName().c_str());
}

} // namespace

int main(int count, char** arguments)
{
    if (count != 4) {
        std::fprintf(stderr, "usage: onboard BUS ENXIO|ETIME STATE\n");
        return 2;
    }
    const std::string number = arguments[1];
    const std::string bus = "/dev/i2c-" + number;
    const int missing = std::string(arguments[2]) == "ETIME" ? ETIME : ENXIO;
    checkEeprom(bus);
    checkAgainstDriver(bus, number);
    checkLedDriver(bus);
    checkSensor(bus, number);
    checkErrors(bus, missing, static_cast<std::uint32_t>(std::stoul(arguments[3])));
    checkLocks(bus);
    checkScan(bus);
    std::printf("KEST done %d %d\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
