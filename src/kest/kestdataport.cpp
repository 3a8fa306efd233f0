#include "kestdataport.h"

#include <memory>

#include "kest955x.h"
#include "kestattribute.h"
#include "kestdevicetypes.h"
#include "kestfailure.h"
#include "kestmisc.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestdataport";

/// A function of the data port.
struct portFunction {
    const routine& self;
    registerRange portRegisters::*registers; ///< it serves the types that have these
    bool servesUnsound = false; ///< serves also a chain that failed its check
};
constexpr routine readRoutine{"KEST_dpRead", KEST_MODULE_DP_READ, sourceId};
constexpr routine writeRoutine{"KEST_dpWrite", KEST_MODULE_DP_WRITE, sourceId};
constexpr routine configRoutine{"KEST_dpConfig", KEST_MODULE_DP_CONFIG, sourceId};
constexpr portFunction readFunction{.self = readRoutine, .registers = &portRegisters::inputs};
constexpr portFunction writeFunction{.self = writeRoutine, .registers = &portRegisters::outputs};
// unlike the others, on purpose
constexpr portFunction configFunction{
    .self = configRoutine, .registers = &portRegisters::outputs, .servesUnsound = true};
constexpr routine hubResetRoutine{"kest_dp_922HUB_reset", KEST_MODULE_HUB_RESET_LINE, sourceId};

/// One call: the device that the text names and what is known of its failure.
struct portCall {
    const routine& self;
    const char* address;
    reportedCall report{self};
    ErrlEntry*& entry = report.entry;
    kest_deviceInfo info{};
    std::unique_ptr<kest_deviceAddress[]> flatList{}; ///< attached to the details, freed after they are logged
};

bool parseAddress(portCall& call)
{
    // a null address is read as an empty text
    const bool given = call.address != nullptr;
    const std::unique_ptr<char[]> rest{kest_miscConvertTokensToAddress(&call.info, given ? call.address : "")};
    if (rest) {
        KEST_TRACE(traceHash("device text not understood"), ",%s", call.self.name, rest.get());
        call.report.describe(KEST_REASON_TEXT_MALFORMED);
        if (given) {
            kest_attachText(call.report.details, call.address, kest_dtlsDeviceText);
        }
    }
    return !rest;
}

bool checkChain(portCall& call)
{
    const std::uint32_t code = kest_checkAddressList(call.info.addressList);
    if (code != 0) {
        KEST_TRACE(traceHash("chain not valid"), "", call.self.name);
        call.report.describe(KEST_REASON_CHAIN_INVALID, code);
        unsigned int size = 0;
        call.flatList.reset(KEST_flattenAddressList(call.info.addressList, &size));
        if (call.flatList) {
            kest_attachUserDetails(call.report.details, call.flatList.get(), size, kest_dtlsAddressList);
        } else {
            KEST_TRACE(traceHash("chain not flattened"), "", call.self.name);
        }
    }
    return code == 0;
}

void traceRoutineFailure(const portCall& call)
{
    if (call.entry != nullptr) {
        KEST_TRACE(traceHash("data port routine failed"), ",%s", call.self.name, call.address);
    }
}

/// All that the exported functions do. @param portRoutine  takes the request for a device that is served
template <typename Routine>
ErrlEntry* serve(const portFunction& function, const char* address, const kest_attributeValue* attributes,
                 Routine portRoutine)
{
    portCall call{.self = function.self, .address = address};
    if (parseAddress(call) && (checkChain(call) || function.servesUnsound)) {
        const kest_deviceAddress* const last = kest_lastNode(call.info.addressList);
        if (last != nullptr && (kest_typeOf(last->type).port.*function.registers).bytes != 0) {
            const Dp955xRequest request{&call.info, last->type, kest_attributesOrDefaults(attributes)};
            call.entry = portRoutine(request);
            traceRoutineFailure(call);
        }
    }
    kest_miscReleaseDeviceInfo(call.info);
    return call.report.finish();
}

} // namespace

ErrlEntry* KEST_dpConfig(const char* address, kest_dpConfig config, unsigned int value,
                         const kest_attributeValue* attributes)
{
    return serve(configFunction, address, attributes, [=](const Dp955xRequest& request) {
        return config <= KEST_DP_CONFIG_OUTPUT ? GeneralConfig(&request, config, value)
                                               : RawConfig(&request, config, value);
    });
}

ErrlEntry* KEST_dpWrite(const char* address, kest_dpOperation operation, unsigned int bits, unsigned int mask,
                        const kest_attributeValue* attributes, unsigned int /*unused*/)
{
    return serve(writeFunction, address, attributes,
                 [=](const Dp955xRequest& request) { return Write(&request, operation, bits, mask); });
}

ErrlEntry* KEST_dpRead(const char* address, unsigned int mask, unsigned int* value,
                       const kest_attributeValue* attributes, unsigned int /*unused*/)
{
    return serve(readFunction, address, attributes,
                 [=](const Dp955xRequest& request) { return Read(&request, mask, value); });
}

ErrlEntry* kest_dp_922HUB_reset(const char* address, mern_t handle, kest_dpOperation operation, unsigned int bits,
                                unsigned int mask)
{
    portCall call{.self = hubResetRoutine, .address = address};
    if (parseAddress(call)) {
        const Dp955xRequest request{&call.info, KEST_DEV_9552, kest_attributesOrDefaults(nullptr)};
        call.entry = Write_922Hub_Reset(&request, operation, bits, mask, &handle);
        traceRoutineFailure(call);
    }
    kest_miscReleaseDeviceInfo(call.info);
    if (call.entry != nullptr) {
        kest_attachSoftwareError(call.report.details, call.entry->getRC(), KEST_MODULE_RESET_LINE_STEP, 0);
    }
    return call.report.finish();
}

} // namespace kest
