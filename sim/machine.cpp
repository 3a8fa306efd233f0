#include "sim/machine.h"

#include "base/clock.h"
#include "sim/busadministration.h"
#include "sim/busmodel.h"
#include "sim/machinesource.h"
#include "sim/scenariofile.h"
#include "sim/sharedbus.h"
#include "sim/statefile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <system_error>

#include <time.h>

namespace kest::sim
{

namespace
{

constexpr auto stateFileName = "machine.state";
// what the names of a machine's own files begin with
constexpr auto ownFiles = "machine.";

// Machines that stay open without users: a program that opens one device after another parses the machine file once.
constexpr std::size_t mostKept = 4;

/// The system's monotonic clock.
class systemClock final : public realClock
{
public:
    std::uint64_t nowNs() override { return clockNs(CLOCK_MONOTONIC); }
    void sleepUntil(std::uint64_t nanoseconds) override
    {
        timespec until{};
        until.tv_sec = static_cast<time_t>(nanoseconds / nsPerSecond);
        until.tv_nsec = static_cast<long>(nanoseconds % nsPerSecond);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {}
    }
};

std::string nameOnNode(const std::string& bus, const std::string& node)
{
    return node.empty() ? bus : node + ":" + bus;
}

/// A bus: what its users share, and the two ways to use it.
struct machineBus {
    machineBus(std::shared_ptr<const machineDescription> all, std::size_t index, const std::filesystem::path& folder,
               realClock* clock)
        : about{std::move(all)}, shared{*about, index, folder, clock}
    {
    }
    const std::shared_ptr<const machineDescription> about;
    sharedBus shared;
    busModel wires{shared};
    busAdministration administration{shared};
    bool checked = false; ///< since the machine had its first user
};

/// Buses are made when they are first used: what nobody touches costs nothing.
class machineModel final : public machine, public std::enable_shared_from_this<machineModel>
{
public:
    machineModel(const std::filesystem::path& folder, realClock* clock);

    std::shared_ptr<bus> findBus(const std::string& name, const std::string& node) override;
    [[nodiscard]] std::vector<std::string> busNames(const std::string& node) const override;
    [[nodiscard]] std::vector<chipInfo> chips() const override;
    [[nodiscard]] const std::filesystem::path& folder() const override { return m_folder; }
    std::vector<registerValue> registers() override;
    bool powerCycle() override;
    std::uint32_t addFault(const fault& what) override;
    bool clearFault(std::uint32_t number) override;
    void clearFaults() override;
    std::vector<listedFault> faults() override;
    using machine::startWave, machine::stopWave;
    bool startWave(const std::string& busName, const std::filesystem::path& file) override;
    bool stopWave(const std::string& busName) override;
    void checkBuses() override { allBuses(); }
    [[nodiscard]] std::vector<std::string> nodes() const override;
    std::size_t play(const std::string& scenario, const std::string& fileName) override;

    /// Whether this object still stands for what is in the folder. Under the opening lock.
    bool stillStandsFor();
    /// Before the first user after a time without any. Under the opening lock.
    void forgetChecks();

private:
    // Under the opening lock.
    void openStateFile();
    void openState();
    void startAnew();
    machineBus& made(std::size_t index);
    machineBus& readyBus(std::size_t index);
    void takeFileFaults();

    void setDamagedStateAside(const std::string& what) const;
    [[nodiscard]] bool isOwnFile(const std::filesystem::path& file) const;
    [[nodiscard]] std::shared_ptr<const machineDescription> whole() const;
    std::uint32_t takeFaultNumber();
    bool giveFault(const fault& what, const faultRecord& record);
    void checkEvent(const eventDescription& what, std::size_t bus, const std::vector<eventRecord>& others);
    void addEvent(const eventDescription& what, std::vector<std::vector<eventRecord>>& perBus);
    machineBus* find(const std::string& name);
    const std::vector<std::unique_ptr<machineBus>>& allBuses();

