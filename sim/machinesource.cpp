#include "sim/machinesource.h"

#include "sim/machinefile.h"

#include <system_error>
#include <utility>

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
    auto buses = m_index ? m_index->parseBuses(fileName()) : std::nullopt;
    if (!buses) {
        return false;
    }
    m_buses = std::make_shared<machineDescription>(std::move(*buses));
    m_layouts = m_index->layouts();
    m_layout = m_buses->layoutMark(m_layouts);
    m_faults = m_buses->faultMark();
    m_indexIsKept = true;
    return true;
}

void machineSource::parseWhole()
{
    m_whole = std::make_shared<machineDescription>(parseMachine(m_text.text(), fileName()));
    // its buses are the same, and others refer to it
    m_buses = m_buses == nullptr ? m_whole : m_buses;
    m_layouts = m_whole->layouts();
    m_layout = m_whole->layoutMark(m_layouts);
    m_faults = m_whole->faultMark();
    makeIndex();
}

// One that says something else than the text goes, for the next process to make it anew.
void machineSource::makeIndex()
{
    auto made = machineIndex::make(m_text.text(), *m_whole);
    if (m_indexIsKept && made != m_index) {
        std::error_code ignored;
        std::filesystem::remove(m_indexFile, ignored);
        m_indexIsKept = false;
    }
    m_index = std::move(made);
}

std::shared_ptr<const machineDescription> machineSource::whole()
{
    if (m_whole == nullptr) {
        parseWhole();
    }
    return m_whole;
}

std::shared_ptr<const machineDescription> machineSource::withChipsOf(std::size_t bus)
{
    if (isByIndex()) {
        if (auto part = m_index->parseChipsOf(bus, fileName())) {
            return std::make_shared<machineDescription>(std::move(*part));
        }
    }
    return whole();
}

void machineSource::keepIndex()
{
    if (m_index && !m_indexIsKept && m_text.text().size() >= textWorthAnIndex) {
        m_index->save(m_indexFile);
        m_indexIsKept = true;
    }
}

} // namespace kest::sim
