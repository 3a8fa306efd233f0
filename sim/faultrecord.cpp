#include "sim/faultrecord.h"

#include <algorithm>
#include <array>
#include <bit>
#include <string_view>

namespace kest::sim
{

namespace
{
// in the order of faultWay
constexpr std::array<std::string_view, 3> ways{"", "read", "write"};
// far more than any run has; one more does not wrap
constexpr std::uint64_t mostMatches = std::uint64_t{1} << 62;
} // namespace

std::string faultTrouble(const faultDescription& what)
{
    const auto* row = findFaultKind(what.kind);
    if (row == nullptr) {
        return "unknown kind of fault '" + what.kind + "'";
    }
    if (what.value < row->lowestValue || what.value > row->highestValue) {
        return "value of '" + what.kind + "' must be from " + std::to_string(row->lowestValue) + " to " +
               std::to_string(row->highestValue);
    }
    if (what.lastsMs != 0 && row->kind != faultKind::holdScl) {
        return "only 'hold-scl' lasts for a time of its own";
    }
    if (what.lastsMs > longestHoldMs) {
        return "'hold-scl' lasts " + std::to_string(longestHoldMs) + " ms at most";
    }
    if ((what.address & 1) != 0) {
        return "odd address of a fault";
    }
    if (std::ranges::find(ways, what.way) == ways.end()) {
        return "direction of a fault is 'read', 'write' or left out";
    }
    if (!(what.probability >= 0.0 && what.probability <= 1.0)) {
        return "probability of a fault must be from 0 to 1";
    }
    if (!what.bus.empty() && !what.node.empty()) {
        return "a fault is of one bus, or of all buses of a node";
    }
    return {};
}

faultRecord makeFaultRecord(const faultDescription& what, std::uint32_t number)
{
    const faultKindRow& row = *findFaultKind(what.kind);
    faultRecord record;
    record.number = number;
    record.kind = row.kind;
    record.way = static_cast<faultWay>(std::ranges::find(ways, what.way) - ways.begin());
    record.address = what.address;
    record.ofEveryBus = what.bus.empty() && what.node.empty();
    record.ofNode = !what.node.empty();
    record.untilReset = what.untilReset;
    record.nth = std::max<std::uint64_t>(what.nth, 1);
    record.probability = what.probability;
    record.ownSeed = what.seed != 0;
    record.seed = what.seed;
    record.count = what.count;
    record.byte = what.byte;
    record.lastsMs = what.lastsMs;
    record.value = what.value == 0 ? row.valueFor0 : what.value;
    return record;
}

faultDescription describeFault(const faultRecord& record, const std::string& bus, const std::string& node,
                               std::uint64_t machineSeed)
{
    faultDescription what;
    what.kind = rowOf(record.kind).name;
    what.bus = record.ofEveryBus || record.ofNode ? std::string{} : bus;
    what.node = record.ofNode ? node : std::string{};
    what.address = record.address;
    what.way = ways.at(static_cast<std::size_t>(record.way));
    what.nth = record.nth;
    what.probability = record.probability;
    what.seed = record.ownSeed ? record.seed : machineSeed;
    what.count = record.count;
    what.value = record.value;
    what.byte = record.byte;
    what.untilReset = record.untilReset;
    what.lastsMs = record.lastsMs;
    return what;
}

void faultRecord::exchange(stateFields& fields)
{
    auto kindNumber = static_cast<std::uint8_t>(kind);
    auto wayNumber = static_cast<std::uint8_t>(way);
    auto odds = std::bit_cast<std::uint64_t>(probability);
    fields.numbers(number, kindNumber, wayNumber, address);
    for (bool* flag : {&fromFile, &ofEveryBus, &ofNode, &untilReset, &ended}) {
        fields.flag(*flag);
    }
    fields.numbers(nth, odds, seed, count, byte, value, matched, struck);
    fields.flag(ownSeed);
    fields.numbers(lastsMs, holder);
    fields.flag(letGo);
    if (kindNumber >= faultKinds.size() || wayNumber >= ways.size()) {
        fields.check(false, "the kind of a fault");
        kindNumber = wayNumber = 0;
    }
    kind = static_cast<faultKind>(kindNumber);
    way = static_cast<faultWay>(wayNumber);
    probability = std::bit_cast<double>(odds);

    const faultKindRow& row = rowOf(kind);
    fields.check(number != 0 && nth != 0 && (address & 1) == 0, "a fault's number, address or first time");
    fields.check(probability >= 0.0 && probability <= 1.0, "the probability of a fault");
    fields.check(value <= row.highestValue && (value >= row.lowestValue || value == row.valueFor0),
                 "the value of a fault");
    fields.check(lastsMs <= longestHoldMs && (holder & 1) == 0, "how long a fault lasts");
    fields.check(struck <= matched && matched <= mostMatches && (count == 0 || struck <= count),
                 "how often a fault struck");
}

bool faultRecord::matches(std::uint8_t segmentAddress, direction segmentWay) const
{
    return (address == 0 || address == segmentAddress) &&
           (way == faultWay::any || (way == faultWay::read) == (segmentWay == direction::read));
}

void endHubFaults(std::vector<faultRecord>& faults, std::uint8_t hub, bool ownLine)
{
    for (auto& record : faults) {
        if (record.untilReset && rowOf(record.kind).ofHub && (record.address == 0 || record.address == hub) &&
            (ownLine || record.kind != faultKind::hubSilent)) {
            record.ended = true;
        }
        if (ownLine && record.holder == hub) {
            record.ended = record.letGo = true;
        }
    }
}

} // namespace kest::sim
