#include "contents/reader.h"

#include <algorithm>

#include "contents/overlap.h"
#include "contents/problem.h"
#include "contents/recognise.h"
#include "contents/scaling.h"
#include "contents/sums.h"
#include "contents/values.h"

namespace kest::contents
{
namespace
{

std::string joined(const std::string& prefix, std::string_view name) { return prefix + std::string(name); }

std::string prefixOf(const std::string& prefix, std::string_view name)
{
    return name.empty() ? prefix : joined(prefix, name) + ".";
}

/// Where a value lies, from the block's first byte. Nothing when the block ends before it.
std::optional<window> spotOf(const row& field, const window& block)
{
    const std::size_t size = block.size();
    if (field.fromEnd != 0 && (block.isCut || field.fromEnd > size)) {
        return std::nullopt;
    }
    const std::size_t at = field.fromEnd != 0 ? size - field.fromEnd : field.at;
    const std::size_t sum = bytesOfSum(field.sum.as);
    const std::size_t wanted = sum != 0 ? sum : field.length;
    if (at > size || wanted > size - at || (field.length == 0 && block.isCut)) {
        return std::nullopt;
    }
    return window{.begin = at, .end = wanted != 0 ? at + wanted : size};
}

/// The bits of a field that is not made of whole bytes; 0 of one that is.
std::uint8_t bitsShown(const row& field, std::size_t bytes)
{
    constexpr std::size_t bitsOfByte = 8;
    const bool isRest = field.bits == 0 && field.bit != 0 && bytes * bitsOfByte > field.bit;
    return isRest ? static_cast<std::uint8_t>(bytes * bitsOfByte - field.bit) : field.bits;
}

bool beginsWithZeros(std::span<const std::uint8_t> bytes, std::size_t count)
{
    return count != 0 && count <= bytes.size() &&
           std::all_of(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count),
                       [](std::uint8_t byte) { return byte == 0; });
}

std::string hexText(std::uint32_t value, std::size_t bytes)
{
    std::vector<std::uint8_t> stored(bytes);
    storeSum(sumKind::crc32Big, value, stored);
    std::string text = spacedHex(stored);
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return "0x" + text;
}

/// A structure that lies behind the bytes.
node lostNode(const row& field, const area& found, const std::string& prefix)
{
    node lost{.name = joined(prefix, field.name),
              .label = std::string(field.label),
              .offset = found.bytes.begin,
              .source = &field};
    damage(lost, found.problem);
    return lost;
}

} // namespace

bool reader::readRows(const rowList& rows, const window& block, const std::string& prefix, std::vector<node>& into)
{
    bool isComplete = true;
    for (const row& each : rows) {
        if (m_known.holds(each.when) && m_known.holds(each.also)) {
            isComplete = readRow(each, block, prefix, into) && isComplete;
        }
    }
    return isComplete;
}

bool reader::readRow(const row& field, const window& block, const std::string& prefix, std::vector<node>& into)
{
    switch (field.as) {
    case kind::block:
    case kind::list:
        return readArea(field, block, prefix, into);
    case kind::repetition:
        return readRepetition(field, block, prefix, into);
    case kind::strings:
        return readStrings(field, block, prefix, into);
    case kind::product:
        readProduct(field, block, prefix, into);
        return true;
    default:
        return readValue(field, block, prefix, into);
    }
}

bool reader::readValue(const row& field, const window& block, const std::string& prefix, std::vector<node>& into)
{
    const std::optional<window> spot = spotOf(field, block);
    if (!spot) {
        return false;
    }
    node value{.name = joined(prefix, field.name),
               .label = std::string(field.label),
               .unit = std::string(field.unit),
               .offset = block.begin + spot->begin,
               .length = spot->size(),
               .bit = field.bit,
               .bits = bitsShown(field, spot->size()),
               .source = &field};
    cover(field, block, value);
    if (field.as == kind::checksum) {
        checkSum(field, block, value);
    } else {
        setValue(field, block, value);
    }
    if (!field.isHidden) {
        into.push_back(std::move(value));
    }
    return true;
}

