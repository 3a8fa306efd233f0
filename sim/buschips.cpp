#include "sim/buschips.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kest::sim
{

namespace
{

// Pin 15 of an LED driver is the reset line of two hubs.
constexpr std::string_view resetDriverType = "PCA9552";
constexpr unsigned resetPin = 15;
struct resetDriverRow {
    std::uint8_t hub;
    std::uint8_t driver;
};
constexpr std::array resetDrivers{
    resetDriverRow{.hub = 0x80, .driver = 0xC0},
    resetDriverRow{.hub = 0x88, .driver = 0xC0},
    resetDriverRow{.hub = 0x82, .driver = 0xC2},
    resetDriverRow{.hub = 0x8A, .driver = 0xC2},
};

void cyclePower(chip& of, std::uint64_t now)
{
    of.losePower(now);
    of.powerUp();
    of.poweredAt(now);
}

} // namespace

busChips::busChips(const machineDescription& all, std::size_t bus, const std::filesystem::path& folder)
    : m_folder{folder}
{
    for (const auto& chip : all.chips) {
        if (chip.bus == bus) {
            m_members.emplace_back(all, chip, static_cast<std::uint32_t>(m_members.size()), folder);
        }
    }
    for (auto& member : m_members) {
        if (!member.about().behindHub) {
            connectToBus(member);
        }
    }
    for (auto& member : m_members) {
        if (member.about().protectChip != 0) {
            connectWriteProtection(member);
        }
        if (member.about().behindHub) {
            connectToHub(member);
        } else if (member.about().typeName == resetDriverType) {
            connectResetLines(member);
        }
    }
}

void busChips::connectToBus(storedChip& added)
{
    for (const std::uint8_t address : added.about().answers()) {
        m_at.at(address >> 1) = &added;
    }
}

void busChips::connectToHub(storedChip& added)
{
    const chipDescription& about = added.about();
    const std::uint32_t offsetBytes = about.kind == chipKind::eeprom ? eepromTypes.at(about.type).offsetBytes : 1;
    auto& hub = static_cast<hub922&>(m_at.at(about.hub >> 1)->model());
    for (const std::uint8_t address : about.answers()) {
        hub.attach(
            about.port, address, [this, &added]() -> chip& { return added.in(m_use); }, offsetBytes);
    }
}

void busChips::connectWriteProtection(const storedChip& part)
{
    const auto expander = std::ranges::find_if(
        m_members, [&](const storedChip& other) { return other.about().drivesProtectionOf(part.about()); });
    part.model().followPin([this, &pins = *expander, pin = part.about().protectPin](std::uint64_t now) {
        return !use<pca955x>(pins).isLow(pin, now);
    });
}

void busChips::connectResetLines(storedChip& driver)
{
    for (const auto& row : resetDrivers) {
        storedChip* const hub = m_at.at(row.hub >> 1);
        if (row.driver == driver.about().address && hub != nullptr && hub->about().kind == chipKind::hub) {
            static_cast<hub922&>(hub->model()).connectResetLine();
            m_resetLines.push_back({hub, &driver});
        }
    }
}

std::optional<std::size_t> busChips::numberOf(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const
{
    const auto found = std::ranges::find_if(m_members, [&](const storedChip& each) {
        const chipDescription& about = each.about();
        return about.address == address && about.behindHub == (hub != 0) && about.hub == hub && about.port == port;
    });
    return found == m_members.end() ? std::nullopt : std::optional{static_cast<std::size_t>(found - m_members.begin())};
}

storedChip* busChips::findMember(std::uint8_t address, std::uint8_t hub, std::uint8_t port)
{
    const auto number = numberOf(address, hub, port);
    return number ? &m_members[*number] : nullptr;
}

bool busChips::hasSensor(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const
{
    const auto number = numberOf(address, hub, port);
    return number && m_members[*number].about().kind == chipKind::sensor;
}

sensor* busChips::findSensor(std::uint8_t address, std::uint8_t hub, std::uint8_t port)
{
    return hasSensor(address, hub, port) ? &use<sensor>(*findMember(address, hub, port)) : nullptr;
}

chip* busChips::find(std::uint8_t address)
{
    storedChip* const found = m_at[address >> 1];
    return found != nullptr && found->in(m_use).isThere() ? &found->model() : nullptr;
}

hub922* busChips::findHub(std::uint8_t address)
{
    storedChip* const found = m_at[address >> 1];
    const bool isHub = found != nullptr && found->about().kind == chipKind::hub;
    return isHub && found->in(m_use).isThere() ? &use<hub922>(*found) : nullptr;
}

// What loses its power when a chip is taken out: the chip, and those in their places behind a hub.
std::vector<chip*> busChips::poweredThrough(const storedChip& source)
{
    std::vector<chip*> found;
    for (auto& member : m_members) {
        const bool isBehind = source.about().kind == chipKind::hub && member.about().behindHub &&
                              member.about().hub == source.about().address;
        if ((&member == &source || isBehind) && member.in(m_use).isThere()) {
            found.push_back(&member.model());
        }
    }
    return found;
}

bool busChips::remove(std::uint8_t address, std::uint8_t hub, std::uint8_t port, std::uint64_t now)
{
    storedChip* const found = findMember(address, hub, port);
    if (found == nullptr || !found->in(m_use).isThere()) {
        return false;
    }
    for (chip* const each : poweredThrough(*found)) {
        cyclePower(*each, now);
    }
    found->model().putInPlace(false);
    return true;
}

void busChips::insert(std::uint8_t address, std::uint8_t hub, std::uint8_t port, std::uint64_t now)
{
    storedChip* const found = findMember(address, hub, port);
    if (found == nullptr || found->in(m_use).isThere()) {
        return;
    }
    found->model().putInPlace(true);
    for (chip* const each : poweredThrough(*found)) {
        each->powerUp();
        each->poweredAt(now);
    }
}

// A line that blinks may have been low and high again with nobody looking: then the hub has been through a reset.
void busChips::driveResetLines(std::vector<faultRecord>& faults, std::uint64_t now)
{
    for (const auto& line : m_resetLines) {
        auto& hub = use<hub922>(*line.hub);
        const auto& driver = use<pca955x>(*line.driver);
        if (!hub.inReset() && driver.hasBeenLow(resetPin, now)) {
            endHubFaults(faults, line.hub->about().address, true);
            hub.resetLine(true);
        }
        if (hub.inReset() && !driver.isLow(resetPin, now)) {
            hub.resetLine(false);
        }
    }
    // two hubs may have one driver
    for (const auto& line : m_resetLines) {
        use<pca955x>(*line.driver).watched(now);
    }
}

void busChips::beginUse(std::span<std::uint8_t> records, busState& state)
{
    endUse();
    m_use.records = records;
    m_use.busTime = state.now;
    m_use.page = &state.page;
    m_use.faults.clear();
    std::ranges::transform(state.faults, std::back_inserter(m_use.faults), &faultRecord::number);
}

void busChips::loadAll()
{
    for (auto& member : m_members) {
        member.in(m_use);
    }
}

void busChips::store(std::span<const std::uint8_t> from, std::span<std::uint8_t> into)
{
    if (!into.empty()) {
        std::memcpy(into.data(), from.data(), into.size());
    }
    for (const storedChip* const each : m_use.loaded) {
        each->store(into);
    }
    m_use.records = into;
}

void busChips::endUse()
{
    for (storedChip* const each : m_use.loaded) {
        each->endUse();
    }
    m_use.loaded.clear();
    m_use.damage = nullptr;
}

void busChips::prepareImages(const std::string& machineFile)
{
    for (const auto& member : m_members) {
        if (member.cells() == nullptr) {
            continue;
        }
        int error = 0;
        const std::string trouble = member.cells()->prepare(error);
        std::string where = machineFile + ":" + member.about().place + ": image '" + member.about().image + "'";
        if (error != 0) {
            throw std::system_error{error, std::generic_category(), where};
        }
        if (!trouble.empty()) {
            throw std::runtime_error{where.append(": ").append(trouble)};
        }
    }
}

// One look at the folder, and not one at each image, when no name has gone from it.
void busChips::makeMissingImages()
{
    if (m_folder.isUnchanged()) {
        return;
    }
    m_folder.note();
    bool complete = true;
    for (const auto& member : m_members) {
        complete = (member.cells() == nullptr || member.cells()->makeWhenMissing()) && complete;
    }
    if (!complete) {
        m_folder.forget();
    }
}

bool busChips::holds(const pageWrite& page) const
{
    return page.chip < m_members.size() && m_members[page.chip].cells() != nullptr &&
           m_members[page.chip].cells()->holds(page);
}

bool busChips::store(const pageWrite& page)
{
    storedChip& of = m_members[page.chip];
    of.in(m_use);
    return of.cells()->store(page);
}

bool busChips::imageLost() const
{
    return std::ranges::any_of(
        m_use.loaded, [](const storedChip* each) { return each->cells() != nullptr && each->cells()->isLost(); });
}

void busChips::losePower(std::uint64_t now)
{
    for (auto& member : m_members) {
        cyclePower(member.in(m_use), now);
    }
}

bool busChips::settle()
{
    return std::ranges::all_of(m_members, [this](storedChip& each) { return each.in(m_use).settle(); });
}

void busChips::asNew()
{
    for (auto& member : m_members) {
        chip& model = member.unread(m_use);
        model.forgetChoices();
        model.putInPlace(true);
        model.asNew();
    }
}

void busChips::endEffects(const faultEnded& ended)
{
    for (auto& member : m_members) {
        member.in(m_use).endEffects(ended);
    }
}

std::vector<chipListing> busChips::list(std::uint64_t now)
{
    std::vector<chipListing> listings;
    for (auto& member : m_members) {
        chip& model = member.in(m_use);
        listings.push_back({member.label(), model.list(now)});
        if (!model.isThere()) {
            listings.back().registers = {{"removed", 1, "answers nothing until it is inserted"}};
        } else if (member.about().behindHub && findHub(member.about().hub) == nullptr) {
            listings.back().registers = {{"removed", 1, "answers nothing until its hub is inserted"}};
        }
    }
    return listings;
}

} // namespace kest::sim
