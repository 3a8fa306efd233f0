#include "sim/machineindex.h"

#include "base/descriptor.h"
#include "base/files.h"
#include "base/hash.h"
#include "sim/statefields.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

// the last is the version
constexpr std::array<std::uint8_t, 8> magic{'k', 'e', 's', 't', 'i', 'd', 'x', 1};
constexpr std::size_t longestIndex = 4 << 20;

std::uint64_t hashOf(std::span<const std::uint8_t> bytes)
{
    return fnvHash64({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

/// Offset of each line of a text.
std::vector<std::uint32_t> linesOf(std::string_view text)
{
    std::vector<std::uint32_t> starts{0};
    for (std::size_t at = text.find('\n'); at != std::string_view::npos; at = text.find('\n', at + 1)) {
        starts.push_back(static_cast<std::uint32_t>(at + 1));
    }
    return starts;
}

void append(std::string& to, std::string_view part)
{
    to += part;
    if (!part.empty() && part.back() != '\n') {
        to += '\n';
    }
}

} // namespace

/// What the file has before the pieces.
struct machineIndex::head {
    std::array<std::uint8_t, 8> mark{};
    std::uint64_t check = 0; ///< hash of all that follows
    std::uint64_t textBytes = 0, textHash = 0;
    std::uint32_t buses = 0, chips = 0;

    static constexpr std::size_t checkedFrom = 16, bytes = 60, pieceBytes = 20;

    void exchange(stateFields& fields, machineIndex& index)
    {
        fields.bytes(mark);
        fields.numbers(check, textBytes, textHash, index.m_layout, index.m_faults, index.m_headBytes, buses, chips);
    }
    static void exchange(stateFields& fields, piece& some)
    {
        fields.numbers(some.offset, some.length, some.place.line, some.place.column, some.bus);
    }
};

std::optional<machineIndex> machineIndex::make(std::string_view text, const machineDescription& whole)
{
    if (!whole.tablesApart) {
        return std::nullopt;
    }
    const std::vector<std::uint32_t> lines = linesOf(text);
    std::vector<std::uint32_t> starts{static_cast<std::uint32_t>(text.size())};
    for (const auto& list : whole.places) {
        for (const tablePlace& place : list) {
            starts.push_back(lines.at(place.line - 1));
        }
    }
    std::ranges::sort(starts);
    const auto pieceAt = [&](const tablePlace& place, std::size_t bus) {
        const std::uint32_t offset = lines.at(place.line - 1);
        const std::uint32_t end = *std::ranges::upper_bound(starts, offset);
        return piece{offset, end - offset, place, static_cast<std::uint32_t>(bus)};
    };
    machineIndex made;
    made.m_layout = whole.layoutMark();
    made.m_faults = whole.faultMark();
    made.m_headBytes = starts.front();
    for (const tablePlace& place : whole.places[0]) {
        made.m_buses.push_back(pieceAt(place, 0));
    }
    for (std::size_t i = 0; i < whole.chips.size(); ++i) {
        made.m_chips.push_back(pieceAt(whole.places[1].at(i), whole.chips[i].bus));
    }
    return made;
}

bool machineIndex::isOf(std::string_view text) const
{
    const auto holds = [&](const piece& some) {
        return some.offset <= text.size() && some.length <= text.size() - some.offset && some.bus < m_buses.size();
    };
    return m_headBytes <= text.size() && std::ranges::all_of(m_buses, holds) && std::ranges::all_of(m_chips, holds);
}

std::optional<machineIndex> machineIndex::load(const std::filesystem::path& file, std::string_view text)
{
    std::vector<std::uint8_t> bytes;
    if (readFile(file, longestIndex, bytes) != 0 || bytes.size() < head::bytes) {
        return std::nullopt;
    }
    machineIndex index;
    head begin;
    stateFields fields{bytes, stateFields::way::load};
    begin.exchange(fields, index);
    const std::uint64_t pieces = std::uint64_t{begin.buses} + begin.chips;
    if (begin.mark != magic || begin.textBytes != text.size() ||
        bytes.size() - head::bytes != pieces * head::pieceBytes ||
        begin.check != hashOf(std::span{bytes}.subspan(head::checkedFrom)) || begin.textHash != fnvHash64(text)) {
        return std::nullopt;
    }
    index.m_buses.resize(begin.buses);
    index.m_chips.resize(begin.chips);
    for (auto* list : {&index.m_buses, &index.m_chips}) {
        for (piece& some : *list) {
            head::exchange(fields, some);
        }
    }
    return index.isOf(text) ? std::optional{index} : std::nullopt;
}

// The file needs no sync: one that lost bytes does not have its hash.
void machineIndex::save(const std::filesystem::path& file, std::string_view text) const
{
    machineIndex index = *this;
    head begin{.mark = magic,
               .textBytes = text.size(),
               .textHash = fnvHash64(text),
               .buses = static_cast<std::uint32_t>(m_buses.size()),
               .chips = static_cast<std::uint32_t>(m_chips.size())};
    std::vector<std::uint8_t> bytes(head::bytes + (m_buses.size() + m_chips.size()) * head::pieceBytes);
    stateFields fields{bytes, stateFields::way::store};
    begin.exchange(fields, index);
    for (auto* list : {&index.m_buses, &index.m_chips}) {
        for (piece& some : *list) {
            head::exchange(fields, some);
        }
    }
    begin.check = hashOf(std::span{bytes}.subspan(head::checkedFrom));
    stateFields again{bytes, stateFields::way::store};
    begin.exchange(again, index);

    const std::string early = file.string() + ".new";
    unlink(early.c_str());
    const fileDescriptor made{ownDescriptor(open(early.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666))};
    if (made.valid() && (writeAll(made.number(), bytes) != 0 || rename(early.c_str(), file.c_str()) != 0)) {
        unlink(early.c_str());
    }
}

std::size_t machineIndex::chipsOf(std::size_t bus) const
{
    return static_cast<std::size_t>(std::ranges::count(m_chips, bus, &piece::bus));
}

machineDescription machineIndex::parse(std::string_view text, const std::string& fileName,
                                       std::optional<std::size_t> bus) const
{
    std::string part;
    append(part, text.substr(0, m_headBytes));
    for (const piece& some : m_buses) {
        append(part, text.substr(some.offset, some.length));
    }
    std::vector<tablePlace> places;
    for (const piece& some : m_chips) {
        if (bus && some.bus == *bus) {
            append(part, text.substr(some.offset, some.length));
            places.push_back(some.place);
        }
    }
    machineDescription machine = parseMachine(part, fileName);
    if (machine.buses.size() != m_buses.size() || machine.chips.size() != places.size() ||
        std::ranges::any_of(machine.chips, [&](const chipDescription& chip) { return chip.bus != bus; })) {
        throw std::runtime_error{fileName + ": its index is of another text"};
    }
    for (std::size_t i = 0; i < places.size(); ++i) {
        machine.chips[i].place = std::to_string(places[i].line) + ":" + std::to_string(places[i].column);
    }
    return machine;
}

} // namespace kest::sim