void reader::readProduct(const row& field, const window& block, const std::string& prefix,
                         std::vector<node>& into) const
{
    if (const std::optional<fraction> value = productOf(field, m_known)) {
        node computed{.name = joined(prefix, field.name),
                      .label = std::string(field.label),
                      .value = approximate(*value),
                      .text = decimalText(*value, field.decimals),
                      .unit = std::string(field.unit),
                      .offset = block.begin,
                      .source = &field};
        if (value->denominator == 1) {
            computed.value = value->numerator;
        }
        into.push_back(std::move(computed));
    }
}

void reader::setValue(const row& field, const window& block, node& into)
{
    const fieldBytes bytes{
        .block = m_image.subspan(block.begin, block.size()), .at = into.offset - block.begin, .length = into.length};
    decodedValue found = decodeValue(field, bytes, m_known);
    if (found.raw) {
        m_known.remember(field.name, *found.raw);
    }
    // a special value of a number has no unit: "not given"
    if (field.as == kind::number && std::holds_alternative<std::string>(found.value)) {
        into.unit.clear();
    }
    into.value = std::move(found.value);
    into.raw = found.raw;
    into.text = std::move(found.text);
    into.is = found.is;
    into.problem = std::move(found.problem);
}

void reader::checkSum(const row& field, const window& block, node& into) const
{
    const sumRule& rule = field.sum;
    const std::size_t size = bytesOfSum(rule.as);
    const window base = rule.fromImage ? window{.begin = 0, .end = m_image.size()} : block;
    const std::optional<std::uint64_t> given =
        rule.lengthField.empty() ? std::optional<std::uint64_t>(rule.length) : m_known.find(rule.lengthField);
    const std::uint32_t stored = storedSum(rule.as, m_image.subspan(into.offset, size));
    into.value = static_cast<std::int64_t>(stored);
    into.text = hexText(stored, size);
    if (!given || rule.from > base.size()) {
        return damage(into, "the bytes that it covers are missing");
    }
    const std::size_t from = base.begin + rule.from;
    const bool isUpToSum = rule.lengthField.empty() && rule.length == 0;
    if (isUpToSum && into.offset < from) {
        return damage(into, "the bytes that it covers are missing");
    }
    const std::uint64_t length = isUpToSum ? into.offset - from : *given;
    if (length > base.end - from) {
        return damage(into, "the bytes that it covers are missing");
    }
    const auto range = m_image.subspan(from, static_cast<std::size_t>(length));
    std::uint32_t computed = computeSum(rule.as, range);
    if (rule.as == sumKind::zero8 && into.offset >= from && into.offset - from < length) {
        computed = (computed + stored) & 0xFFU;
    }
    into.sum = sumResult{.as = rule.as, .stored = stored, .computed = computed, .from = from, .length = range.size()};
    if (stored != computed) {
        damage(into, "stored is " + hexText(stored, size) + ", computed is " + hexText(computed, size));
    }
}

bool reader::readArea(const row& field, const window& outer, const std::string& prefix, std::vector<node>& into)
{
    const area found = areaOf(field, outer, m_image, m_known);
    if (found.is == presence::absent) {
        return true;
    }
    if (found.is == presence::missing && field.where.atField.empty()) {
        return false;
    }
    if (field.as == kind::block && field.name.empty() && field.label.empty()) {
        return readRows(field.rows, found.bytes, prefix, into) && found.problem.empty();
    }
    node structure{.name = field.name.empty() ? "" : joined(prefix, field.name),
                   .label = std::string(field.label),
                   .offset = found.bytes.begin,
                   .length = found.bytes.size(),
                   .source = &field};
    if (!found.problem.empty()) {
        damage(structure, found.problem);
    }
    const std::string inner = prefixOf(prefix, field.name);
    const bool isReadable = found.is == presence::present && found.bytes.size() >= field.where.least;
    if (isReadable && field.as == kind::list) {
        readEntries(field, found.bytes, inner, structure);
    } else if (isReadable && !readRows(field.rows, found.bytes, inner, structure.children)) {
        damage(structure, endsEarly);
    }
    checkOverlap(structure, into);
    into.push_back(std::move(structure));
    return true;
}

