#include "sim/event.h"

namespace kest::sim
{

namespace
{
// beyond what any sensor measures
constexpr std::int32_t mostMicroCelsius = 1'000'000'000;
// later than any bus time, twice: a scenario's times are added to the bus's
constexpr std::uint64_t latestEventTime = std::uint64_t{1} << 63;
constexpr std::uint8_t hubPorts = 8;
} // namespace

void eventRecord::exchange(stateFields& fields)
{
    auto kindNumber = static_cast<std::uint8_t>(kind);
    auto target = static_cast<std::uint32_t>(microCelsius), from = static_cast<std::uint32_t>(fromMicroCelsius);
    fields.number(kindNumber);
    fields.flag(byTime);
    fields.numbers(at, address, hub, port, target, lastingNs);
    fields.flag(begun);
    fields.number(from);
    microCelsius = static_cast<std::int32_t>(target);
    fromMicroCelsius = static_cast<std::int32_t>(from);
    const bool known = kindNumber <= static_cast<std::uint8_t>(eventKind::powerCut);
    const auto isTemperature = [](std::int32_t value) {
        return value >= -mostMicroCelsius && value <= mostMicroCelsius;
    };
    fields.check(known, "the kind of an event");
    fields.check(at <= latestEventTime, "the time of an event");
    fields.check((address & 1) == 0 && (hub & 1) == 0 && port < hubPorts, "the chip of an event");
    fields.check(isTemperature(microCelsius) && isTemperature(fromMicroCelsius) && lastingNs <= longestRampNs,
                 "the temperature of an event");
    kind = known ? static_cast<eventKind>(kindNumber) : eventKind::powerCut;
    if (kind == eventKind::fault) {
        fault.exchange(fields);
    }
}

} // namespace kest::sim
