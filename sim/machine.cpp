#include "sim/machine.h"

#include "base/clock.h"
#include "base/descriptor.h"
#include "sim/busadministration.h"
#include "sim/busmodel.h"
#include "sim/machinefile.h"
#include "sim/sharedbus.h"
#include "sim/statefile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

constexpr auto machineFileName = "machine.toml";
constexpr auto stateFileName = "machine.state";
// what the names of a machine's own files begin with
constexpr auto ownFiles = "machine.";

// of a machine file
constexpr off_t longestTextBytes = 1 << 20;

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

[[noreturn]] void failToRead(const std::filesystem::path& file)
{
    throw std::system_error{errno, std::generic_category(), file.string() + ": cannot be read"};
}

// The folder may be another user's: neither a FIFO nor a file without end holds anybody up.
std::string readText(const std::filesystem::path& file)
{
    const fileDescriptor in{ownDescriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY))};
    if (!in.valid()) {
        failToRead(file);
    }
    struct stat found {
    };
    if (fstat(in.number(), &found) == 0 && !S_ISREG(found.st_mode)) {
        throw std::runtime_error{file.string() + ": is not a regular file"};
    }
    if (found.st_size > longestTextBytes) {
        throw std::runtime_error{file.string() + ": is too large"};
    }
    std::string text;
    std::array<char, 4096> piece{};
    for (;;) {
        const ssize_t got = uninterrupted([&] { return ::read(in.number(), piece.data(), piece.size()); });
        if (got < 0) {
            failToRead(file);
        }
        if (got == 0) {
            return text;
        }
        text.append(piece.data(), static_cast<std::size_t>(got));
    }
}

/// A bus: what its users share, and the two ways to use it.
struct machineBus {
    machineBus(const machineDescription& all, std::size_t index, const std::filesystem::path& folder, realClock* clock)
        : shared{all, index, folder, clock}
    {
    }
    sharedBus shared;
    busModel wires{shared};
    busAdministration administration{shared};
};

class machineModel final : public machine, public std::enable_shared_from_this<machineModel>
{
public:
    machineModel(std::filesystem::path folder, std::string text, realClock* clock);

    std::shared_ptr<bus> findBus(const std::string& name, const std::string& node) override;
    [[nodiscard]] std::vector<std::string> busNames(const std::string& node) const override;
    [[nodiscard]] std::vector<chipInfo> chips() const override;
    [[nodiscard]] const std::filesystem::path& folder() const override { return m_folder; }
    std::vector<registerValue> registers() override;
    void powerCycle() override;
    std::uint32_t addFault(const fault& what) override;
    bool clearFault(std::uint32_t number) override;
    void clearFaults() override;
    std::vector<listedFault> faults() override;
    bool startWave(const std::string& busName, const std::filesystem::path& file) override;
    bool stopWave(const std::string& busName) override;

    /// Whether this object still stands for what is in the folder.
    bool stillStandsFor(const std::string& machineText);

private:
    void openState(const std::string& machineFile);
    bool setDamagedStateAside();
    [[nodiscard]] std::string damage();
    [[nodiscard]] bool isOwnFile(const std::filesystem::path& file) const;
    void takeFileFaults();
    std::uint32_t takeFaultNumber();
    bool giveFault(const fault& what, const faultRecord& record);
    machineBus* find(const std::string& name);

    const std::filesystem::path m_folder;
    const std::string m_text;
    machineDescription m_about;
    std::unique_ptr<stateFile> m_states;
    std::vector<std::unique_ptr<machineBus>> m_buses;
};

machineModel::machineModel(std::filesystem::path folder, std::string text, realClock* clock)
    : m_folder{std::move(folder)}, m_text{std::move(text)}
{
    const std::string machineFile = (m_folder / machineFileName).string();
    m_about = parseMachine(m_text, machineFile);
    for (std::size_t i = 0; i < m_about.buses.size(); ++i) {
        m_buses.push_back(std::make_unique<machineBus>(m_about, i, m_folder, clock));
    }
    openState(machineFile);
}

void machineModel::openState(const std::string& machineFile)
{
    const std::uint64_t layout = m_about.layoutMark();
    std::vector<std::size_t> records;
    for (const auto& bus : m_buses) {
        records.push_back(bus->shared.recordBytes());
    }
    m_states = std::make_unique<stateFile>(m_folder / stateFileName, records);
    for (auto& bus : m_buses) {
        bus->shared.attach(*m_states, layout);
    }

    const stateFile::hold all{*m_states};
    if (!all.held()) {
        throw std::runtime_error{(m_folder / stateFileName).string() + ": cannot be locked"};
    }
    for (auto& bus : m_buses) {
        bus->shared.chips().prepareImages(machineFile);
    }
    if (setDamagedStateAside() || !m_states->usable(layout)) {
        m_states->renew(layout);
        for (auto& bus : m_buses) {
            bus->administration.makeNew();
        }
        m_states->seal();
    }
    if (m_states->faultMark() != m_about.faultMark()) {
        takeFileFaults();
    }
}

// What is damaged in the state file; empty: nothing.
std::string machineModel::damage()
{
    if (!m_states->usable(m_about.layoutMark())) {
        return m_states->damage(m_about.layoutMark());
    }
    for (auto& bus : m_buses) {
        if (std::string what = bus->shared.damage(); !what.empty()) {
            return what;
        }
    }
    return {};
}

