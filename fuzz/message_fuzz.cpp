/// Requests from anybody, through the library and the host platform down to a simulated machine. The first byte
/// chooses. 0 to 3: the rest is a payload of that message type. 4: the next two bytes are the type, and the rest is the
/// payload. Above 4: it chooses a function that takes a device text, and the rest is that text.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/machinefolder.h"
#include "kest/kest.h"
#include "platform/errl.h"
#include "platform/netc.h"
#include "platform/tavo.h"
#include "platform/trace.h"
#include "sim/machine.h"

namespace
{

using kest::fuzz::require;

constexpr std::uint16_t firstType = 0x8001, typeRead = 0x8001, typeWrite = 0x8002, typeLocation = 0x8004;
// bytes of one read or write: the service refuses more before the library sees the request
constexpr std::uint32_t longest = 65536;
constexpr std::uint8_t writeServed = 0x41, dataServed = 0x42;
/// A write cycle of 0 ms, and a clock so slow that a silent chip exhausts its time after a few polls.
constexpr kest_attributeValue hasty[KEST_ATTR_COUNT] = {1, 1, 0, 4, 2, 1};

/// Fills the table of rings before the library and the IIC layer ask for theirs. Most inputs end in error entries,
/// which collect the trace, and formatting the trace took most of the time. trace_fuzz is the target for rings.
[[gnu::constructor(101)]] void leaveNoRoomForRings()
{
    int made = 0;
    for (int number = 0; made == 0 && number < 1000; ++number) {
        char name[16] = {};
        trace_wobu_descriptor ring = nullptr;
        std::snprintf(name, sizeof name, "filler%d", number);
        made = trace_wobu_init_buffer(&ring, name, 1);
    }
}

constexpr const char* settings = R"(
state = "."
[registry]
"tavo/ReadMode" = "HWareMode"
[machine]
folder = "."
[[device]]
number = 0xD001
location = "sim:b,L,1C0002,A0"
)";

/// Makes a machine and its configuration in a folder of this process.
std::shared_ptr<kest::sim::machine> prepare()
{
    const std::filesystem::path folder = kest::fuzz::makeMachineFolder();
    std::ofstream{folder / "kest.toml"} << settings;
    setenv("KEST_CONFIG", (folder / "kest.toml").c_str(), 1);
    return kest::sim::openMachine(folder, false);
}

bool namesARealBus(std::string_view text) { return text.find("/dev/") != std::string_view::npos; }

std::uint32_t lengthAsked(std::string_view payload)
{
    std::uint32_t length = 0;
    if (payload.size() >= 12) {
        std::memcpy(&length, payload.data() + 8, sizeof length);
    }
    return length;
}

void serve(std::uint16_t type, std::string_view payload)
{
    const std::uint32_t asked = lengthAsked(payload);
    if (asked > longest) {
        return;
    }
    NetcMessage request, reply;
    request.identifier = 0x1234;
    request.type = type;
    reply.replyFlags = 0xFF;
    // a copy of exactly the payload's size, so that a read beyond it is caught
    require(request.setData(payload.data(), static_cast<unsigned int>(payload.size())));
    const std::unique_ptr<ErrlEntry> entry{kestProcessMsg(nullptr, &request, &reply)};
    require(reply.identifier == 0x1234 && reply.type == type);
    if (entry != nullptr) {
        require(entry->getRC() != 0 && entry->getSRC(0) != nullptr && reply.dataSize() == 0);
        require(reply.replyFlags == 0 || (type == typeWrite && reply.replyFlags == writeServed));
    } else if (type == typeWrite) {
        require(reply.replyFlags == writeServed && reply.dataSize() == 0);
    } else {
        require((type == typeRead || type == typeLocation) && reply.replyFlags == dataServed);
        require(type != typeRead || asked == 0 || reply.dataSize() == asked);
    }
}

/// @param entry  a failure or null; deleted here. @return whether it was null
bool good(ErrlEntry* entry)
{
    const std::unique_ptr<ErrlEntry> owned{entry};
    require(owned == nullptr || (owned->getRC() != 0 && owned->getSRC(0) != nullptr));
    return owned == nullptr;
}

void readSensor(const std::string& text)
{
    KEST_thermal_sensor_info sensor{.devicePath = text.c_str(), .temperature = 1, .status = 0};
    const bool read = good(KEST_thermal_sensor_read_temperature_data(&sensor));
    require(sensor.status == (read ? KEST_THERMAL_VALID : KEST_THERMAL_INVALID));
}

void copySeeprom(const std::string& text)
{
    tavo_deviceaddress address{};
    text.copy(static_cast<char*>(address.location),
              // a text that fills the field has no terminator
              sizeof address.location);
    unsigned int length = 5;
    unsigned char* data = nullptr;
    const bool fetched = good(KEST_seepromRead(address, nullptr, 3, &length, &data, hasty));
    require(!fetched || (data != nullptr && length == 5));
    if (fetched) {
        good(KEST_seepromWrite(address, nullptr, 3, &length, data, hasty));
    }
    tavo_util_free(reinterpret_cast<void**>(&data));
}

/// Calls one of the functions that take a device text.
/// @param function  its number, modulo 6
void name(const std::string& text, unsigned function)
{
    unsigned int levels = 0;
    switch (function % 6) {
    case 0:
        good(KEST_detectDevice(text.c_str(), hasty));
        break;
    case 1:
        good(KEST_dpConfig(text.c_str(), KEST_DP_CONFIG_OUTPUT, 0xFF, hasty));
        break;
    case 2:
        good(KEST_dpWrite(text.c_str(), KEST_DP_SELECT_01, 0x0F, 0, hasty, 0));
        break;
    case 3:
        good(KEST_dpRead(text.c_str(), 0xFFFF, &levels, hasty, 0));
        break;
    case 4:
        readSensor(text);
        break;
    default:
        copySeeprom(text);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const auto machine = prepare();
    std::string_view all{reinterpret_cast<const char*>(data), size};
    if (size == 0 || namesARealBus(all)) {
        return 0;
    }
    const unsigned chosen = data[0];
    all.remove_prefix(1);
    if (chosen > 4) {
        name(std::string{all.substr(0, all.find('\0'))}, chosen);
    } else if (chosen < 4) {
        serve(static_cast<std::uint16_t>(firstType + chosen), all);
    } else if (all.size() >= 2) {
        serve(static_cast<std::uint16_t>(data[1] << 8 | data[2]), all.substr(2));
    }
    machine->powerCycle();
    return 0;
}