    const std::filesystem::path m_folder;
    realClock* const m_clock;
    mutable machineSource m_source;
    const machineDescription& m_about; ///< buses without their chips
    std::uint64_t m_layoutMark = 0; ///< that the state has
    std::unique_ptr<stateFile> m_states;
    std::vector<std::unique_ptr<machineBus>> m_buses; ///< null: not made yet
};

machineModel::machineModel(const std::filesystem::path& folder, realClock* clock)
    : m_folder{folder}, m_clock{clock}, m_source{folder}, m_about{m_source.buses()}, m_buses(m_about.buses.size())
{
    openState();
}

void machineModel::openStateFile()
{
    std::vector<std::size_t> records;
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        records.push_back(sharedBus::recordBytes(m_source.chipsOf(bus)));
    }
    m_states = std::make_unique<stateFile>(m_folder / stateFileName, records);
}

void machineModel::openState()
{
    openStateFile();
    if (m_source.isByIndex() && !m_states->seemsUsable(m_source.layoutMark())) {
        // the text itself decides whether the state is another machine's
        m_source.whole();
        openStateFile();
    }
    m_layoutMark = m_source.layoutMark();
    const stateFile::hold all{*m_states};
    if (!all.held()) {
        throw std::runtime_error{(m_folder / stateFileName).string() + ": cannot be locked"};
    }
    if (!m_states->usable(m_layoutMark)) {
        if (const std::string what = m_states->damage(m_layoutMark); !what.empty()) {
            setDamagedStateAside(what);
        }
        startAnew();
    }
    if (m_states->faultMark() != m_source.faultMark()) {
        takeFileFaults();
    }
    m_source.keepIndex();
}

// Under the lock of all. What is made anew is what the text itself says.
void machineModel::startAnew()
{
    m_source.whole();
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        made(bus).shared.chips().prepareImages(m_source.fileName());
    }
    m_states->renew(m_layoutMark);
    for (auto& bus : m_buses) {
        bus->administration.makeNew();
    }
    m_states->seal();
}

machineBus& machineModel::made(std::size_t index)
{
    auto& bus = m_buses[index];
    if (bus == nullptr) {
        const auto about = m_source.withChipsOf(index);
        if (m_source.layoutMark() != m_layoutMark) {
            // this state is that of another machine; the index that hid it is gone
            throw std::runtime_error{m_source.fileName() + ": had an index that was wrong: open the machine again"};
        }
        auto fresh = std::make_unique<machineBus>(about, index, m_folder, m_clock);
        fresh->shared.attach(*m_states, m_layoutMark);
        bus = std::move(fresh);
    }
    return *bus;
}

// A bus that somebody is going to use. Its first user prepares the images; each user who finds nobody else there checks
// the state, and makes images that have gone missing.
machineBus& machineModel::readyBus(std::size_t index)
{
    const bool isNew = m_buses[index] == nullptr;
    machineBus& bus = made(index);
    if (bus.checked) {
        return bus;
    }
    std::string what;
    {
        const stateFile::hold one{*m_states, index};
        if (isNew) {
            try {
                bus.shared.chips().prepareImages(m_source.fileName());
            } catch (...) {
                m_buses[index].reset();
                throw;
            }
        } else {
            bus.shared.chips().makeMissingImages();
        }
        what = m_states->usable(m_layoutMark) ? bus.shared.damage() : std::string{};
    }
    if (!what.empty()) {
        const stateFile::hold all{*m_states};
        // another process may have been faster
        if (const std::string still = bus.shared.damage(); !still.empty()) {
            setDamagedStateAside(still);
            startAnew();
            takeFileFaults();
        }
    }
    bus.checked = true;
    return bus;
}

void machineModel::forgetChecks()
{
    for (auto& bus : m_buses) {
        if (bus != nullptr) {
            bus->checked = false;
        }
    }
}

// The copy lets a user find out what happened. The machine starts anew, so that nobody waits for what a damaged field
// promises.
void machineModel::setDamagedStateAside(const std::string& what) const
{
    const std::string kept = m_states->setAside().filename().string();
    std::fprintf(stderr, "kest: %s: damaged: %s; it is kept as %s, and the machine starts anew\n",
                 (m_folder / stateFileName).c_str(), what.c_str(), kept.c_str());
}

// Under the lock of all.
void machineModel::takeFileFaults()
{
    const auto about = m_source.whole();
    std::vector<faultRecord> records;
    for (const auto& what : about->faults) {
        records.push_back(makeFaultRecord(what, m_states->nextFaultNumber()));
        records.back().fromFile = true;
    }
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        std::vector<faultRecord> own;
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (about->concerns(about->faults[i], bus)) {
                own.push_back(records[i]);
            }
        }
        made(bus).administration.replaceFileFaults(own);
    }
    m_states->setFaultMark(m_source.faultMark());
}

bool machineModel::stillStandsFor()
{
    // without a lock: a long transaction of one bus would hold up the users of all machines
    return m_source.stillHolds() && m_states->seemsUsable(m_source.layoutMark()) &&
           std::ranges::none_of(m_buses, [](const auto& bus) { return bus != nullptr && bus->shared.metDamage(); });
}

const std::vector<std::unique_ptr<machineBus>>& machineModel::allBuses()
{
    const std::scoped_lock lock{openingMutex()};
    if (std::ranges::count_if(m_buses, [](const auto& bus) { return bus == nullptr; }) > 1) {
        m_source.whole();
    }
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        readyBus(bus);
    }
    return m_buses;
}

