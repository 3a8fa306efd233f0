#include "sim/faults.h"

#include <algorithm>
#include <bit>

namespace kest::sim
{

namespace
{
// Even spread over [0, 1): Steele, Lea, Flood, "Fast splittable pseudorandom number generators".
double spread(std::uint64_t seed, std::uint64_t index)
{
    std::uint64_t mixed = seed + index * 0x9E3779B97F4A7C15;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    return static_cast<double>((mixed ^ mixed >> 31) >> 11) / 9007199254740992.0;
}

const faultKindRow& rowOf(faultKind kind) { return faultKinds[static_cast<std::size_t>(kind)]; }

static_assert([] {
    for (std::size_t i = 0; i < faultKinds.size(); ++i) {
        if (static_cast<std::size_t>(faultKinds[i].kind) != i) {
            return false;
        }
    }
    return true;
}());

constexpr std::array<std::string_view, 3> ways{"", "read", "write"};
} // namespace

const faultKindRow* findFaultKind(std::string_view name)
{
    const auto* found = std::ranges::find(faultKinds, name, &faultKindRow::name);
    return found == faultKinds.end() ? nullptr : found;
}

std::string faultTrouble(const machine::fault& what)
{
    const auto* row = findFaultKind(what.kind);
    std::string trouble;
    if (row == nullptr) {
        trouble = "unknown kind of fault '" + what.kind + "'";
    } else if (what.value < row->lowestValue || what.value > row->highestValue) {
        trouble = "value of '" + what.kind + "' must be from " + std::to_string(row->lowestValue) + " to " +
                  std::to_string(row->highestValue);
    } else if ((what.address & 1) != 0) {
        trouble = "odd address of a fault";
    } else if (std::ranges::find(ways, what.way) == ways.end()) {
        trouble = "direction of a fault is 'read', 'write' or left out";
    } else if (!(what.probability >= 0.0 && what.probability <= 1.0)) {
        trouble = "probability of a fault must be from 0 to 1";
    } else if (!what.bus.empty() && !what.node.empty()) {
        trouble = "a fault is of one bus, or of all buses of a node";
    }
    return trouble;
}

faultRecord makeFaultRecord(const machine::fault& what, std::uint32_t number)
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
    record.seed = what.seed;
    record.count = what.count;
    record.byte = what.byte;
    record.value = what.value == 0 ? row.valueFor0 : what.value;
    return record;
}

machine::fault describeFault(const faultRecord& record, const std::string& bus, const std::string& node)
{
    machine::fault what;
    what.kind = rowOf(record.kind).name;
    what.bus = record.ofEveryBus || record.ofNode ? std::string{} : bus;
    what.node = record.ofNode ? node : std::string{};
    what.address = record.address;
    what.way = ways.at(static_cast<std::size_t>(record.way));
    what.nth = record.nth;
    what.probability = record.probability;
    what.seed = record.seed;
    what.count = record.count;
    what.value = record.value;
    what.byte = record.byte;
    what.untilReset = record.untilReset;
    return what;
}

void faultRecord::state(stateFields& fields)
{
    auto kindNumber = static_cast<std::uint8_t>(kind);
    auto wayNumber = static_cast<std::uint8_t>(way);
    auto odds = std::bit_cast<std::uint64_t>(probability);
    fields.numbers(number, kindNumber, wayNumber, address);
    for (bool* flag : {&fromFile, &ofEveryBus, &ofNode, &untilReset, &ended}) {
        fields.flag(*flag);
    }
    fields.numbers(nth, odds, seed, count, byte, value, matched, struck);
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
    fields.check(struck <= matched && (count == 0 || struck <= count), "how often a fault struck");
}

bool faultRecord::matches(std::uint8_t segmentAddress, direction segmentWay) const
{
    return (address == 0 || address == segmentAddress) &&
           (way == faultWay::any || (way == faultWay::read) == (segmentWay == direction::read));
}

faultPlan::faultPlan(std::vector<faultRecord>& all, std::span<const segment> segments,
                     const std::function<bool(std::uint8_t)>& isHub)
    : faults{all}
{
    for (auto& record : faults) {
        const faultKindRow& row = rowOf(record.kind);
        record.planned = false;
        if (!row.countsInChip && std::ranges::any_of(segments, [&](const segment& part) {
                return record.matches(part.address, part.way) && (!row.ofHub || isHub(part.address));
            })) {
            count(record);
        }
    }
}

void faultPlan::count(faultRecord& record)
{
    ++record.matched;
    record.planned =
        record.usable() && record.matched >= record.nth && spread(record.seed, record.matched) < record.probability;
}

template <typename Matches>
const faultRecord* faultPlan::strike(faultKind kind, const Matches& matches)
{
    const auto found = std::ranges::find_if(
        faults, [&](const faultRecord& record) { return record.planned && record.kind == kind && matches(record); });
    if (found != faults.end()) {
        found->planned = false;
        ++found->struck;
    }
    return found == faults.end() ? nullptr : &*found;
}

const faultRecord* faultPlan::strikes(faultKind kind, const segment& part, std::uint64_t byte)
{
    return strike(
        kind, [&](const faultRecord& record) { return record.byte == byte && record.matches(part.address, part.way); });
}

const faultRecord* faultPlan::strikesAddress(faultKind kind, const segment& part)
{
    return strike(kind, [&](const faultRecord& record) { return record.matches(part.address, part.way); });
}

const faultRecord* faultPlan::strikesHub(faultKind kind, std::uint8_t address)
{
    return strike(kind, [&](const faultRecord& record) { return record.address == 0 || record.address == address; });
}

std::optional<chipFaults::strike> faultPlan::meets(faultKind kind)
{
    std::optional<chipFaults::strike> met;
    for (auto& record : faults) {
        if (record.kind == kind &&
            (record.matches(askedBy, askedWay) || (askedBehind != 0 && record.matches(askedBehind, askedWay)))) {
            count(record);
            if (record.planned && !met) {
                ++record.struck;
                met = chipFaults::strike{record.number, record.value};
            }
            record.planned = false;
        }
    }
    return met;
}

void endHubFaults(std::vector<faultRecord>& faults, std::uint8_t hub, bool ownLine)
{
    for (auto& record : faults) {
        if (record.untilReset && rowOf(record.kind).ofHub && (record.address == 0 || record.address == hub) &&
            (ownLine || record.kind != faultKind::hubSilent)) {
            record.ended = true;
        }
    }
}

} // namespace kest::sim
