#include "tools/common/operation.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <compare>
#include <csignal>
#include <fmt/core.h>
#include <pwd.h>
#include <unistd.h>

#include "tools/common/advice.h"
#include "tools/common/output.h"
#include "tools/common/when.h"

namespace kest::tools
{
namespace
{

constexpr const char* lockStep = "lock";

struct wantedDevice {
    device which;
    std::unique_ptr<operationLock> lock;
};

/// The user's name, or "user 1000".
std::string userText(std::uint32_t user)
{
    constexpr std::size_t roomForTexts = 4096;
    std::array<char, roomForTexts> texts{};
    passwd row{};
    passwd* found = nullptr;
    const bool known = getpwuid_r(user, &row, texts.data(), texts.size(), &found) == 0 && found != nullptr;
    return known ? row.pw_name : fmt::format("user {}", user);
}

operationRecord recordOf(const device& which, const operationRequest& request)
{
    return {.process = static_cast<std::uint32_t>(getpid()),
            .user = geteuid(),
            .sinceMs = nowMs(),
            .program = "kestctl",
            .doing = request.doing,
            .device = which.label};
}

/// In the order in which all programs take them, each once.
std::vector<wantedDevice> inOrder(const std::vector<device>& devices, operationUse use)
{
    std::vector<wantedDevice> wanted;
    for (const device& which : devices) {
        if (auto lock = operationLockOf(which, use)) {
            wanted.push_back({which, std::move(lock)});
        }
    }
    std::ranges::sort(wanted, [](const auto& one, const auto& other) { return *one.lock < *other.lock; });
    const auto same = [](const auto& one, const auto& other) { return std::is_eq(*one.lock <=> *other.lock); };
    wanted.erase(std::unique(wanted.begin(), wanted.end(), same), wanted.end());
    return wanted;
}

failure busyFailure(const operationLock& lock, const device& which)
{
    const std::vector<operationRecord> holders = lock.holders();
    return {.code = exitBusy,
            .what = "another program is at work on it: " + holderText(holders),
            .tryThis = "wait for its end; --wait TIME waits longer",
            .device = which.label,
            .step = lockStep,
            .holders = holders};
}

void take(operationLock& lock, const device& which, const operationRequest& request)
{
    const operationRecord who = recordOf(which, request);
    int error = lock.attempt(who);
    if (error == EAGAIN && request.waitNs != 0) {
        note(fmt::format("{}: waits for {}", which.label, holderText(lock.holders())));
    }
    if (error == EAGAIN) {
        error = lock.wait(who, std::chrono::nanoseconds(request.waitNs), [] { return interruptSignal() != 0; });
    }
    if (error == EINTR && interruptSignal() == SIGALRM) {
        failure why = busyFailure(lock, which);
        why.tryThis = "wait for its end; the time of --timeout is up";
        throw why;
    }
    if (error == EINTR) {
        throw interruption(interruptSignal(), which.label, lockStep);
    }
    if (error == EBUSY) {
        throw busyFailure(lock, which);
    }
    if (error != 0) {
        throw lockFailure(error, lock, which);
    }
}

void endWhenInterrupted(const device& which, const std::string& step, const std::string& more)
{
    if (const int signal = interruptSignal()) {
        failure why = interruption(signal, which.label, step);
        why.what += more;
        throw why;
    }
}

} // namespace

deviceOperation::deviceOperation(const std::vector<device>& devices, const operationRequest& request)
{
    for (wantedDevice& wanted : inOrder(devices, request.use)) {
        take(*wanted.lock, wanted.which, request);
        m_locks.push_back(std::move(wanted.lock));
    }
}

void whileHeld(const device& which, const operationRequest& request, const std::function<void()>& step,
               const std::string& notDone, const std::string& done)
{
    const deviceOperation held(which, request);
    endWhenInterrupted(which, request.doing, notDone);
    step();
    endWhenInterrupted(which, request.doing, done);
}

std::unique_ptr<operationLock> operationLockOf(const device& which, operationUse use)
{
    const bool hub = which.behindHub();
    const host::iic::operationPlace place{.hub = hub ? which.head().address : std::uint8_t{0},
                                          .port = hub ? which.head().port : std::uint8_t{0},
                                          .address = which.end().address};
    int error = 0;
    return operationLock::of(which.bus, nodeNumber(which.node), place, use, error);
}

std::string holderText(const std::vector<operationRecord>& holders)
{
    if (holders.empty()) {
        return "one that does not say who it is";
    }
    const operationRecord& first = holders.front();
    const std::string more = holders.size() == 1 ? "" : fmt::format(", and {} more", holders.size() - 1);
    return fmt::format("{} {} on {} (process {} of {}) since {}{}", first.program, first.doing, first.device,
                       first.process, userText(first.user), timeText(first.sinceMs), more);
}

jsonValue holdersJson(const std::vector<operationRecord>& holders)
{
    jsonList rows;
    for (const operationRecord& each : holders) {
        rows.push_back({{"program", each.program},
                        {"doing", each.doing},
                        {"device", each.device},
                        {"process", each.process},
                        {"user", each.user},
                        {"since_ms", each.sinceMs},
                        {"since", timeText(each.sinceMs)}});
    }
    return rows;
}

failure lockFailure(int error, const operationLock& lock, const device& which)
{
    const errnoAdvice advice = adviceFor(error, {which.bus, which.node});
    return {.code = advice.code,
            .what = fmt::format("the device can't be locked in '{}': {}", lock.identity().folder.string(), advice.what),
            .tryThis = advice.tryThis,
            .device = which.label,
            .step = lockStep};
}

} // namespace kest::tools
