#include "kest/thermal.h"

#include "kest/dataport.h"
#include "kestfailure.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr routine thermalRoutine{"KEST_thermal_sensor_read_temperature_data", KEST_MODULE_THERMAL, "kestthermal"};

void readSensor(KEST_thermal_sensor_info& info, failureReport& report)
{
    unsigned int word = 0;
    info.status = KEST_THERMAL_INVALID;
    info.temperature = 0;
    report.entry = KEST_dpRead(info.devicePath, 0xFFFF, &word, nullptr, 0xF0);
    if (report.entry == nullptr) {
        info.temperature = static_cast<std::uint16_t>(word);
        info.status = KEST_THERMAL_VALID;
        return;
    }
    KEST_TRACE_AT(118, traceHash("sensor not read"), ",%x,%x,%x,%s", thermalRoutine.name, word,
                  static_cast<unsigned int>(info.temperature), static_cast<unsigned int>(info.status), info.devicePath);
    // no callout: the entry from below has its own
    kest_requestSrc(report.details, thermalRoutine.module, KEST_REASON_SENSOR, EPUB_SUBSYSTEM_SOFTWARE,
                    info.temperature, info.status);
    kest_setReturnCode(report.details, kest_classFailure | KEST_REASON_SENSOR);
}

} // namespace

ErrlEntry* KEST_thermal_sensor_read_temperature_data(KEST_thermal_sensor_info* info)
{
    reportedCall report{thermalRoutine};
    if (info != nullptr && info->devicePath != nullptr) {
        readSensor(*info, report);
    } else {
        report.fail(traceHash("no sensor to read"), KEST_REASON_MISSING, 0, 0, 74);
    }
    return report.finish();
}

} // namespace kest
