#include "platform/host/iic/watch.h"

#include <atomic>
#include <string>
#include <utility>
#include <vector>

namespace kest::host::iic
{
namespace
{

busWatcher& theWatcher()
{
    // outlives static objects that close their devices late
    static auto* const watcher = new busWatcher;
    return *watcher;
}

std::atomic<bool> repeating{true};

/// Reports what another bus does.
class watchedBus final : public bus
{
public:
    explicit watchedBus(std::shared_ptr<bus> wires) : m_wires(std::move(wires)) {}

    transferResult transfer(std::span<const segment> segments, const transferPace& pace) override
    {
        const std::uint64_t beganNs = m_wires->nowNs();
        const transferResult result = m_wires->transfer(segments, pace);
        report({.bus = {},
                .act = busAct::transfer,
                .segments = segments,
                .end = result.end,
                .beganNs = beganNs,
                .endedNs = result.nowNs});
        return result;
    }
    transferResult probe(std::uint8_t address, probeMethod method, const transferPace& pace) override
    {
        const std::uint64_t beganNs = m_wires->nowNs();
        const transferResult result = m_wires->probe(address, method, pace);
        report({.bus = {},
                .act = busAct::probe,
                .segments = {},
                .address = address,
                .end = result.end,
                .beganNs = beganNs,
                .endedNs = result.nowNs});
        return result;
    }
    outcome reset(std::uint8_t address) override
    {
        const std::uint64_t beganNs = m_wires->nowNs();
        const outcome end = m_wires->reset(address);
        report({.bus = {},
                .act = busAct::reset,
                .segments = {},
                .end = end,
                .beganNs = beganNs,
                .endedNs = m_wires->nowNs()});
        return end;
    }
    [[nodiscard]] transferLimits limits() const override { return m_wires->limits(); }
    [[nodiscard]] std::uint64_t clockHz(const transferPace& pace) const override { return m_wires->clockHz(pace); }
    [[nodiscard]] const busIdentity& identity() const override { return m_wires->identity(); }
    [[nodiscard]] std::string adapterName() const override { return m_wires->adapterName(); }
    [[nodiscard]] std::vector<std::string> capabilities() const override { return m_wires->capabilities(); }
    [[nodiscard]] std::vector<std::string> lacks() const override { return m_wires->lacks(); }
    [[nodiscard]] std::optional<unsigned int> kernelNumber() const override { return m_wires->kernelNumber(); }
    bool heldByDriver(std::uint8_t address) override { return m_wires->heldByDriver(address); }
    std::uint64_t nowNs() override { return m_wires->nowNs(); }
    void pause(std::uint64_t nanoseconds) override { m_wires->pause(nanoseconds); }
    [[nodiscard]] std::uint64_t questionPauseNs() const override { return m_wires->questionPauseNs(); }

private:
    void report(busEvent event) const
    {
        event.bus = m_wires->identity().text;
        theWatcher()(event);
    }

    std::shared_ptr<bus> m_wires;
};

} // namespace

void watchBuses(busWatcher watcher) { theWatcher() = std::move(watcher); }

std::shared_ptr<bus> watched(std::shared_ptr<bus> wires)
{
    return theWatcher() ? std::make_shared<watchedBus>(std::move(wires)) : wires;
}

void repeatNothing() { repeating = false; }

bool repeats() { return repeating; }

} // namespace kest::host::iic
