#include "sim/machinebuses.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <system_error>

namespace kest::sim
{

namespace
{

constexpr auto stateFileName = "machine.state";
// what the names of a machine's own files begin with
constexpr auto ownFiles = "machine.";
// of a state that has the faults of no machine file
constexpr std::uint64_t noFaultMark = 0;

} // namespace

machineBuses::machineBuses(const std::filesystem::path& folder, realClock* clock)
    : m_folder{folder}, m_clock{clock}, m_source{folder}, m_about{m_source.buses()}, m_buses(m_about.buses.size())
{
    openState();
}

void machineBuses::openStateFile()
{
    std::vector<std::size_t> records;
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        records.push_back(sharedBus::recordBytes(m_source.chipsOf(bus)));
    }
    m_states = std::make_unique<stateFile>(m_folder / stateFileName, records);
}

void machineBuses::openState()
{
    openStateFile();
    if (m_source.isByIndex() && !m_states->seemsUsable(m_source.layoutMark())) {
        // the text itself decides whether the state is another machine's
        m_source.whole();
        openStateFile();
    }
    m_layoutMark = m_source.layoutMark();
    if (!isUpToDate()) {
        bringUpToDate();
    }
    const stateFile::hold header{*m_states, m_states->headerLock()};
    m_source.keepIndex();
}

// Without a lock: the transactions under way on other buses, long ones in real time, hold up nobody who begins.
bool machineBuses::isUpToDate() const
{
    return m_states->seemsUsable(m_layoutMark) && m_states->seenFaultMark() == m_source.faultMark();
}

void machineBuses::bringUpToDate()
{
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
}

// Under the lock of all. What is made anew is what the text itself says.
void machineBuses::startAnew()
{
    m_source.whole();
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        prepareImages(made(bus));
    }
    m_states->renew(m_layoutMark);
    for (auto& bus : m_buses) {
        bus->administration.makeNew();
    }
    m_states->seal();
}

machineBus& machineBuses::made(std::size_t index)
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

void machineBuses::prepareImages(machineBus& bus) const
{
    bus.shared.chips().prepareImages(m_source.fileName());
    bus.prepared = true;
}

// @return what is damaged in the bus's record; empty: nothing, or the file is gone or another machine's
std::string machineBuses::damageOf(machineBus& bus, const stateFile::hold& lock) const
{
    return lock.held() && m_states->usable(m_layoutMark) ? bus.shared.damage() : std::string{};
}

// A bus that somebody is going to use. Its first user prepares the images; each user who finds nobody else there checks
// the state, and makes images that have gone missing.
machineBus& machineBuses::makeReady(std::size_t index)
{
    machineBus& bus = made(index);
    if (bus.checked) {
        return bus;
    }
    std::string what;
    {
        const stateFile::hold one{*m_states, index};
        if (bus.prepared) {
            bus.shared.chips().makeMissingImages();
        } else {
            prepareImages(bus);
        }
        what = damageOf(bus, one);
    }
    if (!what.empty()) {
        const stateFile::hold all{*m_states};
        // another process may have been faster, also with another machine
        if (const std::string still = damageOf(bus, all); !still.empty()) {
            setDamagedStateAside(still);
            startAnew();
            takeFileFaults();
        }
    }
    bus.checked = true;
    return bus;
}

void machineBuses::forgetChecks()
{
    for (auto& bus : m_buses) {
        if (bus != nullptr) {
            bus->checked = false;
        }
    }
}

// The copy lets a user find out what happened. The machine starts anew, so that nobody waits for what a damaged field
// promises.
void machineBuses::setDamagedStateAside(const std::string& what) const
{
    const std::string kept = m_states->setAside().filename().string();
    std::fprintf(stderr, "kest: %s: damaged: %s; it is kept as %s, and the machine starts anew\n",
                 (m_folder / stateFileName).c_str(), what.c_str(), kept.c_str());
}

// Under the lock of all.
void machineBuses::takeFileFaults()
{
    const auto about = m_source.whole();
    std::vector<faultRecord> records;
    for (const auto& what : about->faults) {
        records.push_back(makeFaultRecord(what, m_states->nextFaultNumber()));
        records.back().fromFile = true;
    }
    // until every bus has its own, they are those of no file: a process that is killed here leaves them to the next one
    m_states->setFaultMark(noFaultMark);
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

bool machineBuses::stillStand()
{
    // without a lock: a long transaction of one bus would hold up the users of all machines
    return m_source.stillHolds() && m_states->seemsUsable(m_source.layoutMark()) &&
           std::ranges::none_of(m_buses, [](const auto& bus) { return bus != nullptr && bus->shared.metDamage(); });
}

std::shared_ptr<const machineDescription> machineBuses::whole()
{
    const std::scoped_lock lock{openingMutex()};
    return m_source.whole();
}

machineBus& machineBuses::ready(std::size_t index)
{
    const std::scoped_lock lock{openingMutex()};
    return makeReady(index);
}

const std::vector<std::unique_ptr<machineBus>>& machineBuses::all()
{
    const std::scoped_lock lock{openingMutex()};
    if (std::ranges::count_if(m_buses, [](const auto& bus) { return bus == nullptr; }) > 1) {
        m_source.whole();
    }
    for (std::size_t bus = 0; bus < m_buses.size(); ++bus) {
        makeReady(bus);
    }
    return m_buses;
}

std::uint32_t machineBuses::takeFaultNumber()
{
    const stateFile::hold header{*m_states, m_states->headerLock()};
    return header.held() && m_states->usable(m_layoutMark) ? m_states->nextFaultNumber() : 0;
}

// An image may hold anything, also what looks like a waveform.
bool machineBuses::isOwnFile(const std::filesystem::path& file)
{
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(file, error);
    if (error || real.parent_path() != m_folder) {
        return false;
    }
    const std::string name = real.filename().string();
    return name.starts_with(ownFiles) || std::ranges::count(whole()->chips, name, &chipDescription::image) != 0;
}

} // namespace kest::sim
