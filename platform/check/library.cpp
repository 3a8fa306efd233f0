/// Checks of the library's jobs on the platform: what a board does all day, and what is left when it fails.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "kest/kest.h"
#include "platform/check/run.h"
#include "platform/netc.h"
#include "platform/tavo.h"

namespace kest::check
{
namespace
{

constexpr kest_attributeValue hardware = 4;
constexpr kest_attributeValue persisted = 3;

/// A call of the SEEPROM functions, and what came of it.
struct seepromCall {
    std::array<kest_attributeValue, KEST_ATTR_COUNT> attributes{400, 1, 15, 1, 2, 1};
    tavo_deviceaddress device{};
    unsigned char* data = nullptr;
    unsigned int length = 0;
    ownedEntry entry{};

    seepromCall(const char* text, std::uint32_t number, kest_attributeValue mode)
    {
        attributes[KEST_ATTR_READ_MODE] = mode;
        device.number = number;
        std::strncpy(device.location, text, sizeof device.location - 1);
    }
    seepromCall(const seepromCall&) = delete;
    seepromCall& operator=(const seepromCall&) = delete;
    ~seepromCall() { tavo_util_free(reinterpret_cast<void**>(&data)); }

    seepromCall& read(unsigned int offset, unsigned int wanted)
    {
        length = wanted;
        entry.reset(KEST_seepromRead(device, nullptr, offset, &length, &data, attributes.data()));
        return *this;
    }
    void write(unsigned int offset, std::span<const std::uint8_t> bytes)
    {
        length = static_cast<unsigned int>(bytes.size());
        entry.reset(KEST_seepromWrite(device, nullptr, offset, &length, bytes.data(), attributes.data()));
    }
    bytes found() const { return data != nullptr ? bytes(data, data + length) : bytes{}; }
};

bool succeeded(run& run, const char* what, const ownedEntry& entry)
{
    return run.same(what, 0, entry != nullptr ? entry->getRC() : 0) && run.holds(what, entry == nullptr);
}

/// The entry of a failure that began in the platform: its first SRC has the `errno` in user data 1.
void failedWith(run& run, const char* what, std::uint32_t returnCode, int error, const ownedEntry& entry)
{
    if (!run.holds(what, entry != nullptr)) {
        return;
    }
    unsigned int count = 0;
    const SrciSrc* const src = entry->getSRC(0);
    const std::uint32_t* const words = src != nullptr ? src->getHexData(count) : nullptr;
    if (run.holds("the entry has an SRC of eight words", words != nullptr && count == 8)) {
        run.same("errno in the entry's first SRC", std::strerror(error), std::strerror(static_cast<int>(words[4])));
    }
    run.same("return code", returnCode, entry->getRC());
}

void seeprom(run& run)
{
    const kest_checkedMemory& memory = run.port.memory;
    if (!run.has("SEEPROM", memory.text != nullptr)) {
        return;
    }
    seepromCall before(memory.text, 0, hardware);
    if (!succeeded(run, "return code of a read", before.read(3, 2 * memory.pageSize).entry) ||
        !run.same("length of a read", 2 * memory.pageSize, before.length)) {
        return;
    }
    const bytes kept = before.found();
    const bytes changed = pattern(kept.size(), static_cast<std::uint8_t>(kept[0] + 1));
    seepromCall call(memory.text, 0, hardware);
    call.write(3, changed);
    succeeded(run, "return code of a write", call.entry);
    run.same("length of a write", static_cast<long long>(changed.size()), call.length);
    seepromCall after(memory.text, 0, hardware);
    run.same("bytes read back", changed, after.read(3, 2 * memory.pageSize).found());
    call.write(3, kept);
    succeeded(run, "return code of putting the old bytes back", call.entry);
}

void silentSeeprom(run& run)
{
    if (!run.has("address where nothing answers", run.port.silentText != nullptr)) {
        return;
    }
    seepromCall call(run.port.silentText, 0, hardware);
    failedWith(run, "a read where nothing answers is an entry", kest_classInformational | KEST_REASON_NO_ANSWER, ENXIO,
               call.read(0, 4).entry);
    call.write(0, pattern(4, 1));
    failedWith(run, "a write where nothing answers is an entry", kest_classInformational | KEST_REASON_NO_ANSWER, ENXIO,
               call.entry);
    if (run.port.committedText != nullptr && run.port.keepsFirstFailures && call.entry != nullptr) {
        call.entry->commit(0x1300, ERRL_ACTION_KEEP_FOR_SERVICE);
        // user details begin with '{' where they are first-failure data
        run.holds("the entry has the layer's first-failure data",
                  run.port.committedText(call.entry->plid()).find("7b22") != std::string::npos);
    }
}

void missingBus(run& run)
{
    if (!run.has("path of no bus", run.port.missingPath != nullptr)) {
        return;
    }
    seepromCall call((std::string(run.port.missingPath) + ",L,2C0256,A0").c_str(), 0, hardware);
    failedWith(run, "a read on no bus is an entry", kest_classInformational | KEST_REASON_NO_ANSWER, ENOENT,
               call.read(0, 4).entry);
}

void manyFailures(run& run)
{
    if (!run.has("address where nothing answers", run.port.silentText != nullptr) ||
        !run.has("SEEPROM", run.port.memory.text != nullptr)) {
        return;
    }
    for (int number = 0; number < 40; ++number) {
        seepromCall(run.port.silentText, 0, hardware).read(0, 4);
    }
    succeeded(run, "return code of a read after 40 failed ones",
              seepromCall(run.port.memory.text, 0, hardware).read(0, 4).entry);
}

void detection(run& run)
{
    const kest_checkedMemory& memory = run.port.memory;
    if (!run.has("SEEPROM", memory.path != nullptr)) {
        return;
    }
    const auto detect = [&memory](unsigned int address) {
        char text[300];
        std::snprintf(text, sizeof text, "%s@%02X,L", memory.path, address);
        return ownedEntry(KEST_detectDevice(text, nullptr));
    };
    succeeded(run, "return code where a device is", detect(memory.address));
    if (run.has("address where nothing answers", run.port.silentAddress != 0)) {
        const ownedEntry entry = detect(run.port.silentAddress);
        run.same("return code where nothing answers", kest_classFailure | KEST_REASON_NO_ANSWER,
                 entry != nullptr ? entry->getRC() : 0);
    }
}

void expander(run& run)
{
    if (!run.has("I/O expander", run.port.expanderText != nullptr)) {
        return;
    }
    unsigned int pins = ~0U;
    const char* const text = run.port.expanderText;
    succeeded(run, "return code of a read of pins", ownedEntry(KEST_dpRead(text, 0xFF, &pins, nullptr, 0)));
    run.holds("only the pins that were asked for are read", pins <= 0xFF);
    succeeded(run, "return code of a write of pin 0",
              ownedEntry(KEST_dpWrite(text, KEST_DP_SELECT_01, 1, 0, nullptr, 0)));
    succeeded(run, "return code of directions", ownedEntry(KEST_dpConfig(text, KEST_DP_CONFIG_INPUT, 0xFF, nullptr)));
    openDevice device(run.port.memory.path);
    mern_iic_lock lock{MERN_LOCK_HUB, run.port.expanderAddress, 0};
    run.same("result of a lock, which the library has let go", 0,
             mern_iic_config(device.handle, MERN_CONFIG_SET, WOBU_IIC_LOCK, &lock, sizeof lock));
}

void copies(run& run)
{
    if (!run.has("persisted copy", run.port.hasCopy) || !run.has("number of no device", run.port.hasMissingNumber)) {
        return;
    }
    seepromCall copy("", run.port.copyNumber, persisted);
    succeeded(run, "return code of a read of a copy", copy.read(4, 8).entry);
    run.same("length of a read of a copy", 8, copy.length);
    seepromCall beyond("", run.port.copyNumber, persisted);
    beyond.read(~0U, 8);
    if (run.holds("a read past the copy's end is an entry", beyond.entry != nullptr)) {
        run.same("return code of a read past the copy's end", kest_classFailure | KEST_REASON_COPY_UNREAD,
                 beyond.entry->getRC());
        run.holds("the entry began in the platform, and the library added to it",
                  beyond.entry->creator() != 0x1300 && beyond.entry->getSRC(1) != nullptr);
    }
    seepromCall missing("", run.port.missingNumber, persisted);
    missing.read(0, 8);
    run.same("return code without a copy", kest_classInformational | KEST_REASON_COPY_ABSENT,
             missing.entry != nullptr ? missing.entry->getRC() : 0);
}

void appendWord(bytes& to, std::uint32_t word)
{
    const auto* const from = reinterpret_cast<const std::uint8_t*>(&word);
    to.insert(to.end(), from, from + sizeof word);
}

void locationMessage(run& run)
{
    if (!run.has("device with a location", run.port.location != nullptr)) {
        return;
    }
    bytes payload;
    appendWord(payload, run.port.locatedNumber);
    appendWord(payload, 0);
    NetcMessage request;
    NetcMessage reply;
    request.identifier = 0x4711;
    request.type = KEST_MSG_LOCATION;
    request.setData(reinterpret_cast<const char*>(payload.data()), static_cast<unsigned int>(payload.size()));
    succeeded(run, "return code of a request", ownedEntry(kestProcessMsg(nullptr, &request, &reply)));
    run.same("identifier of the reply", 0x4711, reply.identifier);
    run.same("flags of the reply", KEST_REPLY_SERVED | KEST_REPLY_DATA, reply.replyFlags);
    run.same("text of the reply", run.port.location, reply.dataPointer() != nullptr ? reply.dataPointer() : "none");
}

constexpr std::array checks{
    check{"library: a SEEPROM is read, written and read back", seeprom},
    check{"library: silence is an entry with ENXIO and the device's data", silentSeeprom},
    check{"library: a missing bus is an entry with ENOENT", missingBus},
    check{"library: failed requests leave no device open", manyFailures},
    check{"library: a device is detected, and its absence", detection},
    check{"library: pins are read and written, and the device unlocked", expander},
    check{"library: persisted copies are read, and their failures passed on", copies},
    check{"library: a request by message has its reply", locationMessage},
};

} // namespace

std::span<const check> libraryChecks() { return checks; }

} // namespace kest::check
