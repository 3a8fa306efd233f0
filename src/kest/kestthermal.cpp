#include "kest/thermal.h"

#include "kest/dataport.h"
#include "kesterrorlog.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestthermal";
constexpr char name[] = "KEST_thermal_sensor_read_temperature_data";

constexpr std::uint32_t thermalModule = 32;

ErrlEntry* readSensor(KEST_thermal_sensor_info& info, kest_errorDetails& details)
{
    unsigned int word = 0;
    info.status = KEST_THERMAL_INVALID;
    info.temperature = 0;
    ErrlEntry* entry = KEST_dpRead(info.devicePath, 0xFFFF, &word, nullptr, 0xF0);
    if (entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("sensor not read"), " %s,%x,%x,%x,%s", 118, 0, name, word,
                             static_cast<unsigned int>(info.temperature), static_cast<unsigned int>(info.status),
                             info.devicePath);
        // No callout: the entry from below has its own.
        kest_requestSrc(details, thermalModule, 0x1329, EPUB_SUBSYSTEM_SOFTWARE, info.temperature, info.status);
        kest_setReturnCode(details, 0x80001329);
    } else {
        info.temperature = static_cast<std::uint16_t>(word);
        info.status = KEST_THERMAL_VALID;
    }
    return entry;
}

} // namespace

ErrlEntry* KEST_thermal_sensor_read_temperature_data(KEST_thermal_sensor_info* info)
{
    const traceScope scope{name};
    ErrlEntry* entry = nullptr;
    kest_errorDetails details{};
    if (info != nullptr && info->devicePath != nullptr) {
        entry = readSensor(*info, details);
    } else {
        trace_wobu_write_all(kest_trace, traceHash("no sensor to read"), " %s", 74, 0, name);
        kest_describeFailure(details, thermalModule, 0x132B);
    }
    kest_logError(entry, &details, sourceId);
    return entry;
}

} // namespace kest
