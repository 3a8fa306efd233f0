#include "sim/machineindex.h"

#include "base/descriptor.h"
#include "base/files.h"
#include "base/hash.h"
#include "sim/machinefile.h"
#include "sim/statefields.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

// the last is the version
constexpr std::array<std::uint8_t, 8> magic{'k', 'e', 's', 't', 'i', 'd', 'x', 2};
constexpr std::size_t longestIndex = 4 << 20;

std::uint64_t hashOf(std::span<const std::uint8_t> bytes)
{
    return fnvHash64({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

void append(std::string& to, const textTable& table)
{
    to += table.text;
    if (to.back() != '\n') {
        to += '\n';
    }
}

// @return none for a text with errors
std::optional<machineDescription> parsed(const std::string& part, const std::string& fileName)
{
    try {
        return parseMachine(part, fileName);
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

} // namespace

/// What the file has before what the index says.
struct machineIndex::head {
    std::array<std::uint8_t, 8> mark{};
    std::uint64_t check = 0; ///< hash of all that follows
    std::uint64_t textBytes = 0, textHash = 0;
    std::uint32_t buses = 0, chips = 0;

    static constexpr std::size_t checkedFrom = 16, bytes = 40, busBytes = 12, chipBytes = 4;

    void exchange(stateFields& fields)
    {
        fields.bytes(mark);
        fields.numbers(check, textBytes, textHash, buses, chips);
    }
    [[nodiscard]] std::uint64_t bytesAfter() const
    {
        return std::uint64_t{buses} * busBytes + std::uint64_t{chips} * chipBytes;
    }
};

void machineIndex::exchange(stateFields& fields)
{
    for (busLayout& layout : m_layouts) {
        fields.numbers(layout.chips, layout.mark);
    }
    for (std::uint32_t& bus : m_busOfChip) {
        fields.number(bus);
    }
}

std::optional<machineIndex> machineIndex::make(std::string_view text, const machineDescription& whole)
{
    std::optional<textTables> tables = findTables(text);
    if (!tables) {
        return std::nullopt;
    }
    const auto agrees = [](const std::vector<textTable>& found, const std::vector<tablePlace>& places) {
        return std::ranges::equal(found, places, {}, &textTable::place);
    };
    if (!agrees(tables->buses, whole.places[0]) || !agrees(tables->chips, whole.places[1]) ||
        !agrees(tables->faults, whole.places[2])) {
        return std::nullopt;
    }
    machineIndex made{text, std::move(*tables)};
    for (const chipDescription& chip : whole.chips) {
        made.m_busOfChip.push_back(static_cast<std::uint32_t>(chip.bus));
    }
    made.m_layouts = whole.layouts();
    return made;
}

bool machineIndex::fits() const
{
    return m_layouts.size() == m_tables.buses.size() && m_busOfChip.size() == m_tables.chips.size() &&
           std::ranges::all_of(m_busOfChip, [this](std::uint32_t bus) { return bus < m_layouts.size(); });
}

std::optional<machineIndex> machineIndex::load(const std::filesystem::path& file, std::string_view text)
{
    std::vector<std::uint8_t> bytes;
    if (readFile(file, longestIndex, bytes) != 0 || bytes.size() < head::bytes) {
        return std::nullopt;
    }
    head begin;
    stateFields fields{bytes, stateFields::way::load};
    begin.exchange(fields);
    if (begin.mark != magic || begin.textBytes != text.size() || bytes.size() - head::bytes != begin.bytesAfter() ||
        begin.check != hashOf(std::span{bytes}.subspan(head::checkedFrom)) || begin.textHash != fnvHash64(text)) {
        return std::nullopt;
    }
    std::optional<textTables> tables = findTables(text);
    if (!tables) {
        return std::nullopt;
    }
    machineIndex index{text, std::move(*tables)};
    index.m_layouts.resize(begin.buses);
    index.m_busOfChip.resize(begin.chips);
    index.exchange(fields);
    return index.fits() ? std::optional{std::move(index)} : std::nullopt;
}

// The file needs no sync: one that lost bytes does not have its hash.
void machineIndex::save(const std::filesystem::path& file) const
{
    machineIndex index = *this;
    head begin{.mark = magic,
               .textBytes = m_text.size(),
               .textHash = fnvHash64(m_text),
               .buses = static_cast<std::uint32_t>(m_layouts.size()),
               .chips = static_cast<std::uint32_t>(m_busOfChip.size())};
    std::vector<std::uint8_t> bytes(head::bytes + static_cast<std::size_t>(begin.bytesAfter()));
    stateFields fields{bytes, stateFields::way::store};
    begin.exchange(fields);
    index.exchange(fields);
    begin.check = hashOf(std::span{bytes}.subspan(head::checkedFrom));
    stateFields again{bytes, stateFields::way::store};
    begin.exchange(again);

    const std::string early = file.string() + ".new";
    unlink(early.c_str());
    const fileDescriptor made{ownDescriptor(open(early.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666))};
    if (made.valid() && (writeAll(made.number(), bytes) != 0 || rename(early.c_str(), file.c_str()) != 0)) {
        unlink(early.c_str());
    }
}

std::string machineIndex::headAndBuses() const
{
    std::string part{m_tables.head};
    for (const textTable& table : m_tables.buses) {
        append(part, table);
    }
    return part;
}

std::optional<machineDescription> machineIndex::parseBuses(const std::string& fileName) const
{
    std::string part = headAndBuses();
    for (const textTable& table : m_tables.faults) {
        append(part, table);
    }
    auto machine = parsed(part, fileName);
    return machine && machine->buses.size() == m_layouts.size() ? std::move(machine) : std::nullopt;
}

std::optional<machineDescription> machineIndex::parseChipsOf(std::size_t bus, const std::string& fileName) const
{
    std::string part = headAndBuses();
    std::vector<tablePlace> places;
    for (std::size_t i = 0; i < m_busOfChip.size(); ++i) {
        if (m_busOfChip[i] == bus) {
            append(part, m_tables.chips[i]);
            places.push_back(m_tables.chips[i].place);
        }
    }
    auto machine = parsed(part, fileName);
    // the layout counts the chips that are on the bus indeed
    if (!machine || machine->buses.size() != m_layouts.size() || m_layouts[bus].chips != places.size() ||
        machine->layouts()[bus] != m_layouts[bus]) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < places.size(); ++i) {
        machine->chips[i].place = placeText(places[i]);
    }
    return machine;
}

} // namespace kest::sim