// The bus lives as long as its machine, and the other way round.
std::shared_ptr<bus> machineModel::findBus(const std::string& name, const std::string& node)
{
    for (std::size_t index = 0; index < m_buses.size(); ++index) {
        const busDescription& about = m_about.buses[index];
        if (about.name == name && about.node == node) {
            const std::scoped_lock lock{openingMutex()};
            return {shared_from_this(), &readyBus(index).wires};
        }
    }
    return nullptr;
}

std::vector<std::string> machineModel::busNames(const std::string& node) const
{
    std::vector<std::string> names;
    for (const auto& bus : m_about.buses) {
        if (bus.node == node) {
            names.push_back(bus.name);
        }
    }
    return names;
}

std::shared_ptr<const machineDescription> machineModel::whole() const
{
    const std::scoped_lock lock{openingMutex()};
    return m_source.whole();
}

std::vector<chipInfo> machineModel::chips() const
{
    const auto about = whole();
    std::vector<chipInfo> list;
    for (const auto& chip : about->chips) {
        const auto& bus = m_about.buses[chip.bus];
        list.push_back({.bus = bus.name,
                        .node = bus.node,
                        .type = chip.typeName,
                        .address = chip.address,
                        .behindHub = chip.behindHub,
                        .hubAddress = chip.hub,
                        .port = chip.port,
                        .image = chip.image.empty() ? std::filesystem::path{} : m_folder / chip.image});
    }
    return list;
}

std::vector<machine::registerValue> machineModel::registers()
{
    std::vector<chipListing> chips;
    for (const auto& bus : allBuses()) {
        bus->administration.listRegisters(chips);
    }
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
    for (const auto& bus : allBuses()) {
        done = bus->administration.powerCycle() && done;
    }
    return done;
}

machineBus* machineModel::find(const std::string& name)
{
    const auto found = m_about.findBus(name);
    if (!found) {
        return nullptr;
    }
    const std::scoped_lock lock{openingMutex()};
    return &readyBus(*found);
}

std::vector<std::string> machineModel::nodes() const
{
    std::vector<std::string> all;
    for (const auto& bus : m_about.buses) {
        if (std::ranges::find(all, bus.node) == all.end()) {
            all.push_back(bus.node);
        }
    }
    return all;
}

std::uint32_t machineModel::addFault(const fault& asked)
{
    fault what = asked;
    if (!what.bus.empty() && !what.node.empty()) {
        what.bus = nameOnNode(what.bus, what.node);
        what.node.clear();
    }
    if (const std::string trouble = faultTrouble(what); !trouble.empty()) {
        throw std::invalid_argument{trouble};
    }
    if (!what.bus.empty() && !m_about.findBus(what.bus)) {
        throw std::invalid_argument{"no bus '" + what.bus + "'"};
    }
    if (!what.node.empty() && !m_about.hasNode(what.node)) {
        throw std::invalid_argument{"no bus on node '" + what.node + "'"};
    }
    const std::uint32_t number = takeFaultNumber();
    if (number == 0) {
        throw std::runtime_error{"the machine is gone"};
    }
    if (!giveFault(what, makeFaultRecord(what, number))) {
        clearFault(number);
        throw std::runtime_error{"no room for more faults"};
    }
    return number;
}

// @return 0 when the machine is gone
std::uint32_t machineModel::takeFaultNumber()
{
    const stateFile::hold all{*m_states};
    return all.held() && m_states->usable(m_layoutMark) ? m_states->nextFaultNumber() : 0;
}

// @return false when one of the buses has no room for it
bool machineModel::giveFault(const fault& what, const faultRecord& record)
{
    const auto& buses = allBuses();
    for (std::size_t bus = 0; bus < buses.size(); ++bus) {
        if (m_about.concerns(what, bus) && !buses[bus]->administration.addFault(record)) {
            return false;
        }
    }
    return true;
}

// @param others  events that the bus has already
void machineModel::checkEvent(const eventDescription& what, std::size_t bus, const std::vector<eventRecord>& others)
{
    const eventRecord& event = what.event;
    const busChips& chips = m_buses[bus]->shared.chips();
    const auto fail = [&what](const std::string& trouble) { throw std::runtime_error{what.place + ": " + trouble}; };
    if (event.isOfChip() && !chips.has(event.address, event.hub, event.port)) {
        fail("no chip at " + addressText(event.address) + " there");
    }
    if (event.kind == eventKind::temperature && !chips.hasSensor(event.address, event.hub, event.port)) {
        fail("the chip at " + addressText(event.address) + " measures no temperature");
    }
    if (others.size() == mostEvents) {
        fail("more than " + std::to_string(mostEvents) + " events on a bus");
    }
    const auto faults = static_cast<std::size_t>(std::ranges::count(others, eventKind::fault, &eventRecord::kind));
    if (event.kind == eventKind::fault && faults >= m_buses[bus]->administration.roomForFaults()) {
        fail("no room for more faults");
    }
}

