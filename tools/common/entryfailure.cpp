#include "tools/common/entryfailure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fmt/core.h>
#include <string_view>

#include "base/component.h"
#include "kest/reasons.h"
#include "platform/host/errorlog/deviceof.h"
#include "platform/host/errorlog/entry.h"
#include "platform/mern.h"
#include "tools/common/advice.h"
#include "tools/common/bus.h"
#include "tools/common/diagnosis.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

/// Positions of SRC words: the reason code, and the errno of a failed call of the IIC layer.
constexpr unsigned wordReason = 2;
constexpr unsigned wordErrno = 4;

constexpr std::uint8_t moduleTools = 0;
constexpr std::uint8_t dtlsDeviceText = 7;
constexpr std::uint8_t dtlsVerdict = 9;
/// Of each buffer, for an entry of the tools' own.
constexpr unsigned traceBytes = 1024;

/// Return code of a transfer through a silent hub, which was then reset.
constexpr std::uint32_t codeHubWasReset = kest_codeHubWasReset;

constexpr std::uint32_t reasonBits = 0xFFFF;

/// Reason of the VPD service.
constexpr std::uint32_t reasonCopyDamaged = 0x1407;

/// Reasons under which the library reports a failed call of the IIC layer.
constexpr std::array<std::uint32_t, 10> layerReasons{
    KEST_REASON_OPEN_GONE, KEST_REASON_OPEN, KEST_REASON_DEADLOCK, KEST_REASON_CONFIG,         KEST_REASON_NO_ANSWER,
    KEST_REASON_READ,      KEST_REASON_SEEK, KEST_REASON_WRITE,    KEST_REASON_CLOSE_DEADLOCK, KEST_REASON_CLOSE};

/// What a reason means by itself.
struct reasonRow {
    std::uint32_t reason;
    exitCode code;
    const char* what;
    const char* tryThis;
    bool errnoTellsMore = false; ///< use the row only when the errno is not known
};

constexpr std::array reasonRows{
    reasonRow{KEST_REASON_COPY_ABSENT, exitAbsent, "there is no persisted copy", "'kestctl copy capture' makes one"},
    reasonRow{reasonCopyDamaged, exitFailed, "the persisted copy is damaged",
              "'kestctl copy verify' shows where; 'copy capture' or 'import' makes it anew"},
    reasonRow{KEST_REASON_DEVICE_ABSENT, exitAbsent, "nothing answers",
              "check address and power; 'kestctl scan BUS' shows what does"},
    reasonRow{KEST_REASON_DETECT_STATE, exitFailed, "the bus is held, or answers oddly",
              "'kestctl reset BUS' frees a held bus"},
    reasonRow{KEST_REASON_HUB_COMMAND, exitFailed, "the hub reports a malformed command", ""},
    reasonRow{KEST_REASON_HUB_NO_ANSWER, exitAbsent, "the device behind the hub does not answer",
              "check port and address"},
    reasonRow{KEST_REASON_HUB_REPEAT, exitFailed, "a bus behind the hub stays held", "power-cycle what holds it"},
    reasonRow{KEST_REASON_HUB_PORT, exitWrongUse, "the hub has no such port", "a 922 hub has ports 0 to 7"},
    reasonRow{KEST_REASON_HUB_LENGTH, exitFailed, "the transfer is too long for the hub", ""},
    reasonRow{KEST_REASON_HUB_HARDWARE, exitFailed, "the hub reports a hardware fault", ""},
    reasonRow{KEST_REASON_HUB_STATUS, exitFailed, "the hub reports a status that is not known", ""},
    reasonRow{KEST_REASON_HUB_QUERY, exitFailed, "the hub's status can't be read", "try again"},
    reasonRow{KEST_REASON_TEXT_MALFORMED, exitWrongUse, "the device text is malformed",
              "see 'kestctl --help' for device texts"},
    reasonRow{KEST_REASON_CHAIN_INVALID, exitWrongUse, "the chain of devices is not valid",
              "see 'kestctl --help' for device texts"},
    reasonRow{KEST_REASON_NO_NODE, exitWrongUse, "there is no such node", "L is the local node, others are 0 to 7"},
    reasonRow{KEST_REASON_NO_LOCATION, exitAbsent, "there is no device text for this number and position",
              "the device table of the service has none"},
    reasonRow{KEST_REASON_NO_REGISTER, exitWrongUse, "this device has no such register", ""},
    reasonRow{KEST_REASON_NO_SEEPROM, exitWrongUse, "the device is no SEEPROM", ""},
    reasonRow{KEST_REASON_OPEN_GONE, exitAbsent, "the bus or its node is gone", "check the node map in kest.toml",
              true},
    reasonRow{KEST_REASON_NO_ANSWER, exitAbsent, "nothing answers, or there is no such bus",
              "check bus, address and power", true},
};

