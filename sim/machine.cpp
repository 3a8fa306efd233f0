#include "sim/machine.h"

#include "sim/machinebuses.h"
#include "sim/scenarioplan.h"
#include "sim/systemclock.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

namespace kest::sim
{

namespace
{

// Machines that stay open without users: a program that opens one device after another parses the machine file once.
constexpr std::size_t mostKept = 4;

std::system_error unusable(const machineBus& bus)
{
    return {ENODEV, std::generic_category(), "bus '" + fullName(bus.shared.description()) + "' cannot be used"};
}

class machineModel final : public machine, public std::enable_shared_from_this<machineModel>
{
public:
    machineModel(const std::filesystem::path& folder, realClock* clock) : m_buses{folder, clock} {}

    std::shared_ptr<bus> findBus(const std::string& name, const std::string& node) override;
    [[nodiscard]] std::vector<std::string> busNames(const std::string& node) const override
    {
        return m_buses.about().busNames(node);
    }
    [[nodiscard]] std::vector<chipInfo> chips() const override;
    [[nodiscard]] const std::filesystem::path& folder() const override { return m_buses.folder(); }
    std::vector<registerValue> registers() override;
    bool powerCycle() override;
    std::uint32_t addFault(const fault& what) override;
    void checkFault(const fault& what) const override;
    bool clearFault(std::uint32_t number) override;
    void clearFaults() override;
    std::vector<listedFault> faults() override;
    using machine::startWave, machine::stopWave;
    bool startWave(const std::string& busName, const std::filesystem::path& file) override;
    bool stopWave(const std::string& busName) override;
    bool mayStartWave(const std::string& busName, const std::filesystem::path& file) override;
    bool isRecording(const std::string& busName) override;
    void checkBuses() override { m_buses.all(); }
    [[nodiscard]] std::vector<std::string> nodes() const override { return m_buses.about().nodes(); }
    std::size_t play(const std::string& scenario, const std::string& fileName) override;
    std::size_t checkScenario(const std::string& scenario, const std::string& fileName) override;

    /// Under the opening lock.
    [[nodiscard]] machineBuses& buses() { return m_buses; }

private:
    void giveFault(const fault& what, const faultRecord& record);
    void onEachBus(const std::function<bool(busAdministration&)>& action);
    machineBus* find(const std::string& name);
    machineBus* busToRecord(const std::string& busName, const std::filesystem::path& file,
                            std::filesystem::path& absolute);