// The copy lets a user find out what happened. The machine starts anew, so that nobody waits for what a damaged field
// promises.
bool machineModel::setDamagedStateAside()
{
    const std::string what = damage();
    if (what.empty()) {
        return false;
    }
    const std::string kept = m_states->setAside().filename().string();
    std::fprintf(stderr, "kest: %s: damaged: %s; it is kept as %s, and the machine starts anew\n",
                 (m_folder / stateFileName).c_str(), what.c_str(), kept.c_str());
    return true;
}

void machineModel::takeFileFaults()
{
    std::vector<faultRecord> records;
    for (const auto& what : m_about.faults) {
        records.push_back(makeFaultRecord(what, m_states->nextFaultNumber(), m_about.seed));
        records.back().fromFile = true;
    }
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        std::vector<faultRecord> own;
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (m_about.concerns(m_about.faults[i], bus)) {
                own.push_back(records[i]);
            }
        }
        m_buses[bus]->administration.replaceFileFaults(own);
    }
    m_states->setFaultMark(m_about.faultMark());
}

bool machineModel::stillStandsFor(const std::string& machineText)
{
    const stateFile::hold one{*m_states, 0};
    return one.held() && machineText == m_text && m_states->usable(m_about.layoutMark()) &&
           std::ranges::none_of(m_buses, [](const auto& bus) { return bus->shared.metDamage(); });
}

// The bus lives as long as its machine, and the other way round.
std::shared_ptr<bus> machineModel::findBus(const std::string& name, const std::string& node)
{
    for (auto& bus : m_buses) {
        const busDescription& about = bus->shared.description();
        if (about.name == name && about.node == node) {
            return {shared_from_this(), &bus->wires};
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

std::vector<chipInfo> machineModel::chips() const
{
    std::vector<chipInfo> list;
    for (const auto& chip : m_about.chips) {
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
    for (auto& bus : m_buses) {
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

void machineModel::powerCycle()
{
    for (auto& bus : m_buses) {
        bus->administration.powerCycle();
    }
}

machineBus* machineModel::find(const std::string& name)
{
    const auto found = m_about.findBus(name);
    return found ? m_buses[*found].get() : nullptr;
}

std::uint32_t machineModel::addFault(const fault& what)
{
    if (const std::string trouble = faultTrouble(what); !trouble.empty()) {
        throw std::invalid_argument{trouble};
    }
    if (!what.bus.empty() && find(what.bus) == nullptr) {
        throw std::invalid_argument{"no bus '" + what.bus + "'"};
    }
    if (!what.node.empty() && !m_about.hasNode(what.node)) {
        throw std::invalid_argument{"no bus on node '" + what.node + "'"};
    }
    const std::uint32_t number = takeFaultNumber();
    if (number == 0) {
        throw std::runtime_error{"the machine is gone"};
    }
    if (!giveFault(what, makeFaultRecord(what, number, m_about.seed))) {
        clearFault(number);
        throw std::runtime_error{"no room for more faults"};
    }
    return number;
}

// @return 0 when the machine is gone
std::uint32_t machineModel::takeFaultNumber()
{
    const stateFile::hold all{*m_states};
    return all.held() && m_states->usable(m_about.layoutMark()) ? m_states->nextFaultNumber() : 0;
}

// @return false when one of the buses has no room for it
bool machineModel::giveFault(const fault& what, const faultRecord& record)
{
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        if (m_about.concerns(what, bus) && !m_buses[bus]->administration.addFault(record)) {
            return false;
        }
    }
    return true;
}

bool machineModel::clearFault(std::uint32_t number)
{
    bool cleared = false;
    for (auto& bus : m_buses) {
        cleared = bus->administration.clearFaults(number) || cleared;
    }
    return cleared;
}

void machineModel::clearFaults()
{
    for (auto& bus : m_buses) {
        bus->administration.clearFaults(std::nullopt);
    }
}

std::vector<machine::listedFault> machineModel::faults()
{
    std::vector<listedFault> list;
    for (auto& bus : m_buses) {
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
    return name.starts_with(ownFiles) ||
           std::ranges::find(m_about.chips, name, &chipDescription::image) != m_about.chips.end();
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

/// @param clock  null: time is only counted
std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, realClock* clock)
{
    std::error_code error;
    const std::filesystem::path place = std::filesystem::canonical(folder, error);
    if (error) {
        throw std::system_error{error, folder.string()};
    }
    const std::string text = readText(place / machineFileName);
    // no fork happens while the map is made, either
    const std::scoped_lock lock{openingMutex()};
    // outlives static objects
    static auto* const opened = new std::map<std::pair<std::string, realClock*>, std::weak_ptr<machineModel>>;
    auto& known = (*opened)[{place.string(), clock}];
    auto model = known.lock();
    if (model == nullptr || !model->stillStandsFor(text)) {
        model = std::make_shared<machineModel>(place, text, clock);
        known = model;
    }
    return model;
}

} // namespace

std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, bool realTime)
{
    // outlives static objects
    static auto* const system = new systemClock;
    return openMachine(folder, realTime ? system : nullptr);
}

std::shared_ptr<machine> openMachine(const std::filesystem::path& folder, realClock& clock)
{
    return openMachine(folder, &clock);
}

} // namespace kest::sim