/// @return the row of a reason code, null for one that means nothing by itself
const reasonRow* rowOf(std::uint32_t reason)
{
    const auto* row = std::ranges::find(reasonRows, reason, &reasonRow::reason);
    return row == reasonRows.end() ? nullptr : row;
}

/// Copies what a reason code means by itself. @return false when there is no row
bool describeReason(const reasonRow* row, failure& why)
{
    if (row == nullptr) {
        return false;
    }
    why.code = row->code;
    why.what = row->what;
    why.tryThis = row->tryThis;
    return true;
}

void describeErrno(int error, const device& which, failure& why)
{
    const errnoAdvice advice = adviceFor(error, {which.bus, which.node});
    why.code = advice.code;
    why.what = advice.what;
    why.tryThis = advice.tryThis;
}

bool hasReason(const host::loggedEntry& entry, std::uint32_t reason)
{
    return std::ranges::any_of(entry.srcs,
                               [reason](const host::loggedSrc& src) { return src.words[wordReason] == reason; });
}

/// What EIO means by the way in which the transaction ended.
struct endingRow {
    std::string_view ending;
    const char* verdict;
    const char* what;
    const char* tryThis;
};
constexpr std::array endingRows{
    endingRow{"data not acknowledged", verdictRefusedByte, nullptr, nullptr},
    endingRow{"arbitration lost", "arbitration-lost", "another controller won the bus each time it was tried",
              "try again when less goes on there"},
    endingRow{"short", "short", "the transfer ended before its last byte", "try again"},
};

/// Tells what EIO stands for. Where the ending is not known, the text of the errno stays.
void describeEnding(const host::loggedEntry& entry, failure& why)
{
    const auto* const row = std::ranges::find(endingRows, host::endingOf(entry), &endingRow::ending);
    if (row == endingRows.end()) {
        return;
    }
    why.verdict = row->verdict;
    if (row->what != nullptr) {
        why.what = row->what;
        why.tryThis = row->tryThis;
    }
}

/// Examines the bus after a transfer that nobody acknowledged, or that took too long.
void describeSilence(const host::loggedEntry& entry, int error, const device& which, failure& why)
{
    if (error == ENXIO || error == ETIME) {
        diagnoseSilence({.error = error, .silence = host::silenceOf(entry)}, which, why);
    }
    if (error == EBUSY) {
        why.verdict = "held";
    }
    if (error == EIO) {
        describeEnding(entry, why);
    }
}

/// Describes what the adapter lacked for the transfer, when the entry has it.
void describeLack(const host::loggedEntry& entry, const device& which, failure& why)
{
    const std::string lack = host::lackOf(entry);
    if (lack.empty()) {
        return;
    }
    const std::string limits = adapterText({which.bus, which.node});
    why.what = "the adapter lacks " + lack + (limits.empty() ? "" : " (" + limits + ")");
    why.tryThis = {};
}

/// Describes a detect state that is neither present nor absent. When the state shows no cause, asks the device once
/// more, since the entry has no more details.
void describeDetectState(const host::loggedEntry& entry, const device& which, failure& why)
{
    const auto src = std::ranges::find_if(
        entry.srcs, [](const host::loggedSrc& each) { return each.words[wordReason] == KEST_REASON_DETECT_STATE; });
    const std::uint32_t state = src == entry.srcs.end() ? 0 : src->words[wordErrno];
    if (state == MERN_DETECT_SCL_HELD || state == MERN_DETECT_SDA_HELD) {
        why.what = state == MERN_DETECT_SCL_HELD ? "the bus is held: SCL stays low" : "the bus is held: SDA stays low";
        why.verdict = "bus-held";
        return;
    }
    const int error = errnoAt({which.bus, which.node}, which.end().address);
    if (error != 0) {
        describeErrno(error, which, why);
    }
}

} // namespace

int errnoOf(const host::loggedEntry& entry)
{
    const auto* const last = layerReasons.end();
    const auto found = std::ranges::find_if(entry.srcs, [last](const host::loggedSrc& src) {
        return src.words[wordErrno] != 0 && std::ranges::find(layerReasons, src.words[wordReason]) != last;
    });
    return found == entry.srcs.end() ? 0 : static_cast<int>(found->words[wordErrno]);
}

