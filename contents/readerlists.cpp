/// The part of `reader` that reads lists.
#include <algorithm>
#include <map>

#include "base/hex.h"
#include "contents/decodedvalue.h"
#include "contents/problem.h"
#include "contents/reader.h"

namespace kest::contents
{
namespace
{

const row* rowOfType(const listRule& rule, std::uint64_t type)
{
    const auto* const found = std::find_if(rule.known.begin(), rule.known.end(), [type](const row& each) {
        return type >= each.tag && type <= std::max(each.tag, each.lastTag);
    });
    return found == rule.known.end() ? nullptr : found;
}

std::string typeText(std::uint64_t type)
{
    std::string text = "0x";
    appendHexByte(text, static_cast<std::uint8_t>(type), upperHexDigits);
    return text;
}

std::string labelOf(const row* known, const listEntry& entry)
{
    return known != nullptr ? std::string(known->label) : "Type " + typeText(entry.type);
}

/// Names the entries of one list: with headers by their number, else by their type, from the second of a type on with
/// a number, too.
class entryNames
{
public:
    entryNames(const listRule& rule, std::string prefix) : m_rule(rule), m_prefix(std::move(prefix)) {}

    std::string next(const row* known, const listEntry& entry)
    {
        if (m_rule.showHeader) {
            return m_prefix + std::to_string(++m_count);
        }
        const std::string name =
            m_prefix + (known != nullptr ? std::string(known->name) : "type" + typeText(entry.type));
        const std::size_t times = ++m_times[name];
        return times == 1 ? name : name + "." + std::to_string(times);
    }

private:
    const listRule& m_rule;
    std::string m_prefix;
    std::size_t m_count = 0;
    std::map<std::string, std::size_t> m_times;
};

/// What is wrong with a list as a whole: it must end as its rule says, and where it says.
/// @param left  bytes behind its last entry
std::string endProblem(const row& field, bool hasLast, std::size_t left)
{
    const listRule& rule = field.entries;
    if (!hasLast && (rule.lastType != noTag || !rule.lastField.empty())) {
        const row* const last = rowOfType(rule, rule.lastType);
        return "its last entry is missing" + (last == nullptr ? "" : ": " + std::string(last->label));
    }
    if (left != 0 && !field.where.lengthField.empty()) {
        return std::to_string(left) + " of its bytes lie behind its last entry";
    }
    return {};
}

bool isZero(std::span<const std::uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; });
}

} // namespace

node bytesNode(std::span<const std::uint8_t> image, const window& where)
{
    const auto bytes = image.subspan(where.begin, where.size());
    return {.value = std::vector<std::uint8_t>(bytes.begin(), bytes.end()),
            .text = spacedHex(bytes),
            .offset = where.begin,
            .length = where.size(),
            .is = verdict::unknown};
}

void reader::readEntries(const row& field, const window& list, const std::string& prefix, node& into)
{
    const listRule& rule = field.entries;
    entryNames names(rule, prefix);
    std::size_t at = list.begin;
    bool hasLast = false;
    while (at < list.end && !hasLast) {
        if (into.children.size() == mostEntries) {
            return damage(into, "it has more than " + std::to_string(mostEntries) + " entries");
        }
        if (rule.zerosEnd && isZero(m_image.subspan(at, list.end - at))) {
            break;
        }
        const std::optional<listEntry> entry = entryAt(rule, list, at, m_image);
        if (!entry) {
            return damage(into, "it ends inside the header of an entry");
        }
        m_covered.add(at, rule.headerLength);
        const row* const known = rowOfType(rule, entry->type);
        const std::size_t mark = m_known.count();
        into.children.push_back(readEntry(rule, known, *entry, names.next(known, *entry)));
        m_known.forgetSince(mark);
        if (!entry->fits) {
            return;
        }
        at = entry->whole.end;
        hasLast = entry->isLast;
    }
    if (std::string problem = endProblem(field, hasLast, list.end - at); !problem.empty()) {
        damage(into, std::move(problem));
    }
}

node reader::readEntry(const listRule& rule, const row* known, const listEntry& entry, const std::string& name)
{
    if (!entry.fits) {
        node broken{.name = name, .label = labelOf(known, entry), .offset = entry.whole.begin, .source = known};
        broken.length = entry.whole.size();
        damage(broken, "its length is " + std::to_string(entry.length) + ", and there are " +
                           std::to_string(entry.value.size()) + " bytes before the end of its area");
        return broken;
    }
    node read = rule.showHeader ? entryWithHeader(rule, known, entry, name) : plainEntry(known, entry, name);
    read.name = name;
    read.label = labelOf(known, entry);
    return read;
}

/// An entry whose header is not shown: its value.
node reader::plainEntry(const row* known, const listEntry& entry, const std::string& name)
{
    const bool hasLength = known != nullptr && known->as != kind::block && known->length != 0;
    if (known == nullptr || (hasLength && known->length != entry.length)) {
        m_covered.add(entry.value.begin, entry.value.size());
        node bytes = bytesNode(m_image, entry.value);
        bytes.source = known;
        if (known != nullptr) {
            damage(bytes,
                   "its length is " + std::to_string(entry.length) + " instead of " + std::to_string(known->length));
        }
        return bytes;
    }
    if (known->as == kind::block) {
        node block{.offset = entry.value.begin, .length = entry.value.size(), .source = known};
        if (!readRows(known->rows, entry.value, name + ".", block.children)) {
            damage(block, endsEarly);
        }
        return block;
    }
    std::vector<node> single;
    return readValue(*known, entry.value, "", single) ? std::move(single.front()) : bytesNode(m_image, entry.value);
}

/// An entry that is a block: its header, then the fields of its value.
node reader::entryWithHeader(const listRule& rule, const row* known, const listEntry& entry, const std::string& name)
{
    node block{.offset = entry.whole.begin, .length = entry.whole.size(), .source = known};
    const std::string prefix = name + ".";
    bool isComplete = readRows(rule.header, entry.whole, prefix, block.children);
    if (known == nullptr) {
        m_covered.add(entry.value.begin, entry.value.size());
        block.children.push_back(bytesNode(m_image, entry.value));
        block.children.back().name = prefix + "data";
        block.children.back().label = "Data";
    } else {
        isComplete = readRows(known->rows, entry.value, prefix, block.children) && isComplete;
    }
    if (!isComplete) {
        damage(block, endsEarly);
    }
    return block;
}

} // namespace kest::contents
