#include "sim/storedchip.h"

#include "sim/fram.h"
#include "sim/hub922.h"

namespace kest::sim
{

namespace
{

std::string labelOf(const busDescription& bus, const chipDescription& chip)
{
    const std::string behind =
        chip.behindHub ? addressText(chip.hub) + " port " + std::to_string(chip.port) + " " : std::string{};
    return fullName(bus) + " " + behind + addressText(chip.address) + " " + chip.typeName;
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

void exchange(chip& model, stateFields& fields)
{
    model.exchange(fields);
    model.exchangeChoices(fields);
    model.exchangePlace(fields);
}

} // namespace

storedChip::storedChip(const machineDescription& all, const chipDescription& about, std::uint32_t number,
                       const std::filesystem::path& folder)
    : m_about{&about}, m_number{number}, m_label{labelOf(all.buses[about.bus], about)}
{
    if (about.kind == chipKind::eeprom) {
        m_cells = std::make_unique<image>(folder / about.image, eepromTypes.at(about.type).sizeBytes);
    }
    m_model = makeChip(about, m_cells.get());
    m_model->chooseFrom(all.choicesOf(about));
    m_model->keepPace(about.pace);
}

chip& storedChip::in(chipUse& use)
{
    if (!m_loaded) {
        unread(use);
        if (m_cells) {
            m_cells->begin(m_number, *use.page);
        }
        load(use);
    }
    return *m_model;
}

chip& storedChip::unread(chipUse& use)
{
    if (!m_loaded) {
        m_loaded = true;
        use.loaded.push_back(this);
    }
    return *m_model;
}

void storedChip::load(chipUse& use)
{
    stateFields fields{recordIn(use.records), stateFields::way::load, use.busTime, &use.faults};
    m_model->deselect();
    exchange(*m_model, fields);
    if (fields.damaged() != nullptr) {
        use.damage = use.damage == nullptr ? fields.damaged() : use.damage;
        m_model->asNew();
        m_model->putInPlace(false);
    }
}

void storedChip::store(std::span<std::uint8_t> records) const
{
    stateFields fields{recordIn(records), stateFields::way::store};
    exchange(*m_model, fields);
}

void storedChip::endUse()
{
    m_loaded = false;
    if (m_cells) {
        m_cells->close();
    }
}

} // namespace kest::sim
