#include "sim/buschips.h"

#include "sim/eeprom.h"
#include "sim/fram.h"

#include <algorithm>
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

std::string labelOf(const busDescription& bus, const chipDescription& chip)
{
    const std::string behind =
        chip.behindHub ? addressText(chip.hub) + " port " + std::to_string(chip.port) + " " : std::string{};
    return fullName(bus) + " " + behind + addressText(chip.address) + " " + chip.typeName;
}

void cyclePower(chip& of, std::uint64_t now)
{
    of.losePower(now);
    of.powerUp();
    of.poweredAt(now);
}

std::unique_ptr<chip> makeChip(const chipDescription& about, image* cells)
{
    switch (about.kind) {
    case chipKind::eeprom:
        if (about.ferroelectric) {
            return std::make_unique<fram>(eepromTypes.at(about.type), about.memory, *cells);
        }
        return std::make_unique<eeprom>(eepromTypes.at(about.type), about.memory, *cells);
    case chipKind::pca955x:
        return std::make_unique<pca955x>(pca955xTypes.at(about.type), about.inputs);
    case chipKind::sensor:
        return std::make_unique<sensor>(sensorTypes.at(about.type), about.celsius, about.temperatureBits);
    case chipKind::hub:
        break;
    }
    return std::make_unique<hub922>();
}

} // namespace

busChips::busChips(const machineDescription& all, std::size_t bus, const std::filesystem::path& folder)
{
    for (const auto& chip : all.chips) {
        if (chip.bus == bus) {
            add(all, chip, folder);
        }
    }
    for (const auto& member : m_members) {
        if (!member.about->behindHub) {
            connectToBus(member);
        }
    }
    for (const auto& member : m_members) {
        if (member.about->protectChip != 0) {
            connectWriteProtection(member);
        }
        if (member.about->behindHub) {
            connectToHub(member);
        } else if (member.about->typeName == resetDriverType) {
            connectResetLines(member);
        }
    }
}

void busChips::add(const machineDescription& all, const chipDescription& chip, const std::filesystem::path& folder)
{
    member added{&chip, nullptr, nullptr, labelOf(all.buses[chip.bus], chip)};
    if (chip.kind == chipKind::eeprom) {
        added.cells = std::make_unique<image>(folder / chip.image, eepromTypes.at(chip.type).sizeBytes);
    }
    added.model = makeChip(chip, added.cells.get());
    added.model->chooseFrom(all.choicesOf(chip));
    added.model->keepPace(chip.pace);
    m_members.push_back(std::move(added));
}

void busChips::connectToBus(const member& added)
{
    for (const std::uint8_t address : added.about->answers()) {
        m_at.at(address >> 1) = added.model.get();
    }
    if (added.about->kind == chipKind::hub) {
        m_hubAt.at(added.about->address >> 1) = static_cast<hub922*>(added.model.get());
    }
}

void busChips::connectToHub(const member& added)
{
    const chipDescription& about = *added.about;
    const std::uint32_t offsetBytes = about.kind == chipKind::eeprom ? eepromTypes.at(about.type).offsetBytes : 1;
    for (const std::uint8_t address : about.answers()) {
        findHub(about.hub)->attach(about.port, address, *added.model, offsetBytes);
    }
}

void busChips::connectWriteProtection(const member& part)
{
    const auto expander = std::ranges::find_if(
        m_members, [&](const member& other) { return other.about->drivesProtectionOf(*part.about); });
    const auto* const pins = static_cast<const pca955x*>(expander->model.get());
    part.model->followPin([pins, pin = part.about->protectPin](std::uint64_t now) { return !pins->isLow(pin, now); });
}

void busChips::connectResetLines(const member& driver)
{
    for (const auto& row : resetDrivers) {
        if (row.driver == driver.about->address && findHub(row.hub) != nullptr) {
            m_resetLines.push_back({row.hub, findHub(row.hub), static_cast<pca955x*>(driver.model.get())});
        }
    }
}

