#include "kest/detect.h"

#include <cstdint>
#include <memory>

#include "kestfailure.h"
#include "kestmisc.h"
#include "kestsession.h"
#include "kesttrace.h"

namespace kest
{
namespace
{

constexpr routine detectRoutine{"KEST_detectDevice", KEST_MODULE_DETECT, "kestdetect"};

/// One detection; the device's texts are freed with it.
struct detection {
    const char* address;
    const kest_attributeValue* attributes;
    reportedCall report{detectRoutine};
    ErrlEntry*& entry = report.entry;
    iicSession session{entry};
    kest_deviceInfo info{};

    detection(const char* text, const kest_attributeValue* values) : address(text), attributes(values) {}
    detection(const detection&) = delete;
    detection& operator=(const detection&) = delete;
    ~detection() { kest_miscReleaseDeviceInfo(info); }
};

bool understandText(detection& run)
{
    if (run.address == nullptr) {
        return run.report.fail(traceHash("no device text to detect"), KEST_REASON_MISSING, 0, 0, 188);
    }
    const std::unique_ptr<char[]> rest{kest_miscSplitDetectionTokens(&run.info, run.address)};
    if (rest) {
        KEST_TRACE_AT(222, traceHash("device text to detect not understood"), ",%s", detectRoutine.name, rest.get());
        run.report.describe(KEST_REASON_TEXT_MALFORMED);
        kest_attachText(run.report.details, run.address, kest_dtlsDeviceText);
    }
    return !rest;
}

/// Ends a step on the bus. The layer has already logged its SRC. The site is added before the close.
/// @param done  true when there is no entry
bool passed(detection& run, bool done, int line, unsigned short site)
{
    if (!done) {
        KEST_TRACE_AT(line, traceHash("step of a detection failed"), "", detectRoutine.name);
        run.entry->addSwErr(kest_component, run.entry->getRC(), detectRoutine.module, site, 0);
    }
    return done;
}

/// Sends the block and the speed.
bool configure(detection& run)
{
    mern_iic_block block{};
    block.speedKhz = 400;
    block.timeoutMs = 5000;
    block.flags = 0xFFFF0001;
    block.busyWaitMs = 20;
    const std::uint32_t speedKhz = run.attributes != nullptr ? run.attributes[KEST_ATTR_BUS_SPEED] : 0;
    return passed(run, run.session.setBlock(block), 291, 296) && passed(run, run.session.setSpeed(speedKhz), 314, 319);
}

void reportState(detection& run, kest_reason reason, std::uint32_t state)
{
    kest_requestSrc(run.report.details, detectRoutine.module, reason, EPUB_SUBSYSTEM_IIC_DEVICE, state);
    kest_attachText(run.report.details, run.address, kest_dtlsDeviceText);
    kest_addCallout(run.report.details);
}

void reportAbsent(detection& run)
{
    KEST_TRACE_AT(353, traceHash("device absent"), "", detectRoutine.name);
    reportState(run, KEST_REASON_DEVICE_ABSENT, MERN_DETECT_ABSENT);
    // not the number of the reason, on purpose
    kest_setReturnCode(run.report.details, kest_classFailure | KEST_REASON_NO_ANSWER);
}

void reportDoubtful(detection& run, std::uint32_t state)
{
    if (state == MERN_DETECT_SCL_HELD) {
        KEST_TRACE_AT(396, traceHash("clock line held"), "", detectRoutine.name);
    } else if (state == MERN_DETECT_SDA_HELD) {
        KEST_TRACE_AT(400, traceHash("data line held"), "", detectRoutine.name);
    } else {
        KEST_TRACE_AT(404, traceHash("unknown detect state"), "", detectRoutine.name);
    }
    reportState(run, KEST_REASON_DETECT_STATE, state);
    kest_addCallout(run.report.details, EPUB_PROCEDURE_IIC);
    kest_setReturnCode(run.report.details, kest_classFailure | KEST_REASON_DETECT_STATE);
    KEST_TRACE_AT(458, traceHash("device neither present nor absent"), ",%s", detectRoutine.name, run.address);
}

void probe(detection& run)
{
    // a failure that was committed must not count as present
    std::uint32_t state = MERN_DETECT_ABSENT;
    kest_wobuConfig(run.session.handle, run.entry, kest_configRead, WOBU_IIC_DETECT_STATE, &state, sizeof state);
    if (!passed(run, run.entry == nullptr, 333, 338) || state == MERN_DETECT_PRESENT) {
        return;
    }
    if (state == MERN_DETECT_ABSENT) {
        reportAbsent(run);
    } else {
        reportDoubtful(run, state);
    }
}

void closeDevice(detection& run)
{
    ErrlEntry* late = run.session.close();
    if (late != nullptr) {
        KEST_TRACE_AT(474, traceHash("detected device not closed"), ",%x", detectRoutine.name, late->plid());
        kest_commitSecondary(late);
    }
}

} // namespace

ErrlEntry* KEST_detectDevice(const char* address, const kest_attributeValue* attributes)
{
    detection run{address, attributes};
    if (understandText(run)) {
        if (passed(run, run.session.open(run.info), 264, 269) && configure(run)) {
            probe(run);
        }
        closeDevice(run);
    }
    if (run.entry != nullptr) {
        KEST_TRACE_AT(493, traceHash("detection failed"), ",%s", detectRoutine.name, address);
    }
    return run.report.finish();
}

} // namespace kest
