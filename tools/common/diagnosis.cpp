#include "tools/common/diagnosis.h"

#include <array>
#include <cerrno>
#include <fmt/core.h>
#include <memory>
#include <string_view>

#include "platform/host/iic/tools.h"
#include "platform/host/iic/watch.h"
#include "tools/common/advice.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

using host::iic::presence;
using host::iic::scanResult;
using host::iic::toolBus;

/// Longer than the write cycle of any part that kest knows. After a page of its own a write has waited for that
/// already.
constexpr std::uint32_t laterProbeMs = 100;
constexpr std::uint32_t afterPageMs = 500;

constexpr const char* tryAgain = "try again in a moment";

/// What a probe reports of a bus that nobody can use.
struct heldRow {
    std::string_view reason;
    const char* what;
    const char* tryThis;
};
constexpr std::array heldRows{
    heldRow{"SCL held", "the bus is held: SCL stays low", "no reset frees SCL: power-cycle what holds it"},
    heldRow{"SDA held", "the bus is held: SDA stays low", "'kestctl reset BUS' frees a held bus"},
    heldRow{"bus busy", "the bus is held: another controller keeps it busy", tryAgain},
};

/// "chip", or the hub before it, which is the one that did not acknowledge.
const char* nounOf(const device& which) { return which.behindHub() ? "hub" : "chip"; }

void setVerdict(failure& why, exitCode code, const char* verdict, std::string what, std::string tryThis)
{
    why.code = code;
    why.verdict = verdict;
    why.what = std::move(what);
    why.tryThis = std::move(tryThis);
}

void describeOtherWriter(const device& which, failure& why)
{
    setVerdict(why, exitBusy, "write-cycle",
               fmt::format("the {} is in a write cycle: another program writes to it", nounOf(which)), tryAgain);
}

/// An adapter with limits may itself be why: it then gave up a transfer whose chip goes on.
void describeHeldBus(const scanResult& now, const device& which, failure& why)
{
    const std::string limits = adapterText({which.bus, which.node});
    for (const heldRow& row : heldRows) {
        if (row.reason == now.reason) {
            setVerdict(why, exitFailed, "bus-held", row.what + (limits.empty() ? "" : " (" + limits + ")"),
                       row.tryThis);
        }
    }
}

/// Something acknowledges the address now.
void describeReturned(const unanswered& transfer, const device& which, failure& why)
{
    if (transfer.silence == "busy") {
        setVerdict(
            why, exitFailed, "write-cycle",
            fmt::format("the {}'s write cycle took longer than the write waited for; it is over now", nounOf(which)),
            "--write-cycle MS lets a write wait longer");
    } else if (transfer.error == ENXIO && which.end().type->pageBytes != 0 && host::iic::repeats()) {
        setVerdict(why, exitBusy, "write-cycle",
                   fmt::format("the {} did not acknowledge for the whole wait, and does now: it was in a write cycle",
                               nounOf(which)),
                   tryAgain);
    } else if (transfer.error == ENXIO) {
        setVerdict(why, exitFailed, "returned", "it did not acknowledge its address, and does now",
                   "try again; a loose contact or a reset does that");
    }
}

/// Something acknowledges the address, but only at the bus's own speed.
void describeTooFast(const device& which, failure& why)
{
    setVerdict(why, exitAbsent, "too-fast",
               fmt::format("nothing answers at {} with {} kHz; at the bus's own speed the {} does",
                           addressText(which.head().address), which.speedKhz, nounOf(which)),
               "try a lower --speed");
}

/// Nothing acknowledges the address, and the bus is free.
void describeGone(const unanswered& transfer, const device& which, failure& why)
{
    if (transfer.silence == "busy") {
        setVerdict(why, exitFailed, "write-cycle",
                   fmt::format("the {} does not come back from the write cycle of a page", nounOf(which)),
                   "power-cycle it, and read back what it holds");
    } else {
        setVerdict(why, exitAbsent, "absent", "nothing answers at " + addressText(which.head().address),
                   "check address and power; 'kestctl scan BUS' shows what does");
    }
}

} // namespace

void diagnoseSilence(const unanswered& transfer, const device& which, failure& why)
{
    if (which.links.empty()) {
        return;
    }
    const std::uint8_t address = which.head().address;
    int error = 0;
    const std::unique_ptr<toolBus> wires = toolBus::open(which.bus, nodeNumber(which.node), error);
    if (wires == nullptr) {
        return;
    }
    if (transfer.silence == "other writer" || wires->isBeingWritten(address)) {
        describeOtherWriter(which, why);
        return;
    }
    const scanResult now =
        wires->awaitAnswer(address, transfer.silence == "busy" ? afterPageMs : laterProbeMs, which.speedKhz);
    if (now.state == presence::absent && transfer.silence != "busy" &&
        wires->probe(address).state == presence::present) {
        describeTooFast(which, why);
        return;
    }
    switch (now.state) {
    case presence::present:
        describeReturned(transfer, which, why);
        break;
    case presence::absent:
        describeGone(transfer, which, why);
        break;
    default:
        describeHeldBus(now, which, why);
        break;
    }
}

} // namespace kest::tools