    mutable machineBuses m_buses;
};

// The bus lives as long as its machine, and the other way round.
std::shared_ptr<bus> machineModel::findBus(const std::string& name, const std::string& node)
{
    for (std::size_t index = 0; index < m_buses.about().buses.size(); ++index) {
        const busDescription& about = m_buses.about().buses[index];
        if (about.name == name && about.node == node) {
            return {shared_from_this(), &m_buses.ready(index).wires};
        }
    }
    return nullptr;
}

std::vector<chipInfo> machineModel::chips() const
{
    const auto about = m_buses.whole();
    std::vector<chipInfo> list;
    for (const auto& chip : about->chips) {
        const auto& bus = m_buses.about().buses[chip.bus];
        list.push_back({.bus = bus.name,
                        .node = bus.node,
                        .type = chip.typeName,
                        .address = chip.address,
                        .behindHub = chip.behindHub,
                        .hubAddress = chip.hub,
                        .port = chip.port,
                        .image = chip.image.empty() ? std::filesystem::path{} : m_buses.folder() / chip.image});
    }
    return list;
}

std::vector<machine::registerValue> machineModel::registers()
{
    std::vector<chipListing> chips;
    onEachBus([&chips](busAdministration& bus) { return bus.listRegisters(chips); });
    std::vector<registerValue> list;
    for (const auto& chip : chips) {
        for (const auto& line : chip.registers) {
            list.push_back({chip.chip, line.name, line.value, line.meaning});
        }
    }
    return list;
}

bool machineModel::powerCycle()
{
    bool done = true;
    for (const auto& bus : m_buses.all()) {
        done = bus->administration.powerCycle() && done;
    }
    return done;
}

machineBus* machineModel::find(const std::string& name)
{
    const auto found = m_buses.about().findBus(name);
    if (!found) {
        return nullptr;
    }
    return &m_buses.ready(*found);
}

namespace
{

/// A bus by its full name, as faults name it.
machine::fault withFullName(machine::fault what)
{
    if (!what.bus.empty() && !what.node.empty()) {
        what.bus = fullName(what.bus, what.node);
        what.node.clear();
    }
    return what;
}

} // namespace

void machineModel::checkFault(const fault& asked) const
{
    const fault what = withFullName(asked);
    if (const std::string trouble = faultTrouble(what); !trouble.empty()) {
        throw std::invalid_argument{trouble};
    }
    if (!what.bus.empty() && !m_buses.about().findBus(what.bus)) {
        throw std::invalid_argument{"no bus '" + what.bus + "'"};
    }
    if (!what.node.empty() && !m_buses.about().hasNode(what.node)) {
        throw std::invalid_argument{"no bus on node '" + what.node + "'"};
    }
}

std::uint32_t machineModel::addFault(const fault& asked)
{
    checkFault(asked);
    const fault what = withFullName(asked);
    const std::uint32_t number = m_buses.takeFaultNumber();
    if (number == 0) {
        throw std::runtime_error{"the machine is gone"};
    }
    giveFault(what, makeFaultRecord(what, number));
    return number;
}

// To each bus that it concerns, or to none. Throws as addFault().
void machineModel::giveFault(const fault& what, const faultRecord& record)
{
    std::vector<machineBus*> concerned;
    for (std::size_t index = 0; index < m_buses.about().buses.size(); ++index) {
        if (m_buses.about().concerns(what, index)) {
            concerned.push_back(&m_buses.ready(index));
        }
    }
    const auto refused = std::ranges::find_if_not(
        concerned, [&record](machineBus* bus) { return bus->administration.addFault(record); });
    if (refused == concerned.end()) {
        return;
    }
    const bool noRoom = errno == ENOSPC;
    std::for_each(concerned.begin(), refused,
                  [&record](machineBus* bus) { bus->administration.clearFaults(record.number); });
    if (noRoom) {
        throw std::runtime_error{"no room for more faults"};
    }
    throw unusable(**refused);
}

// Every bus has its turn. Throws std::system_error when one of them could not be used.
void machineModel::onEachBus(const std::function<bool(busAdministration&)>& action)
{
    const machineBus* leftOut = nullptr;
    for (const auto& bus : m_buses.all()) {
        if (!action(bus->administration) && leftOut == nullptr) {
            leftOut = bus.get();
        }
    }
    if (leftOut != nullptr) {
        throw unusable(*leftOut);
    }
}

std::size_t machineModel::play(const std::string& scenario, const std::string& fileName)
{
    const std::vector<eventDescription> events = parseScenario(scenario, fileName);
    scenarioPlan plan{m_buses};
    for (const eventDescription& what : events) {
        plan.add(what);
    }
    plan.start(fileName);
    return events.size();
}

std::size_t machineModel::checkScenario(const std::string& scenario, const std::string& fileName)
{
    const std::vector<eventDescription> events = parseScenario(scenario, fileName);
    scenarioPlan plan{m_buses, scenarioPlan::purpose::check};
    for (const eventDescription& what : events) {
        plan.add(what);
    }
    return events.size();
}

bool machineModel::clearFault(std::uint32_t number)
{
    bool cleared = false;
    onEachBus([&cleared, number](busAdministration& bus) {
        const auto count = bus.clearFaults(number);
        cleared = count.value_or(0) != 0 || cleared;
        return count.has_value();
    });
    return cleared;
}

void machineModel::clearFaults()
{
    onEachBus([](busAdministration& bus) { return bus.clearFaults(std::nullopt).has_value(); });
}

std::vector<machine::listedFault> machineModel::faults()
{
    std::vector<listedFault> list;
    onEachBus([&list](busAdministration& bus) { return bus.listFaults(list); });
    return list;
}

bool machineModel::startWave(const std::string& busName, const std::filesystem::path& file)
{
    std::filesystem::path absolute;
    machineBus* const bus = busToRecord(busName, file, absolute);
    return bus != nullptr && bus->administration.startWave(absolute.string());
}

bool machineModel::mayStartWave(const std::string& busName, const std::filesystem::path& file)
{
    std::filesystem::path absolute;
    machineBus* const bus = busToRecord(busName, file, absolute);
    return bus != nullptr && bus->administration.mayStartWave(absolute.string());
}

// Null, with `errno`, when nothing may be recorded into the file.
machineBus* machineModel::busToRecord(const std::string& busName, const std::filesystem::path& file,
                                      std::filesystem::path& absolute)
{
    machineBus* const bus = find(busName);
    std::error_code error;
    absolute = std::filesystem::absolute(file, error);
    if (bus == nullptr || file.empty()) {
        errno = bus == nullptr ? ENODEV : ENOENT;
        return nullptr;
    }
    if (m_buses.isOwnFile(absolute)) {
        errno = EEXIST;
        return nullptr;
    }
    return bus;
}

bool machineModel::isRecording(const std::string& busName)
{
    machineBus* const bus = find(busName);
    return bus != nullptr && bus->administration.isRecording();
}

bool machineModel::stopWave(const std::string& busName)
{
    machineBus* const bus = find(busName);
    if (bus == nullptr) {
        errno = ENODEV;
        return false;
    }
    return bus->administration.stopWave();
}

using openMachines = std::map<std::pair<std::string, realClock*>, std::weak_ptr<machineModel>>;

/// Those that stay open, the latest used first.
std::vector<std::shared_ptr<machineModel>>& keptMachines()
{
    // outlives static objects
    static auto* const kept = new std::vector<std::shared_ptr<machineModel>>;
    return *kept;
}

void keepOpen(const std::shared_ptr<machineModel>& model)
{
    auto& kept = keptMachines();
    const auto known = std::ranges::find(kept, model);
    if (known == kept.end()) {
        kept.insert(kept.begin(), model);
        kept.resize(std::min(kept.size(), mostKept));
    } else {
        std::rotate(kept.begin(), known, known + 1);
    }
}

/// @param clock  null: time is only counted
/// @param keep   whether the machine stays open without users
std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, realClock* clock, bool keep)
{
    std::error_code error;
    const std::filesystem::path place = std::filesystem::canonical(folder, error);
    if (error) {
        throw std::system_error{error, folder.string()};
    }
    // no fork happens while the map is made, either
    const std::scoped_lock lock{openingMutex()};
    // outlives static objects
    static auto* const opened = new openMachines;
    auto& known = (*opened)[{place.string(), clock}];
    auto model = known.lock();
    const bool unused = model.use_count() == 2;
    if (model == nullptr || !model->buses().stillStand()) {
        // its files were replaced: they are closed when its last user is done
        std::erase(keptMachines(), model);
        model = std::make_shared<machineModel>(place, clock);
        known = model;
    } else if (keep && unused) {
        model->buses().forgetChecks();
    }
    if (keep) {
        keepOpen(model);
    }
    return model;
}

} // namespace

bool machine::startWave(const std::string& busName, const std::string& node, const std::filesystem::path& file)
{
    return startWave(fullName(busName, node), file);
}

bool machine::stopWave(const std::string& busName, const std::string& node)
{
    return stopWave(fullName(busName, node));
}

std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, bool realTime)
{
    // outlives static objects
    static auto* const system = new systemClock;
    return openMachine(folder, realTime ? system : nullptr, true);
}

std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, realClock& clock)
{
    return openMachine(folder, &clock, false);
}

} // namespace kest::sim
