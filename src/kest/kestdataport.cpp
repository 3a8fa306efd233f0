#include "kestdataport.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <span>

#include "kest955x.h"
#include "kestattribute.h"
#include "kesterrorlog.h"
#include "kestmisc.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestdataport";

constexpr std::array outputTypes{KEST_DEV_9551, KEST_DEV_9552, KEST_DEV_9554, KEST_DEV_9555};
constexpr std::array inputTypes{KEST_DEV_75, KEST_DEV_92, KEST_DEV_9551, KEST_DEV_9552, KEST_DEV_9554, KEST_DEV_9555};

/// A function of the data port.
struct portFunction {
    const char* name;
    std::uint32_t module;
    std::span<const kest_deviceType> types; ///< of end devices that it serves
    bool servesUnsound; ///< also a chain that failed its check
};
constexpr portFunction readFunction{"KEST_dpRead", 2, inputTypes, false};
constexpr portFunction writeFunction{"KEST_dpWrite", 3, outputTypes, false};
// unlike the others, on purpose
constexpr portFunction configFunction{"KEST_dpConfig", 4, outputTypes, true};
constexpr portFunction hubResetFunction{"kest_dp_922HUB_reset", 34, {}, true};

/// One call: the device that the text names and what is known of its failure.
struct portCall {
    const portFunction& self;
    const char* address;
    kest_deviceInfo info{};
    std::unique_ptr<kest_deviceAddress[]> flatList{}; ///< attached to the details, freed after they are logged
    kest_errorDetails details{};
};

bool parseAddress(portCall& call)
{
    // else it is read like an empty text
    const bool given = call.address != nullptr;
    const std::unique_ptr<char[]> rest{kest_miscConvertTokensToAddress(&call.info, given ? call.address : "")};
    if (rest) {
        trace_wobu_write_all(kest_trace, traceHash("device text not understood"), " %s,%s", __LINE__, 0, call.self.name,
                             rest.get());
        kest_describeFailure(call.details, call.self.module, 0x1315);
        if (given) {
            kest_attachUserDetails(call.details, call.address, static_cast<std::uint32_t>(std::strlen(call.address)),
                                   kest_dtlsDeviceText);
        }
    }
    return !rest;
}

bool checkChain(portCall& call)
{
    const std::uint32_t code = kest_checkAddressList(call.info.addressList);
    if (code != 0) {
        trace_wobu_write_all(kest_trace, traceHash("chain not valid"), " %s", __LINE__, 0, call.self.name);
        kest_describeFailure(call.details, call.self.module, 0x1302, code);
        unsigned int size = 0;
        call.flatList.reset(KEST_flattenAddressList(call.info.addressList, &size));
        if (call.flatList) {
            kest_attachUserDetails(call.details, call.flatList.get(), size, kest_dtlsAddressList);
        } else {
            trace_wobu_write_all(kest_trace, traceHash("chain not flattened"), " %s", __LINE__, 0, call.self.name);
        }
    }
    return code == 0;
}

void traceRoutineFailure(const portCall& call, const ErrlEntry* entry)
{
    if (entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("data port routine failed"), " %s,%s", __LINE__, 0, call.self.name,
                             call.address);
    }
}

/// The one way of the exported functions. @param routine  takes the request of a chain that is served
template <typename Routine>
ErrlEntry* serve(const portFunction& self, const char* address, const kest_attributeValue* attributes, Routine routine)
{
    const traceScope scope{self.name};
    portCall call{.self = self, .address = address};
    ErrlEntry* entry = nullptr;
    if (parseAddress(call) && (checkChain(call) || self.servesUnsound)) {
        const kest_deviceAddress* const last = kest_lastNode(call.info.addressList);
        if (last != nullptr && std::ranges::count(self.types, last->type) != 0) {
            const Dp955xRequest request{&call.info, last->type, kest_attributesOrDefaults(attributes)};
            entry = routine(request);
            traceRoutineFailure(call, entry);
        }
    }
    kest_miscReleaseDeviceInfo(call.info);
    kest_logError(entry, &call.details, sourceId);
    return entry;
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
    const traceScope scope{hubResetFunction.name};
    portCall call{.self = hubResetFunction, .address = address};
    ErrlEntry* entry = nullptr;
    if (parseAddress(call)) {
        const Dp955xRequest request{&call.info, KEST_DEV_9552, kest_attributesOrDefaults(nullptr)};
        entry = Write_922Hub_Reset(&request, operation, bits, mask, &handle);
        traceRoutineFailure(call, entry);
    }
    kest_miscReleaseDeviceInfo(call.info);
    if (entry != nullptr) {
        kest_attachSoftwareError(call.details, entry->getRC(), 17, 0);
    }
    kest_logError(entry, &call.details, sourceId);
    return entry;
}

} // namespace kest