// @param perBus  gets the event for each bus that it concerns
void machineModel::addEvent(const eventDescription& what, std::vector<std::vector<eventRecord>>& perBus)
{
    faultDescription where;
    where.bus = what.bus.empty() ? what.bus : nameOnNode(what.bus, what.node);
    where.node = what.bus.empty() ? what.node : std::string{};
    eventRecord event = what.event;
    if (event.kind == eventKind::fault) {
        event.fault = makeFaultRecord(what.fault, takeFaultNumber());
    }
    bool concerned = false;
    for (std::size_t bus = 0; bus < perBus.size(); ++bus) {
        if (!m_about.concerns(where, bus)) {
            continue;
        }
        concerned = true;
        event.fault.ofEveryBus = where.bus.empty() && where.node.empty();
        event.fault.ofNode = !where.node.empty();
        checkEvent(what, bus, perBus[bus]);
        perBus[bus].push_back(event);
    }
    if (!concerned) {
        throw std::runtime_error{what.place + ": no bus '" + (where.bus.empty() ? where.node : where.bus) + "'"};
    }
}

std::size_t machineModel::play(const std::string& scenario, const std::string& fileName)
{
    const std::vector<eventDescription> events = parseScenario(scenario, fileName);
    const auto& buses = allBuses();
    std::vector<std::vector<eventRecord>> perBus(buses.size());
    for (const eventDescription& what : events) {
        addEvent(what, perBus);
    }
    if (!std::ranges::all_of(buses, [](const auto& bus) { return bus->administration.usable(); })) {
        throw std::system_error{ENODEV, std::generic_category(), fileName + ": nothing has changed: a bus is unusable"};
    }
    for (std::size_t bus = 0; bus < buses.size(); ++bus) {
        if (!buses[bus]->administration.play(std::move(perBus[bus]))) {
            throw std::system_error{ENODEV, std::generic_category(), fileName + ": a bus did not take its events"};
        }
    }
    return events.size();
}

bool machineModel::clearFault(std::uint32_t number)
{
    bool cleared = false;
    for (const auto& bus : allBuses()) {
        cleared = bus->administration.clearFaults(number) || cleared;
    }
    return cleared;
}

void machineModel::clearFaults()
{
    for (const auto& bus : allBuses()) {
        bus->administration.clearFaults(std::nullopt);
    }
}

std::vector<machine::listedFault> machineModel::faults()
{
    std::vector<listedFault> list;
    for (const auto& bus : allBuses()) {
        bus->administration.listFaults(list);
    }
    return list;
}

// An image may hold anything, also what looks like a waveform.
bool machineModel::isOwnFile(const std::filesystem::path& file) const
{
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(file, error);
    if (error || real.parent_path() != m_folder) {
        return false;
    }
    const std::string name = real.filename().string();
    return name.starts_with(ownFiles) || std::ranges::count(whole()->chips, name, &chipDescription::image) != 0;
}

bool machineModel::startWave(const std::string& busName, const std::filesystem::path& file)
{
    machineBus* const bus = find(busName);
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(file, error);
    if (bus == nullptr || file.empty()) {
        errno = bus == nullptr ? ENODEV : ENOENT;
        return false;
    }
    if (isOwnFile(absolute)) {
        errno = EEXIST;
        return false;
    }
    return bus->administration.startWave(absolute.string());
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

} // namespace

namespace
{

using openMachines = std::map<std::pair<std::string, realClock*>, std::weak_ptr<machineModel>>;

/// Puts a machine first among those that stay open.
void keepOpen(const std::shared_ptr<machineModel>& model)
{
    // outlives static objects
    static auto* const kept = new std::vector<std::shared_ptr<machineModel>>;
    const auto known = std::ranges::find(*kept, model);
    if (known == kept->end()) {
        kept->insert(kept->begin(), model);
        kept->resize(std::min(kept->size(), mostKept));
    } else {
        std::rotate(kept->begin(), known, known + 1);
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
    if (model == nullptr || !model->stillStandsFor()) {
        model = std::make_shared<machineModel>(place, clock);
        known = model;
    } else if (keep && unused) {
        model->forgetChecks();
    }
    if (keep) {
        keepOpen(model);
    }
    return model;
}

} // namespace

bool machine::startWave(const std::string& busName, const std::string& node, const std::filesystem::path& file)
{
    return startWave(nameOnNode(busName, node), file);
}

bool machine::stopWave(const std::string& busName, const std::string& node)
{
    return stopWave(nameOnNode(busName, node));
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