bool reader::readRepetition(const row& field, const window& outer, const std::string& prefix, std::vector<node>& into)
{
    const bool isOpen = field.countField.empty() && field.count == 0;
    const std::uint64_t counted = field.countField.empty() ? field.count : m_known.find(field.countField).value_or(0);
    row whole = field;
    whole.length = 0;
    const area all = areaOf(whole, outer, m_image, m_known);
    if (!isOpen && counted == 0) {
        return true;
    }
    if (all.is == presence::missing && !field.where.atField.empty()) {
        into.push_back(lostNode(field, all, prefix));
        return true;
    }
    if (all.is == presence::absent) {
        // nothing may lie at the end of the bytes, unless a number of blocks is wanted there
        return isOpen || !field.where.atField.empty();
    }
    std::size_t at = all.bytes.begin;
    std::uint64_t number = 0;
    const std::uint64_t most = isOpen ? mostEntries : std::min<std::uint64_t>(counted, mostEntries);
    for (; number < most && at < all.bytes.end; ++number) {
        const std::size_t length = std::min(field.length, all.bytes.end - at);
        const window element{.begin = at, .end = at + length, .isCut = length < field.length};
        if (beginsWithZeros(m_image.subspan(at, length), field.stopAtZeros)) {
            return true;
        }
        if (isOpen && element.isCut) {
            addRest(field, element, prefix, into);
            return true;
        }
        readElement(field, element, joined(prefix, field.name), number + 1, into);
        at += length;
    }
    return isOpen || number == counted;
}

/// The bytes behind the last whole element of a repetition.
void reader::addRest(const row& field, const window& rest, const std::string& prefix, std::vector<node>& into)
{
    if (!field.mustFill) {
        return;
    }
    node left = bytesNode(m_image, rest);
    left.name = joined(prefix, field.name) + ".rest";
    left.label = std::string(field.label) + ", rest";
    damage(left, "an element has " + std::to_string(field.length) + " bytes, and there are " +
                     std::to_string(rest.size()) + " before the end of its area");
    m_covered.add(rest.begin, rest.size());
    into.push_back(std::move(left));
}

void reader::readElement(const row& field, const window& element, const std::string& name, std::uint64_t number,
                         std::vector<node>& into)
{
    node structure{.name = name + "." + std::to_string(number),
                   .label = std::string(field.label) + " " + std::to_string(number),
                   .offset = element.begin,
                   .length = element.size(),
                   .source = &field};
    const std::size_t mark = m_known.count();
    if (!readRows(field.rows, element, structure.name + ".", structure.children)) {
        damage(structure, endsEarly);
    }
    m_known.forgetSince(mark);
    if (!structure.children.empty() || structure.is == verdict::damaged) {
        into.push_back(std::move(structure));
    }
}

reading readAs(const format& as, std::span<const std::uint8_t> image)
{
    reading result{.as = &as, .imageLength = image.size()};
    const bool isShort = image.size() < as.length;
    const std::size_t end = as.length == 0 || isShort ? image.size() : as.length;
    reader engine(image);
    if (!engine.readRows(as.rows, {.begin = 0, .end = end, .isCut = isShort}, "", result.nodes) || isShort) {
        result.problem = "the image ends before some of its fields";
    } else if (!carriesFormat(as, image)) {
        result.problem = "the bytes that identify the format are not there";
    }
    if (std::optional<node> others = engine.others()) {
        result.nodes.push_back(std::move(*others));
    }
    return result;
}

} // namespace kest::contents
