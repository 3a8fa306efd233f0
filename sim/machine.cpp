#include "sim/machine.h"

#include "base/clock.h"
#include "base/descriptor.h"
#include "sim/busmodel.h"

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

/// The folder may be another user's: neither a FIFO nor a file without end holds anybody up.
std::string readText(const std::filesystem::path& file)
{
    const int in = ownDescriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat found {
    };
    if (in >= 0 && fstat(in, &found) == 0 && (!S_ISREG(found.st_mode) || found.st_size > longestTextBytes)) {
        close(in);
        throw std::runtime_error{file.string() +
                                 (S_ISREG(found.st_mode) ? ": is too large" : ": is not a regular file")};
    }
    std::string text;
    ssize_t got = in < 0 ? -1 : 1;
    for (std::array<char, 4096> piece{}; got > 0 || (got < 0 && in >= 0 && errno == EINTR);) {
        got = ::read(in, piece.data(), piece.size());
        text.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    const int error = errno;
    if (in >= 0) {
        close(in);
    }
    if (got < 0) {
        throw std::system_error{error, std::generic_category(), file.string() + ": cannot be read"};
    }
    return text;
}

class machineModel final : public machine, public std::enable_shared_from_this<machineModel>
{
public:
    machineModel(std::filesystem::path folder, std::string text, realClock* clock);

    std::shared_ptr<bus> findBus(const std::string& name, const std::string& node) override;
    [[nodiscard]] std::vector<std::string> busNames(const std::string& node) const override;
    [[nodiscard]] std::vector<chipInfo> chips() const override;
    [[nodiscard]] const std::filesystem::path& folder() const override { return place; }
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
    bool isOwnFile(const std::filesystem::path& file) const;
    void takeFileFaults();
    busModel* find(const std::string& name);

    const std::filesystem::path place;
    const std::string text;
    machineDescription about;
    std::unique_ptr<stateFile> states;
    std::vector<std::unique_ptr<busModel>> buses;
};

machineModel::machineModel(std::filesystem::path folder, std::string machineText, realClock* clock)
    : place{std::move(folder)}, text{std::move(machineText)}
{
    const std::string machineFile = (place / machineFileName).string();
    about = parseMachine(text, machineFile);
    for (std::size_t i = 0; i < about.buses.size(); ++i) {
        buses.push_back(std::make_unique<busModel>(about, i, place, clock));
    }
    openState(machineFile);
}

void machineModel::openState(const std::string& machineFile)
{
    std::vector<std::size_t> records;
    for (const auto& bus : buses) {
        records.push_back(bus->recordBytes());
    }
    states = std::make_unique<stateFile>(place / stateFileName, records);
    for (auto& bus : buses) {
        bus->attach(*states, about.layoutMark());
    }

    const stateFile::hold all{*states};
    if (!all.held()) {
        throw std::runtime_error{(place / stateFileName).string() + ": cannot be locked"};
    }
    for (auto& bus : buses) {
        bus->prepareImages(machineFile);
    }
    if (setDamagedStateAside() || !states->usable(about.layoutMark())) {
        states->renew(about.layoutMark());
        for (auto& bus : buses) {
            bus->makeNew();
        }
        states->seal();
    }
    if (states->faultMark() != about.faultMark()) {
        takeFileFaults();
    }
}

// A user can have it looked into; nobody waits for what a damaged field promises.
bool machineModel::setDamagedStateAside()
{
    std::string damage;
    if (!states->usable(about.layoutMark())) {
        damage = states->damage(about.layoutMark());
    } else {
        for (auto bus = buses.begin(); damage.empty() && bus != buses.end(); ++bus) {
            damage = (*bus)->damage();
        }
    }
    if (damage.empty()) {
        return false;
    }
    const std::string kept = states->setAside().filename().string();
    std::fprintf(stderr, "kest: %s: damaged: %s; it is kept as %s, and the machine starts anew\n",
                 (place / stateFileName).c_str(), damage.c_str(), kept.c_str());
    return true;
}

void machineModel::takeFileFaults()
{
    std::vector<faultRecord> records;
    for (const auto& what : about.faults) {
        records.push_back(makeFaultRecord(what, states->nextFaultNumber()));
        records.back().fromFile = true;
    }
    for (std::size_t bus = 0; bus < buses.size(); ++bus) {
        std::vector<faultRecord> own;
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (about.concerns(about.faults[i], bus)) {
                own.push_back(records[i]);
            }
        }
        buses[bus]->replaceFileFaults(own);
    }
    states->setFaultMark(about.faultMark());
}

