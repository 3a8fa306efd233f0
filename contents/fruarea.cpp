#include "contents/fruarea.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <numeric>
#include <optional>

#include "base/guess.h"
#include "contents/fieldname.h"

namespace kest::contents
{
namespace
{

constexpr std::uint8_t formatVersion = 1;
constexpr std::uint8_t versionMask = 0x0F;
constexpr std::size_t lengthAt = 1;
constexpr std::uint8_t lengthMask = 0x3F;
constexpr std::uint8_t plainText = 0xC0; ///< coding: 8 bits a character
constexpr std::uint8_t sixBitText = 0x80;
constexpr std::uint8_t english = 25;
constexpr std::uint8_t unknownChassis = 2;
constexpr std::size_t mostTextBytes = lengthMask;

/// The row with the language of an area's texts; null: they are in English.
const row* languageOf(const row& area)
{
    const std::string_view name = fruTexts(area).strings.languageField;
    for (const row& each : area.rows) {
        if (!name.empty() && each.name == name) {
            return &each;
        }
    }
    return nullptr;
}

bool isEnglish(std::uint8_t language) { return language == 0 || language == english; }

/// Whether a text of the area is in 2-byte characters when its coding says "8 bits a character".
bool isWide(const fruArea& area, const row* text)
{
    const row* const language = languageOf(*area.as);
    if (language == nullptr || (text != nullptr && text->english)) {
        return false;
    }
    return !isEnglish(area.head.at(language->at));
}

/// The number of a custom field, counted from 0.
std::optional<std::size_t> customIndex(const stringsRule& rule, std::string_view field)
{
    const std::size_t letters = field.find_first_of("0123456789");
    std::size_t number = 0;
    if (letters == field.npos || !isSameName(field.substr(0, letters), rule.moreName)) {
        return std::nullopt;
    }
    const char* const end = field.data() + field.size();
    const auto [stop, error] = std::from_chars(field.data() + letters, end, number);
    return error == std::errc() && stop == end && number != 0 ? std::optional(number - 1) : std::nullopt;
}

/// A text in the coding that it needs. One character in 8 bits would look like the mark behind the last text.
std::optional<fruText> codedText(const byteString& bytes)
{
    if (bytes.size() != 1) {
        return fruText{.typeLength = static_cast<std::uint8_t>(plainText | bytes.size()), .bytes = bytes};
    }
    constexpr std::uint8_t first = 0x20;
    constexpr std::uint8_t last = 0x5F;
    if (bytes.front() < first || bytes.front() > last) {
        return std::nullopt;
    }
    return fruText{.typeLength = sixBitText | 1, .bytes = {static_cast<std::uint8_t>(bytes.front() - first)}};
}

editResult setText(fruArea& area, const row* text, std::size_t index, const fieldSetting& setting)
{
    const std::size_t known = fruTexts(*area.as).strings.known.size();
    if (isWide(area, text)) {
        return refused(fmt::format("{}: the texts of this area are in another language than English, in characters of "
                                   "2 bytes, which can't be set",
                                   setting.field));
    }
    const encodedValue value = encodeValue({.leastBytes = 0, .mostBytes = mostTextBytes}, setting.value);
    const auto coded = value.complaint.empty() ? codedText(value.bytes) : std::nullopt;
    if (!coded) {
        return refusedValue(setting, !value.complaint.empty()
                                         ? value.complaint
                                         : "a single character must be a digit, a capital letter or a sign");
    }
    if (setting.value.empty() && index >= known && index + 1 >= area.texts.size()) {
        area.texts.resize(std::min(area.texts.size(), index));
        return {};
    }
    if (index >= std::max(area.texts.size(), known) + 1) {
        return refused(fmt::format("there is no custom field before {}", setting.field),
                       fmt::format("the next custom field is {}.{}{}", area.as->name,
                                   fruTexts(*area.as).strings.moreName,
                                   std::max(area.texts.size(), known) - known + 1));
    }
    area.texts.resize(std::max(area.texts.size(), index + 1));
    area.texts[index] = *coded;
    return {};
}

editResult setFixed(fruArea& area, const row& fixed, const fieldSetting& setting)
{
    if (setting.value.empty() && fixed.as == kind::minutesSince1996) {
        std::fill_n(area.head.begin() + static_cast<std::ptrdiff_t>(fixed.at), fixed.length, std::uint8_t{0});
        return {};
    }
    const encodedValue value = encodeValue(ruleOf(fixed), setting.value);
    if (&fixed == languageOf(*area.as) && (value.bytes.empty() || !isEnglish(value.bytes.front()))) {
        return refusedValue(setting, "English alone is allowed; texts in other languages are in characters of 2 bytes, "
                                     "which can't be set");
    }
    if (!value.complaint.empty()) {
        return refusedValue(setting, value.complaint);
    }
    std::ranges::copy(value.bytes, area.head.begin() + static_cast<std::ptrdiff_t>(fixed.at));
    return {};
}

fruArea damaged(const row& area, std::string what)
{
    return {.as = &area, .head = {}, .texts = {}, .length = 0, .damage = std::move(what)};
}

/// Takes the texts up to the mark behind the last one. @return whether there is a mark
bool readTexts(const stringsRule& rule, std::span<const std::uint8_t> bytes, std::vector<fruText>& texts)
{
    for (std::size_t at = 0; at < bytes.size();) {
        if (bytes[at] == rule.end) {
            return true;
        }
        const std::size_t length = bytes[at] & lengthMask;
        if (length > bytes.size() - at - 1) {
            return false;
        }
        const auto text = bytes.subspan(at + 1, length);
        texts.push_back({bytes[at], byteString(text.begin(), text.end())});
        at += 1 + length;
    }
    return false;
}

} // namespace

const row& fruTexts(const row& area)
{
    const auto* const found =
        std::find_if(area.rows.begin(), area.rows.end(), [](const row& each) { return each.as == kind::strings; });
    return *found;
}

std::uint8_t fruZeroSum(std::span<const std::uint8_t> bytes)
{
    return static_cast<std::uint8_t>(0U - std::accumulate(bytes.begin(), bytes.end(), 0U));
}

fruArea readFruArea(const row& area, std::span<const std::uint8_t> bytes)
{
    const std::size_t headBytes = fruTexts(area).at;
    const std::size_t length = bytes.size() <= lengthAt ? 0 : bytes[lengthAt] * fruUnitBytes;
    if (length <= headBytes || length > bytes.size()) {
        return damaged(area, fmt::format("its length of {} bytes can't be right", length));
    }
    if (const unsigned version = bytes[0] & versionMask; version != formatVersion) {
        return damaged(area, fmt::format("its version is {}, known is {}", version, formatVersion));
    }
    const auto whole = bytes.first(length);
    if (const std::uint8_t sum = fruZeroSum(whole); sum != 0) {
        const std::uint8_t stored = whole.back();
        return damaged(area, fmt::format("its checksum is 0x{:02X}, computed 0x{:02X}", stored,
                                         static_cast<std::uint8_t>(stored + sum)));
    }
    fruArea found{.as = &area,
                  .head = byteString(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(headBytes)),
                  .texts = {},
                  .length = length};
    if (!readTexts(fruTexts(area).strings, whole.subspan(headBytes, length - headBytes - 1), found.texts)) {
        return damaged(area, "its texts pass its end");
    }
    return found;
}

fruArea newFruArea(const row& area)
{
    const row& texts = fruTexts(area);
    fruArea made{.as = &area, .head = byteString(texts.at), .texts = {}};
    made.head.at(0) = formatVersion;
    if (const row* const language = languageOf(area)) {
        made.head.at(language->at) = english;
    }
    for (const row& each : area.rows) {
        if (each.settable && each.as == kind::choice && &each != languageOf(area)) {
            made.head.at(each.at) = unknownChassis;
        }
    }
    made.texts.resize(texts.strings.known.size());
    return made;
}

std::vector<std::string> fruAreaFields(const row& area)
{
    std::vector<std::string> names;
    for (const row& each : area.rows) {
        if (each.settable && each.as != kind::strings) {
            names.emplace_back(each.name);
        }
    }
    const stringsRule& rule = fruTexts(area).strings;
    for (const row& each : rule.known) {
        names.emplace_back(each.name);
    }
    names.push_back(std::string(rule.moreName) + "1");
    return names;
}

editResult setInFruArea(fruArea& area, std::string_view field, const fieldSetting& setting)
{
    for (const row& each : area.as->rows) {
        if (each.settable && each.as != kind::strings && isSameName(each.name, field)) {
            return setFixed(area, each, setting);
        }
    }
    const stringsRule& rule = fruTexts(*area.as).strings;
    for (const row& each : rule.known) {
        if (isSameName(each.name, field)) {
            return setText(area, &each, static_cast<std::size_t>(&each - rule.known.begin()), setting);
        }
    }
    if (const auto custom = customIndex(rule, field)) {
        return setText(area, nullptr, rule.known.size() + *custom, setting);
    }
    return refusedUse(fmt::format("the {} area has no field '{}' that can be set", area.as->name, field),
                      didYouMean(field, fruAreaFields(*area.as), "fields: " + joinedNames(fruAreaFields(*area.as))));
}

byteString fruAreaContent(const fruArea& area)
{
    byteString bytes = area.head;
    for (const fruText& text : area.texts) {
        bytes.push_back(text.typeLength);
        bytes.insert(bytes.end(), text.bytes.begin(), text.bytes.end());
    }
    bytes.push_back(fruTexts(*area.as).strings.end);
    return bytes;
}

} // namespace kest::contents
