#include "sim/machinesource.h"

#include <stdexcept>

namespace kest::sim
{

namespace
{
// shorter texts are parsed at once
constexpr std::size_t textWorthAnIndex = 16 << 10;
} // namespace

machineSource::machineSource(const std::filesystem::path& folder)
    : m_indexFile{folder / "machine.index"}, m_text{folder / "machine.toml"}
{
    if (!takeIndex()) {
        parseWhole();
    }
}

bool machineSource::takeIndex()
{
    if (m_text.text().size() >= textWorthAnIndex) {
        m_index = machineIndex::load(m_indexFile, m_text.text());
    }
    if (!m_index) {
        return false;
    }
    try {
        m_buses = std::make_shared<machineDescription>(m_index->parse(m_text.text(), fileName(), std::nullopt));
    } catch (const std::runtime_error&) {
        return false;
    }
    for (std::size_t bus = 0; bus < m_buses->buses.size(); ++bus) {
        m_chips.push_back(m_index->chipsOf(bus));
    }
    m_layout = m_index->layoutMark();
    m_faults = m_index->faultMark();
    m_indexIsKept = true;
    return true;
}

void machineSource::parseWhole()
{
    m_whole = std::make_shared<machineDescription>(parseMachine(m_text.text(), fileName()));
    m_buses = m_whole;
    m_chips.assign(m_whole->buses.size(), 0);
    for (const chipDescription& chip : m_whole->chips) {
        ++m_chips[chip.bus];
    }
    m_layout = m_whole->layoutMark();
    m_faults = m_whole->faultMark();
    m_index = machineIndex::make(m_text.text(), *m_whole);
}

std::shared_ptr<const machineDescription> machineSource::whole()
{
    if (m_whole == nullptr) {
        m_whole = std::make_shared<machineDescription>(parseMachine(m_text.text(), fileName()));
    }
    return m_whole;
}

std::shared_ptr<const machineDescription> machineSource::withChipsOf(std::size_t bus)
{
    return m_whole != nullptr ? m_whole
                              : std::make_shared<machineDescription>(m_index->parse(m_text.text(), fileName(), bus));
}

void machineSource::keepIndex() const
{
    if (m_index && !m_indexIsKept && m_text.text().size() >= textWorthAnIndex) {
        m_index->save(m_indexFile, m_text.text());
    }
}

} // namespace kest::sim