const busChips::member* busChips::findMember(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const
{
    const auto found = std::ranges::find_if(m_members, [&](const member& each) {
        return each.about->address == address && each.about->behindHub == (hub != 0) && each.about->hub == hub &&
               each.about->port == port;
    });
    return found == m_members.end() ? nullptr : &*found;
}

sensor* busChips::findSensor(std::uint8_t address, std::uint8_t hub, std::uint8_t port) const
{
    const member* const found = findMember(address, hub, port);
    return found == nullptr || found->about->kind != chipKind::sensor ? nullptr
                                                                      : static_cast<sensor*>(found->model.get());
}

chip* busChips::find(std::uint8_t address) const
{
    chip* const found = m_at[address >> 1];
    return found != nullptr && found->isThere() ? found : nullptr;
}

hub922* busChips::findHub(std::uint8_t address) const
{
    hub922* const found = m_hubAt[address >> 1];
    return found != nullptr && found->isThere() ? found : nullptr;
}

// A chip that leaves loses its power.
bool busChips::remove(std::uint8_t address, std::uint8_t hub, std::uint8_t port, std::uint64_t now) const
{
    const member* const found = findMember(address, hub, port);
    if (found == nullptr || !found->model->isThere()) {
        return false;
    }
    cyclePower(*found->model, now);
    found->model->putInPlace(false);
    return true;
}

void busChips::insert(std::uint8_t address, std::uint8_t hub, std::uint8_t port, std::uint64_t now) const
{
    const member* const found = findMember(address, hub, port);
    if (found != nullptr && !found->model->isThere()) {
        found->model->powerUp();
        found->model->poweredAt(now);
        found->model->putInPlace(true);
    }
}

// A line that blinks may have been low and high again with nobody looking: then the hub has been through a reset.
void busChips::driveResetLines(std::vector<faultRecord>& faults, std::uint64_t now) const
{
    for (const auto& line : m_resetLines) {
        if (!line.hub->inReset() && line.driver->hasBeenLow(resetPin, now)) {
            endHubFaults(faults, line.hubAddress, true);
            line.hub->resetLine(true);
        }
        if (line.hub->inReset() && !line.driver->isLow(resetPin, now)) {
            line.hub->resetLine(false);
        }
    }
    // two hubs may have one driver
    for (const auto& line : m_resetLines) {
        line.driver->watched(now);
    }
}

const char* busChips::load(std::span<std::uint8_t> record, std::uint64_t busTime, pageWrite& page)
{
    for (std::size_t i = 0; i < m_members.size(); ++i) {
        const member& each = m_members[i];
        stateFields fields{record.subspan(i * chipStateBytes, chipStateBytes), stateFields::way::load, busTime};
        if (each.cells) {
            each.cells->begin(static_cast<std::uint32_t>(i), page);
        }
        each.model->deselect();
        each.model->exchange(fields);
        each.model->exchangeChoices(fields);
        each.model->exchangePlace(fields);
        if (fields.damaged() != nullptr) {
            return fields.damaged();
        }
    }
    return nullptr;
}

void busChips::store(std::span<std::uint8_t> record) const
{
    for (std::size_t i = 0; i < m_members.size(); ++i) {
        stateFields fields{record.subspan(i * chipStateBytes, chipStateBytes), stateFields::way::store};
        m_members[i].model->exchange(fields);
        m_members[i].model->exchangeChoices(fields);
        m_members[i].model->exchangePlace(fields);
    }
}

void busChips::endUse()
{
    for (auto& member : m_members) {
        if (member.cells) {
            member.cells->close();
        }
    }
}

void busChips::prepareImages(const std::string& machineFile)
{
    for (auto& member : m_members) {
        if (!member.cells) {
            continue;
        }
        int error = 0;
        const std::string trouble = member.cells->prepare(error);
        std::string where = machineFile + ":" + member.about->place + ": image '" + member.about->image + "'";
        if (error != 0) {
            throw std::system_error{error, std::generic_category(), where};
        }
        if (!trouble.empty()) {
            throw std::runtime_error{where.append(": ").append(trouble)};
        }
    }
}

void busChips::makeMissingImages() const
{
    for (const auto& member : m_members) {
        if (member.cells) {
            member.cells->makeWhenMissing();
        }
    }
}

bool busChips::holds(const pageWrite& page) const
{
    return page.chip < m_members.size() && m_members[page.chip].cells && m_members[page.chip].cells->holds(page);
}

bool busChips::store(const pageWrite& page) { return m_members[page.chip].cells->store(page); }

bool busChips::imageLost() const
{
    return std::ranges::any_of(m_members, [](const member& each) { return each.cells && each.cells->isLost(); });
}

void busChips::losePower(std::uint64_t now)
{
    for (auto& member : m_members) {
        cyclePower(*member.model, now);
    }
}

bool busChips::settle()
{
    return std::ranges::all_of(m_members, [](const member& each) { return each.model->settle(); });
}

void busChips::asNew()
{
    for (auto& member : m_members) {
        member.model->forgetChoices();
        member.model->putInPlace(true);
        member.model->asNew();
    }
}

void busChips::endEffects(const faultEnded& ended)
{
    for (auto& member : m_members) {
        member.model->endEffects(ended);
    }
}

std::vector<chipListing> busChips::list(std::uint64_t now) const
{
    std::vector<chipListing> listings;
    for (const auto& member : m_members) {
        listings.push_back({member.label, member.model->list(now)});
        if (!member.model->isThere()) {
            listings.back().registers = {{"removed", 1, "answers nothing until it is inserted"}};
        }
    }
    return listings;
}

} // namespace kest::sim