bool describeReturnCode(std::uint32_t returnCode, failure& why)
{
    if (returnCode == codeHubWasReset) {
        why.code = exitAbsent;
        why.what = "the hub did not answer and was reset";
        why.tryThis = "try again: the next transfer can work";
        return true;
    }
    return describeReason(rowOf(returnCode & reasonBits), why);
}

void describeEntry(const host::loggedEntry& entry, const device& which, failure& why)
{
    const reasonRow* const row = rowOf(entry.returnCode & reasonBits);
    const bool isVerdict = entry.returnCode == codeHubWasReset || (row != nullptr && !row->errnoTellsMore);
    const int error = isVerdict ? 0 : errnoOf(entry);
    const auto isTold = [&why](const host::loggedSrc& src) {
        const reasonRow* const said = rowOf(src.words[wordReason]);
        return said != nullptr && !said->errnoTellsMore && describeReason(said, why);
    };
    if (error != 0) {
        describeErrno(error, which, why);
        describeSilence(entry, error, which, why);
        describeLack(entry, which, why);
    } else if (isVerdict || std::ranges::none_of(entry.srcs, isTold)) {
        describeReturnCode(entry.returnCode, why);
    }
    if (error == 0 && (entry.returnCode & reasonBits) == KEST_REASON_DETECT_STATE && !which.links.empty()) {
        describeDetectState(entry, which, why);
    }
    if (error == 0 && hasReason(entry, KEST_REASON_DEVICE_ABSENT)) {
        describeSilence(entry, ENXIO, which, why);
    }
    if (which.behindHub() && why.what == rowOf(KEST_REASON_HUB_NO_ANSWER)->what) {
        why.what += fmt::format(" at {}, port {}", addressText(which.end().address),
                                which.links.at(which.links.size() - 2).port);
    }
    nameBus(why.tryThis, {which.bus, which.node});
}

failure entryFailure(std::unique_ptr<ErrlEntry> entry, const device& which, const std::string& step)
{
    failure why{.code = exitFailed, .what = "", .device = which.label, .step = step};
    why.returnCode = entry->getRC();
    describeEntry(host::describeEntry(*entry), which, why);
    if (why.what.empty()) {
        why.what = fmt::format("failed with return code 0x{:08X}", why.returnCode);
    }
    if (*why.verdict != '\0') {
        const std::string found = std::string(why.verdict) + ": " + why.what;
        entry->addUsrDtls(found.data(), static_cast<unsigned short>(found.size()), componentTools, 1, dtlsVerdict);
    }
    entry->commit(kest_component, ERRL_ACTION_REPORT);
    why.logId = entry->plid();
    hintAtWrongForm(why, which);
    if (why.tryThis.empty()) {
        why.tryThis = fmt::format("'kestctl errors show 0x{:08X}' has the details", why.logId);
    }
    return why;
}

void hintAtWrongForm(failure& why, const device& which)
{
    const std::string hint = why.code == exitAbsent ? wrongFormHint(which) : "";
    if (!hint.empty()) {
        why.tryThis = hint;
    }
}

void logFailure(failure& why, const toolEntry& what)
{
    const bool ofDevice = what.reason != reasonUndoUnsaved;
    const auto entry = std::unique_ptr<ErrlEntry>(
        new ErrlEntry(componentTools, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0,
                      moduleTools, SERVICE_CODE_KEST, what.reason, what.words[0], what.words[1], what.words[2],
                      what.words[3], ofDevice ? EPUB_SUBSYSTEM_IIC_DEVICE : EPUB_SUBSYSTEM_SOFTWARE, SRCI_TERM_NONE));
    // without memory for an entry the failure is reported all the same
    if (entry == nullptr) {
        return;
    }
    constexpr std::uint32_t usualFailure = 0x80000000;
    why.returnCode = usualFailure | what.reason;
    entry->setRC(why.returnCode);
    entry->addProcedureCallout(SRCI_PRIORITY_HIGH, ofDevice ? EPUB_PROCEDURE_IIC : EPUB_PROCEDURE_SOFTWARE);
    entry->addUsrDtls(what.text.data(), static_cast<unsigned short>(what.text.size()), componentTools, 1,
                      dtlsDeviceText);
    for (const char* buffer : {"kest", "IIC"}) {
        entry->CollectTrace(buffer, traceBytes);
    }
    entry->commit(componentTools, ERRL_ACTION_REPORT);
    why.logId = entry->plid();
}

void throwEntry(ErrlEntry* entry, const device& which, const std::string& step)
{
    if (entry != nullptr) {
        throw entryFailure(std::unique_ptr<ErrlEntry>(entry), which, step);
    }
}

} // namespace kest::tools
