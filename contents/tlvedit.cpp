#include "contents/tlvedit.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>
#include <optional>

#include "base/crc32.h"
#include "base/guess.h"
#include "contents/fieldname.h"
#include "contents/recognise.h"

namespace kest::contents
{
namespace
{

constexpr std::string_view magic("TlvInfo\0", 8);
constexpr std::uint8_t version = 1;
constexpr std::size_t headBytes = 11; ///< magic, version, and two bytes of length
constexpr std::size_t mostEntriesBytes = 0xFFFF;
constexpr std::size_t entryHeadBytes = 2; ///< code and length
constexpr std::uint8_t crcCode = 0xFE;
constexpr std::size_t crcBytes = 4;
constexpr std::uint8_t vendorCode = 0xFD;
constexpr std::size_t vendorNumberBytes = 4; ///< IANA's number, at the beginning of a vendor's entry

/// Texts of a form of their own.
struct formRow {
    std::uint64_t code;
    valueKind kind;
};
constexpr std::array<formRow, 2> forms{formRow{.code = 0x25, .kind = valueKind::dateText},
                                       formRow{.code = 0x2C, .kind = valueKind::countryCode}};

/// What a field is set by.
struct tlvField {
    std::uint8_t code = 0;
    valueRule rule;
};

/// The rows of the entries that the format knows.
rowList knownEntries()
{
    const format* const tlvinfo = findFormat("tlvinfo");
    for (const row& each : tlvinfo == nullptr ? rowList() : tlvinfo->rows) {
        if (each.as == kind::list) {
            return each.entries.known;
        }
    }
    return {};
}

tlvField fieldOf(const row& known)
{
    tlvField field{.code = static_cast<std::uint8_t>(known.tag), .rule = ruleOf(known)};
    const auto form = std::ranges::find_if(forms, [&](const formRow& each) { return each.code == known.tag; });
    if (form != forms.end()) {
        field.rule.kind = form->kind;
    }
    return field;
}

struct tlvEntry {
    std::uint8_t code = 0;
    byteString value;
};

struct tlvTable {
    std::vector<tlvEntry> entries; ///< all but the checksum
    std::size_t end = 0; ///< the first byte behind the table
    std::string damage; ///< empty: none
};

tlvTable damaged(std::string what) { return {.entries = {}, .end = 0, .damage = std::move(what)}; }

std::uint32_t highestFirst(std::span<const std::uint8_t> bytes)
{
    std::uint32_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

/// Takes the checksum, the last entry, off the table.
tlvTable checked(tlvTable table, std::span<const std::uint8_t> image)
{
    if (table.entries.empty() || table.entries.back().code != crcCode ||
        table.entries.back().value.size() != crcBytes) {
        return damaged("its last entry is no CRC-32");
    }
    const std::uint32_t stored = highestFirst(table.entries.back().value);
    const std::uint32_t computed = crc32(image.first(table.end - crcBytes));
    if (stored != computed) {
        return damaged(fmt::format("its CRC-32 is 0x{:08X}, computed 0x{:08X}", stored, computed));
    }
    table.entries.pop_back();
    const bool another = std::ranges::any_of(table.entries, [](const auto& each) { return each.code == crcCode; });
    return another ? damaged("it has a CRC-32 before its end") : table;
}

tlvTable readTable(std::span<const std::uint8_t> image)
{
    if (image.size() < headBytes || !std::ranges::equal(image.first(magic.size()), magic, {}, {},
                                                        [](char c) { return static_cast<std::uint8_t>(c); })) {
        return damaged("it is no TlvInfo table");
    }
    if (image[magic.size()] != version) {
        return damaged(fmt::format("its version is {}, known is {}", image[magic.size()], version));
    }
    tlvTable table{.entries = {}, .end = headBytes + highestFirst(image.subspan(magic.size() + 1, 2)), .damage = {}};
    if (table.end > image.size()) {
        return damaged(fmt::format("its {} bytes pass the end of the image at {}", table.end, image.size()));
    }
    for (std::size_t at = headBytes; at < table.end;) {
        const std::size_t left = table.end - at;
        if (left < entryHeadBytes || image[at + 1] > left - entryHeadBytes) {
            return damaged(fmt::format("the entry at offset {} (0x{:X}) passes the end of the table", at, at));
        }
        const auto value = image.subspan(at + entryHeadBytes, image[at + 1]);
        table.entries.push_back({image[at], byteString(value.begin(), value.end())});
        at += entryHeadBytes + value.size();
    }
    return checked(std::move(table), image);
}

/// The code in a text such as "0x23".
std::optional<std::uint8_t> codeIn(std::string_view text)
{
    std::uint8_t code = 0;
    if (!text.starts_with("0x") && !text.starts_with("0X")) {
        return std::nullopt;
    }
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + 2, end, code, 16);
    return error == std::errc() && stop == end ? std::optional(code) : std::nullopt;
}

/// A field by its name or code. A code that the format does not know takes bytes.
std::optional<tlvField> findField(std::string_view name)
{
    const auto code = codeIn(name);
    for (const row& each : knownEntries()) {
        if (each.settable && (code ? each.tag == *code : isSameName(each.name, name))) {
            return fieldOf(each);
        }
    }
    if (!code || *code == 0x00 || *code == 0xFF || *code == crcCode) {
        return std::nullopt;
    }
    const std::size_t least = *code == vendorCode ? vendorNumberBytes : 0;
    return tlvField{.code = *code, .rule = {.kind = valueKind::hexBytes, .leastBytes = least}};
}

/// A text that was padded with NUL keeps its length where it can, so that nothing behind it moves.
void replaceValue(tlvEntry& entry, byteString value, valueKind kind)
{
    const bool isPadded = kind == valueKind::text && !entry.value.empty() && entry.value.back() == 0;
    value.resize(isPadded ? std::max(value.size(), entry.value.size()) : value.size());
    entry.value = std::move(value);
}

/// @return the refusal; empty: done
editResult apply(tlvTable& table, const fieldSetting& setting)
{
    const auto field = findField(setting.field);
    if (!field) {
        return refusedUse(
            fmt::format("a TlvInfo table has no field '{}' that can be set", setting.field),
            didYouMean(setting.field, tlvFields(), "fields: " + joinedNames(tlvFields()) + "; or a code such as 0x23"));
    }
    const auto isIt = [&](const tlvEntry& entry) { return entry.code == field->code; };
    const auto found = std::ranges::find_if(table.entries, isIt);
    if (std::ranges::count_if(table.entries, isIt) > 1) {
        return refused(fmt::format("the table has several entries with the code 0x{:02X}", field->code));
    }
    if (setting.value.empty()) {
        if (found != table.entries.end()) {
            table.entries.erase(found);
        }
        return {};
    }
    encodedValue value = encodeValue(field->rule, setting.value);
    if (!value.complaint.empty()) {
        return refusedValue(setting, value.complaint);
    }
    if (found != table.entries.end()) {
        replaceValue(*found, std::move(value.bytes), field->rule.kind);
    } else {
        table.entries.push_back({field->code, std::move(value.bytes)});
    }
    return {};
}

std::uint8_t byteOf(std::size_t value, unsigned place) { return static_cast<std::uint8_t>(value >> (8 * place)); }

/// The bytes of a whole table; empty when they are too many.
byteString bytesOf(const tlvTable& table)
{
    std::size_t length = entryHeadBytes + crcBytes;
    for (const tlvEntry& entry : table.entries) {
        length += entryHeadBytes + entry.value.size();
    }
    if (length > mostEntriesBytes) {
        return {};
    }
    byteString bytes(magic.begin(), magic.end());
    bytes.insert(bytes.end(), {version, byteOf(length, 1), byteOf(length, 0)});
    for (const tlvEntry& entry : table.entries) {
        bytes.insert(bytes.end(), {entry.code, byteOf(entry.value.size(), 0)});
        bytes.insert(bytes.end(), entry.value.begin(), entry.value.end());
    }
    bytes.insert(bytes.end(), {crcCode, byteOf(crcBytes, 0)});
    const std::uint32_t sum = crc32(bytes);
    bytes.insert(bytes.end(), {byteOf(sum, 3), byteOf(sum, 2), byteOf(sum, 1), byteOf(sum, 0)});
    return bytes;
}

/// Puts a table where an old one ended at `oldEnd`.
editResult placed(std::span<const std::uint8_t> image, const byteString& table, std::size_t oldEnd)
{
    if (table.empty() || table.size() > image.size()) {
        return refused(fmt::format("the table would have {} bytes, there is room for {}",
                                   table.empty() ? "more than 65546" : std::to_string(table.size()), image.size()));
    }
    if (table.size() > oldEnd && !isBlank(image.subspan(oldEnd, table.size() - oldEnd))) {
        return refused(fmt::format("the table would grow to offset {} (0x{:X}), but something else begins behind "
                                   "its present end at {} (0x{:X})",
                                   table.size(), table.size(), oldEnd, oldEnd));
    }
    byteString whole(image.begin(), image.end());
    std::ranges::copy(table, whole.begin());
    if (table.size() < oldEnd) {
        // what the old table leaves free looks like the bytes behind it
        const std::uint8_t fill = oldEnd < image.size() && image[oldEnd] == 0x00 ? 0x00 : 0xFF;
        std::fill(whole.begin() + static_cast<std::ptrdiff_t>(table.size()),
                  whole.begin() + static_cast<std::ptrdiff_t>(oldEnd), fill);
    }
    return {.bytes = std::move(whole), .refusal = {}};
}

} // namespace

std::vector<std::string> tlvFields()
{
    std::vector<std::string> names;
    for (const row& each : knownEntries()) {
        if (each.settable) {
            names.emplace_back(each.name);
        }
    }
    return names;
}

editResult setTlvFields(std::span<const std::uint8_t> image, std::span<const fieldSetting> settings)
{
    tlvTable table = readTable(image);
    if (!table.damage.empty()) {
        return refused("a damaged TlvInfo table is not edited: " + table.damage);
    }
    for (const fieldSetting& setting : settings) {
        if (editResult refused = apply(table, setting); !refused.refusal.empty()) {
            return refused;
        }
    }
    return placed(image, bytesOf(table), table.end);
}

editResult makeTlv(std::size_t size, std::span<const fieldSetting> settings)
{
    tlvTable table;
    for (const fieldSetting& setting : settings) {
        if (editResult refused = apply(table, setting); !refused.refusal.empty()) {
            return refused;
        }
    }
    const byteString bytes = bytesOf(table);
    return placed(byteString(size == 0 ? bytes.size() : size, 0xFF), bytes, 0);
}

} // namespace kest::contents
