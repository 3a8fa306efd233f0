#include "tools/kestctl/contenttext.h"

#include <algorithm>
#include <fmt/core.h>
#include <vector>

#include "contents/shownvalue.h"
#include "tools/common/escape.h"
#include "tools/common/number.h"
#include "tools/common/output.h"

namespace kest::tools
{
namespace
{

using contents::node;
using contents::reading;
using contents::verdict;

constexpr std::size_t mostColumns = 79;
constexpr std::size_t indentColumns = 2;
constexpr std::size_t widestLabels = 34;
/// "0x0000..0x0000 bits 15-15"
constexpr std::size_t placeColumns = 14;
constexpr std::size_t bitsColumns = 11;

/// A field, not a structure. A string without a row of its own has that of all strings.
bool isLeaf(const node& which)
{
    const bool isStructure = which.source != nullptr && which.source->as != contents::kind::strings &&
                             contents::isStructure(which.source->as);
    return which.children.empty() && !isStructure;
}

/// Bytes that fill what no field takes.
bool isFill(const node& which)
{
    return which.source == nullptr && which.is == verdict::good && which.children.empty();
}

/// The lines of one reading.
class lines
{
public:
    lines(const reading& what, const contentTextOptions& options) : m_options(options)
    {
        measure(what.nodes, 0);
        m_labelColumns = std::min(m_labelColumns, widestLabels);
    }

    void addAll(const reading& what);
    [[nodiscard]] std::string text() const { return m_text; }

private:
    void measure(const std::vector<node>& nodes, std::size_t depth);
    [[nodiscard]] std::string title(const node& which, std::size_t depth) const;
    void add(const node& which, std::size_t depth);
    void addFills(const std::vector<node>& nodes, std::size_t depth);
    [[nodiscard]] std::string place(const node& which) const;
    void addValue(const std::string& head, const std::string& value);

    contentTextOptions m_options;
    std::size_t m_labelColumns = 0;
    bool m_hasBits = false;
    std::string m_text;
};

void lines::measure(const std::vector<node>& nodes, std::size_t depth)
{
    for (const node& each : nodes) {
        if (each.children.empty()) {
            m_labelColumns = std::max(m_labelColumns, title(each, depth).size());
        }
        m_hasBits = m_hasBits || each.bits != 0;
        measure(each.children, depth + 1);
    }
}

/// How a field is called, below what it lies in.
std::string lines::title(const node& which, std::size_t depth) const
{
    const bool hasName = m_options.names && !which.name.empty();
    return std::string(depth * indentColumns, ' ') + escaped(hasName ? which.name : which.label);
}

std::string lines::place(const node& which) const
{
    if (!m_options.offsets) {
        return {};
    }
    std::string range = which.length == 0 ? "" : fmt::format("0x{:04X}", which.offset);
    if (which.length > 1) {
        range += fmt::format("..0x{:04X}", which.offset + which.length - 1);
    }
    std::string bits;
    if (which.bits == 1) {
        bits = fmt::format("bit {}", which.bit);
    } else if (which.bits != 0) {
        bits = fmt::format("bits {}-{}", which.bit + which.bits - 1, which.bit);
    }
    return m_hasBits ? fmt::format("{:<{}} {:<{}} ", range, placeColumns, bits, bitsColumns)
                     : fmt::format("{:<{}} ", range, placeColumns);
}

/// Puts a value behind its head, and breaks it at blanks into lines that stand below each other.
void lines::addValue(const std::string& head, const std::string& value)
{
    const std::size_t room = mostColumns - std::min(head.size(), mostColumns / 2);
    std::string_view rest = value;
    std::string start = head;
    while (rest.size() > room) {
        const std::size_t blank = rest.rfind(' ', room);
        if (blank == std::string_view::npos || blank == 0) {
            break;
        }
        m_text += start + std::string(rest.substr(0, blank)) + "\n";
        rest.remove_prefix(blank + 1);
        start = std::string(head.size(), ' ');
    }
    std::string last = start + std::string(rest);
    last.erase(last.find_last_not_of(' ') + 1);
    m_text += last + "\n";
}

std::string valueText(const node& which)
{
    std::string text = escaped(contents::shownText(which));
    if (!which.unit.empty() && which.is != verdict::damaged) {
        text += " " + which.unit;
    }
    // flags say which of their bits are not known
    const bool isSet = std::holds_alternative<std::vector<std::string>>(which.value);
    if (which.is == verdict::unknown && which.raw && !isSet) {
        text += "  not known";
    }
    if (which.sum) {
        text += which.is == verdict::damaged ? "" : "  good";
    }
    if (which.is == verdict::damaged) {
        text += (text.empty() ? "" : "  ") + std::string("DAMAGED: ") + which.problem;
    }
    return text;
}

void lines::add(const node& which, std::size_t depth)
{
    const std::string label = title(which, depth);
    if (isLeaf(which)) {
        addValue(place(which) + fmt::format("{:<{}}  ", label, m_labelColumns), valueText(which));
        return;
    }
    const std::string problem = which.is == verdict::damaged ? "  DAMAGED: " + escaped(which.problem) : "";
    m_text += place(which) + (depth == 0 ? standardOutput().paint(colour::bold, label) : label) + problem + "\n";
    for (const node& each : which.children) {
        if (m_options.offsets || !isFill(each)) {
            add(each, depth + 1);
        }
    }
    addFills(which.children, depth + 1);
}

/// One line for all fills, where their places do not matter.
void lines::addFills(const std::vector<node>& nodes, std::size_t depth)
{
    std::size_t bytes = 0;
    std::size_t places = 0;
    for (const node& each : nodes) {
        bytes += isFill(each) ? each.length : 0;
        places += isFill(each) ? 1 : 0;
    }
    if (m_options.offsets || places == 0) {
        return;
    }
    const std::string label(depth * indentColumns, ' ');
    const std::string where = places == 1 ? "" : fmt::format(" in {} places", places);
    addValue(fmt::format("{:<{}}  ", label + "Fill", m_labelColumns),
             fmt::format("{} of 00 or FF{}", countText(bytes, "byte"), where));
}

void lines::addAll(const reading& what)
{
    bool wasLeaf = false;
    for (const node& each : what.nodes) {
        // a section, or the first of a row of fields that are in none
        if (!isLeaf(each) || !wasLeaf) {
            m_text += "\n";
        }
        wasLeaf = isLeaf(each);
        add(each, 0);
    }
}

std::string damageLines(const reading& what)
{
    std::string text = what.problem.empty() ? "" : "damaged: " + what.problem + "\n";
    for (const node* each : damagedNodes(what)) {
        text += fmt::format("damaged: {} at {} (0x{:X}): {}\n", escaped(each->name.empty() ? each->label : each->name),
                            each->offset, each->offset, escaped(each->problem));
    }
    return text;
}

} // namespace

std::string contentVerdict(const reading& what)
{
    const std::size_t damaged = damagedNodes(what).size() + (what.problem.empty() ? 0 : 1);
    const std::size_t sums = checksums(what).size();
    if (damaged == 0) {
        return sums == 0 ? "whole; it has no checksums" : fmt::format("whole, {} right", countText(sums, "checksum"));
    }
    return fmt::format("{} damaged", countText(damaged, "field"));
}

std::string contentText(const reading& what, const contentTextOptions& options)
{
    lines all(what, options);
    all.addAll(what);
    return all.text() + "\n" + damageLines(what) + contentVerdict(what) + "\n";
}

} // namespace kest::tools