bool machineModel::stillStandsFor(const std::string& machineText)
{
    const stateFile::hold one{*states, 0};
    return one.held() && machineText == text && states->usable(about.layoutMark()) &&
           std::ranges::none_of(buses, [](const auto& bus) { return bus->metDamage(); });
}

// The bus lives as long as its machine, and the other way round.
std::shared_ptr<bus> machineModel::findBus(const std::string& name, const std::string& node)
{
    for (auto& bus : buses) {
        if (bus->description().name == name && bus->description().node == node) {
            return {shared_from_this(), bus.get()};
        }
    }
    return nullptr;
}

std::vector<std::string> machineModel::busNames(const std::string& node) const
{
    std::vector<std::string> names;
    for (const auto& bus : about.buses) {
        if (bus.node == node) {
            names.push_back(bus.name);
        }
    }
    return names;
}

std::vector<chipInfo> machineModel::chips() const
{
    std::vector<chipInfo> list;
    for (const auto& chip : about.chips) {
        const auto& bus = about.buses[chip.bus];
        list.push_back({bus.name, bus.node, chip.typeName, chip.address, chip.behindHub, chip.hub, chip.port,
                        chip.image.empty() ? std::filesystem::path{} : place / chip.image});
    }
    return list;
}

std::vector<machine::registerValue> machineModel::registers()
{
    std::vector<registerValue> list;
    for (auto& bus : buses) {
        bus->registers(list);
    }
    return list;
}

void machineModel::powerCycle()
{
    for (auto& bus : buses) {
        bus->powerCycle();
    }
}

busModel* machineModel::find(const std::string& name)
{
    const auto found = about.findBus(name);
    return found ? buses[*found].get() : nullptr;
}

std::uint32_t machineModel::addFault(const fault& what)
{
    if (const std::string trouble = faultTrouble(what); !trouble.empty()) {
        throw std::invalid_argument{trouble};
    }
    if (!what.bus.empty() && find(what.bus) == nullptr) {
        throw std::invalid_argument{"no bus '" + what.bus + "'"};
    }
    if (!what.node.empty() && !about.hasNode(what.node)) {
        throw std::invalid_argument{"no bus on node '" + what.node + "'"};
    }
    std::uint32_t number = 0;
    {
        const stateFile::hold all{*states};
        if (all.held() && states->usable(about.layoutMark())) {
            number = states->nextFaultNumber();
        }
    }
    const auto record = makeFaultRecord(what, number);
    bool good = number != 0;
    for (std::size_t bus = 0; bus < buses.size(); ++bus) {
        if (good && about.concerns(what, bus)) {
            good = buses[bus]->addFault(record);
        }
    }
    if (!good) {
        clearFault(number);
        throw std::runtime_error{number == 0 ? "the machine is gone" : "no room for more faults"};
    }
    return number;
}

bool machineModel::clearFault(std::uint32_t number)
{
    bool cleared = false;
    for (auto& bus : buses) {
        cleared = bus->clearFaults(number) || cleared;
    }
    return cleared;
}

void machineModel::clearFaults()
{
    for (auto& bus : buses) {
        bus->clearFaults(std::nullopt);
    }
}

std::vector<machine::listedFault> machineModel::faults()
{
    std::vector<listedFault> list;
    for (auto& bus : buses) {
        bus->listFaults(list);
    }
    return list;
}

// An image may hold anything, also what looks like a waveform.
bool machineModel::isOwnFile(const std::filesystem::path& file) const
{
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(file, error);
    const std::string name = real.filename().string();
    return !error && (real.parent_path() == place &&
                      (name.starts_with(ownFiles) ||
                       std::ranges::find(about.chips, name, &chipDescription::image) != about.chips.end()));
}

bool machineModel::startWave(const std::string& busName, const std::filesystem::path& file)
{
    busModel* const bus = find(busName);
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
    return bus->startWave(absolute.string());
}

bool machineModel::stopWave(const std::string& busName)
{
    busModel* const bus = find(busName);
    if (bus == nullptr) {
        errno = ENODEV;
    }
    return bus != nullptr && bus->stopWave();
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
    // also no fork happens while the map is made
    const std::scoped_lock lock{openingMutex()};
    static auto* const opened =
        // outlives static objects
        new std::map<std::pair<std::string, realClock*>, std::weak_ptr<machineModel>>;
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
