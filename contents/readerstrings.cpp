/// The part of `reader` that reads strings with a type and a length.
#include "contents/packedtext.h"
#include "contents/problem.h"
#include "contents/reader.h"

namespace kest::contents
{
namespace
{

/// Language codes 0 and 25 are English.
bool isEnglish(const stringsRule& rule, const knownFields& known)
{
    constexpr std::uint64_t english = 25;
    const std::uint64_t language = rule.languageField.empty() ? 0 : known.find(rule.languageField).value_or(0);
    return language == 0 || language == english;
}

node stringNode(const row& field, std::size_t index, const std::string& prefix)
{
    const stringsRule& rule = field.strings;
    if (index < rule.known.size()) {
        const row& known = rule.known[index];
        return {.name = prefix + std::string(known.name), .label = std::string(known.label), .source = &known};
    }
    const std::string number = std::to_string(index - rule.known.size() + 1);
    return {.name = prefix + std::string(rule.moreName) + number,
            .label = std::string(rule.moreLabel) + " " + number,
            .source = &field};
}

} // namespace

bool reader::readStrings(const row& field, const window& block, const std::string& prefix, std::vector<node>& into)
{
    const stringsRule& rule = field.strings;
    // the last byte of a block that is not cut is its checksum
    const std::size_t stringsEnd = block.isCut || block.size() == 0 ? block.end : block.end - 1;
    if (block.begin + field.at >= stringsEnd) {
        return false;
    }
    std::size_t at = block.begin + field.at;
    for (std::size_t index = 0; at < stringsEnd && m_image[at] != rule.end; ++index) {
        const std::uint8_t typeLength = m_image[at];
        node read = stringNode(field, index, prefix);
        read.offset = at + 1;
        read.length = lengthOf(typeLength);
        if (read.length > stringsEnd - read.offset) {
            read.length = stringsEnd - read.offset;
            damage(read, "its length is " + std::to_string(lengthOf(typeLength)) + ", and there are " +
                             std::to_string(read.length) + " bytes before the end of its area");
            into.push_back(std::move(read));
            return true;
        }
        const bool english = isEnglish(rule, m_known) || (index < rule.known.size() && rule.known[index].english);
        decodedValue value = unpackText(packingOf(typeLength), m_image.subspan(read.offset, read.length), english);
        read.value = std::move(value.value);
        read.text = std::move(value.text);
        read.is = value.is;
        read.problem = std::move(value.problem);
        m_covered.add(at, read.length + 1);
        at = read.offset + read.length;
        into.push_back(std::move(read));
    }
    if (at >= stringsEnd) {
        node end{.name = prefix + "end", .label = "End of the strings", .offset = stringsEnd, .source = &field};
        damage(end, "there is no byte that ends the strings");
        into.push_back(std::move(end));
        return true;
    }
    m_covered.add(at, 1);
    return true;
}

} // namespace kest::contents
