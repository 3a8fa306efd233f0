#include "kest/detect.h"

#include <cstdint>
#include <cstring>
#include <memory>

#include "kesterrorlog.h"
#include "kestmisc.h"
#include "kesttrace.h"
#include "kestwobu.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestdetect";
constexpr char name[] = "KEST_detectDevice";

constexpr std::uint32_t detectModule = 8;

/// Detect states of the IIC layer that have a meaning of their own here.
constexpr std::uint32_t stateAbsent = 0;
constexpr std::uint32_t stateSclLow = 1;
constexpr std::uint32_t stateSdaLow = 2;
constexpr std::uint32_t statePresent = 3;

/// One detection; the device's texts are freed with it.
struct detection {
    const char* address;
    const kest_attributeValue* attributes;
    ErrlEntry* entry = nullptr;
    mern_t handle = MERN_INVALID;
    kest_deviceInfo info{};
    kest_errorDetails details{};

    detection(const char* text, const kest_attributeValue* values) : address(text), attributes(values) {}
    detection(const detection&) = delete;
    detection& operator=(const detection&) = delete;
    ~detection() { kest_miscReleaseDeviceInfo(info); }
};

void traceLine(std::uint32_t hash, int line) { trace_wobu_write_all(kest_trace, hash, " %s", line, 0, name); }

void attachText(detection& run)
{
    kest_attachUserDetails(run.details, run.address, static_cast<std::uint32_t>(std::strlen(run.address)),
                           kest_dtlsDeviceText);
}

bool understandText(detection& run)
{
    bool understood = false;
    if (run.address == nullptr) {
        traceLine(traceHash("no device text to detect"), 188);
        kest_describeFailure(run.details, detectModule, 0x132B);
    } else {
        const std::unique_ptr<char[]> rest{kest_miscSplitDetectionTokens(&run.info, run.address)};
        understood = !rest;
        if (rest) {
            trace_wobu_write_all(kest_trace, traceHash("device text to detect not understood"), " %s,%s", 222, 0, name,
                                 rest.get());
            kest_describeFailure(run.details, detectModule, 0x1315);
            attachText(run);
        }
    }
    return understood;
}

/// Ends a step on the bus. The entry has its SRC from below: only the failure site is added.
bool passed(detection& run, int line, unsigned short site)
{
    if (run.entry != nullptr) {
        traceLine(traceHash("step of a detection failed"), line);
        run.entry->addSwErr(kest_component, run.entry->getRC(), detectModule, site, 0);
    }
    return run.entry == nullptr;
}

bool openDevice(detection& run)
{
    kest_wobuOpen(run.handle, run.entry, run.info.devicePath, run.info.nodeName);
    return passed(run, 264, 269);
}

bool sendBlock(detection& run)
{
    kest_iicConfigBlock block{};
    block.speedKhz = 400;
    block.timeoutMs = 5000;
    block.flags = 0xFFFF0001;
    block.busyWaitMs = 20;
    kest_wobuConfig(run.handle, run.entry, kest_configSet, WOBU_IIC_BLOCK, &block, sizeof block);
    return passed(run, 291, 296);
}

bool sendSpeed(detection& run)
{
    std::uint32_t speedKhz = run.attributes != nullptr ? run.attributes[KEST_ATTR_BUS_SPEED] : 0;
    kest_wobuConfig(run.handle, run.entry, kest_configSet, WOBU_IIC_SPEED, &speedKhz, sizeof speedKhz);
    return passed(run, 314, 319);
}

void reportAbsent(detection& run)
{
    traceLine(traceHash("device absent"), 353);
    kest_requestSrc(run.details, detectModule, 0x130A, EPUB_SUBSYSTEM_IIC_DEVICE, stateAbsent);
    attachText(run);
    kest_addCallout(run.details);
    // not that of the reason, on purpose
    kest_setReturnCode(run.details, 0x80001311);
}

void reportDoubtful(detection& run, std::uint32_t state)
{
    if (state == stateSclLow) {
        traceLine(traceHash("clock line held"), 396);
    } else if (state == stateSdaLow) {
        traceLine(traceHash("data line held"), 400);
    } else {
        traceLine(traceHash("unknown detect state"), 404);
    }
    kest_requestSrc(run.details, detectModule, 0x1309, EPUB_SUBSYSTEM_IIC_DEVICE, state);
    attachText(run);
    kest_addCallout(run.details);
    kest_addCallout(run.details, EPUB_PROCEDURE_IIC);
    kest_setReturnCode(run.details, 0x80001309);
    trace_wobu_write_all(kest_trace, traceHash("device neither present nor absent"), " %s,%s", 458, 0, name,
                         run.address);
}

void probe(detection& run)
{
    // a failure that was committed below must not read as present
    std::uint32_t state = stateAbsent;
    kest_wobuConfig(run.handle, run.entry, kest_configRead, WOBU_IIC_DETECT_STATE, &state, sizeof state);
    if (passed(run, 333, 338) && state != statePresent) {
        if (state == stateAbsent) {
            reportAbsent(run);
        } else {
            reportDoubtful(run, state);
        }
    }
}

void closeDevice(detection& run)
{
    ErrlEntry* late = nullptr;
    kest_wobuClose(run.handle, late);
    if (late != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("detected device not closed"), " %s,%x", 474, 0, name, late->plid());
        kest_commitSecondary(late);
    }
}

} // namespace

ErrlEntry* KEST_detectDevice(const char* address, const kest_attributeValue* attributes)
{
    const traceScope scope{name};
    detection run{address, attributes};
    if (understandText(run) && openDevice(run)) {
        if (sendBlock(run) && sendSpeed(run)) {
            probe(run);
        }
        closeDevice(run);
    }
    if (run.entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("detection failed"), " %s,%s", 493, 0, name, address);
    }
    kest_logError(run.entry, &run.details, sourceId);
    return run.entry;
}

} // namespace kest
