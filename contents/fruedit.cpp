#include "contents/fruedit.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

#include "base/guess.h"
#include "contents/fieldname.h"
#include "contents/fruarea.h"
#include "contents/overlap.h"
#include "contents/reader.h"
#include "contents/recognise.h"

namespace kest::contents
{
namespace
{

constexpr std::size_t headerBytes = 8;
constexpr std::uint8_t formatVersion = 1;
constexpr std::uint8_t versionMask = 0x0F;
constexpr std::size_t mostUnits = 0xFF;

/// The areas with texts, in the order in which the header has their places.
std::vector<const row*> areas()
{
    std::vector<const row*> found;
    const format* const fru = findFormat("fru");
    for (const row& each : fru == nullptr ? rowList() : fru->rows) {
        if (std::any_of(each.rows.begin(), each.rows.end(), [](const row& part) { return part.as == kind::strings; })) {
            found.push_back(&each);
        }
    }
    return found;
}

/// Where the header has the place of an area.
std::size_t pointerAt(const row& area)
{
    for (const row& block : findFormat("fru")->rows) {
        for (const row& each : block.rows) {
            if (each.name == area.where.atField) {
                return each.at;
            }
        }
    }
    return 0;
}

struct areaField {
    const row* area = nullptr; ///< null: there is no such area
    std::string_view field;
};

/// Splits "board.serial".
areaField splitField(std::string_view whole)
{
    const std::size_t point = std::min(whole.find('.'), whole.size());
    for (const row* each : areas()) {
        if (isSameName(each->name, whole.substr(0, point))) {
            return {each, whole.substr(std::min(point + 1, whole.size()))};
        }
    }
    return {};
}

editResult noField(std::string_view field)
{
    return refusedUse(fmt::format("FRU information has no field '{}' that can be set", field),
                      didYouMean(field, fruFields(), "fields: " + joinedNames(fruFields())));
}

/// What is wrong with the common header; empty: nothing.
std::string headerDamage(std::span<const std::uint8_t> image)
{
    if (image.size() < headerBytes || (image[0] & versionMask) != formatVersion) {
        return "it has no common header";
    }
    const std::uint8_t sum = fruZeroSum(image.first(headerBytes));
    return sum == 0 ? ""
                    : fmt::format("the checksum of its header is 0x{:02X}, computed 0x{:02X}", image[headerBytes - 1],
                                  static_cast<std::uint8_t>(image[headerBytes - 1] + sum));
}

/// Puts an area in its place. Only its padding can take more than before.
editResult placed(std::span<std::uint8_t> place, const fruArea& area, std::size_t oldContent)
{
    const byteString content = fruAreaContent(area);
    const auto padding = place.subspan(oldContent, place.size() - 1 - oldContent);
    if (content.size() > place.size() - 1) {
        return refused(fmt::format("the {} area has {} bytes and would need {}: it can't grow over what is behind it",
                                   area.as->name, place.size(), content.size() + 1));
    }
    if (content.size() > oldContent && !isBlank(padding.first(content.size() - oldContent))) {
        return refused(
            fmt::format("the {} area would grow over bytes behind its texts that are no padding", area.as->name));
    }
    // what the texts leave free looks like the padding behind it
    const std::uint8_t fill = !padding.empty() && padding.front() == 0xFF ? 0xFF : 0x00;
    std::ranges::copy(content, place.begin());
    if (content.size() < oldContent) {
        std::ranges::fill(place.subspan(content.size(), oldContent - content.size()), fill);
    }
    place.back() = 0;
    place.back() = fruZeroSum(place);
    return {};
}

/// An area of an image that is being edited.
struct openArea {
    fruArea area;
    std::size_t offset = 0;
    std::size_t oldContent = 0;
};

/// The label of another area that shares bytes with this one; empty: there is none.
std::string sharerOf(std::span<const std::uint8_t> image, const row& area)
{
    const reading whole = readAs(*findFormat("fru"), image);
    const auto own = std::ranges::find_if(whole.nodes, [&area](const node& each) { return each.source == &area; });
    for (const node& each : whole.nodes) {
        if (own != whole.nodes.end() && &each != &*own && doOverlap(*own, each)) {
            return each.label;
        }
    }
    return "";
}

/// Takes an area of the image apart.
editResult open(std::span<const std::uint8_t> image, const row& as, openArea& opened)
{
    opened.offset = image[pointerAt(as)] * fruUnitBytes;
    if (opened.offset == 0) {
        return refused(fmt::format("there is no {} area, and making one would move others", as.name),
                       "'kestctl seeprom make fru' makes an image with the areas that are given");
    }
    opened.area = readFruArea(as, image.subspan(std::min(opened.offset, image.size())));
    if (!opened.area.damage.empty()) {
        return refused(fmt::format("a damaged {} area is not edited: {}", as.name, opened.area.damage));
    }
    if (const std::string sharer = sharerOf(image, as); !sharer.empty()) {
        return refused(
            fmt::format("the {} area lies on bytes of the area '{}', which an edit would change", as.name, sharer));
    }
    opened.oldContent = fruAreaContent(opened.area).size();
    return {};
}

/// Sets fields of the areas that have them.
editResult apply(std::span<const std::uint8_t> image, std::span<const fieldSetting> settings,
                 std::map<const row*, openArea>& areasOpen)
{
    for (const fieldSetting& setting : settings) {
        const auto [as, field] = splitField(setting.field);
        if (as == nullptr) {
            return noField(setting.field);
        }
        const auto [at, isNew] = areasOpen.try_emplace(as);
        editResult result = isNew ? open(image, *as, at->second) : editResult();
        if (result.refusal.empty()) {
            result = setInFruArea(at->second.area, field, setting);
        }
        if (!result.refusal.empty()) {
            return result;
        }
    }
    return {};
}

/// An area with its padding and checksum.
editResult wholeArea(const fruArea& area)
{
    byteString bytes = fruAreaContent(area);
    const std::size_t units = (bytes.size() + 1 + fruUnitBytes - 1) / fruUnitBytes;
    if (units > mostUnits) {
        return refused(
            fmt::format("the {} area would have more than {} bytes", area.as->name, mostUnits * fruUnitBytes));
    }
    bytes.resize(units * fruUnitBytes);
    bytes[1] = static_cast<std::uint8_t>(units);
    bytes.back() = fruZeroSum(bytes);
    return {.bytes = std::move(bytes), .refusal = {}};
}

/// Header and areas one behind the other.
editResult laidOut(const std::map<const row*, fruArea>& made)
{
    byteString image(headerBytes);
    image[0] = formatVersion;
    for (const row* each : areas()) {
        const auto found = made.find(each);
        if (found == made.end()) {
            continue;
        }
        editResult area = wholeArea(found->second);
        if (!area.refusal.empty()) {
            return area;
        }
        if (image.size() / fruUnitBytes > mostUnits) {
            return refused(fmt::format("the {} area would begin behind byte {}, which the header can't say", each->name,
                                       mostUnits * fruUnitBytes));
        }
        image[pointerAt(*each)] = static_cast<std::uint8_t>(image.size() / fruUnitBytes);
        image.insert(image.end(), area.bytes.begin(), area.bytes.end());
    }
    image[headerBytes - 1] = fruZeroSum(std::span(image).first(headerBytes));
    return {.bytes = std::move(image), .refusal = {}};
}

} // namespace

std::vector<std::string> fruFields()
{
    std::vector<std::string> names;
    for (const row* each : areas()) {
        for (const std::string& field : fruAreaFields(*each)) {
            names.push_back(std::string(each->name) + "." + field);
        }
    }
    return names;
}

editResult setFruFields(std::span<const std::uint8_t> image, std::span<const fieldSetting> settings)
{
    if (const std::string damage = headerDamage(image); !damage.empty()) {
        return refused("damaged FRU information is not edited: " + damage);
    }
    std::map<const row*, openArea> opened;
    if (editResult result = apply(image, settings, opened); !result.refusal.empty()) {
        return result;
    }
    byteString whole(image.begin(), image.end());
    for (const auto& [as, each] : opened) {
        editResult result = placed(std::span(whole).subspan(each.offset, each.area.length), each.area, each.oldContent);
        if (!result.refusal.empty()) {
            return result;
        }
    }
    return {.bytes = std::move(whole), .refusal = {}};
}

editResult makeFru(std::size_t size, std::span<const fieldSetting> settings)
{
    std::map<const row*, fruArea> made;
    for (const fieldSetting& setting : settings) {
        const auto [as, field] = splitField(setting.field);
        if (as == nullptr) {
            return noField(setting.field);
        }
        fruArea& area = made.try_emplace(as, newFruArea(*as)).first->second;
        if (editResult result = setInFruArea(area, field, setting); !result.refusal.empty()) {
            return result;
        }
    }
    editResult image = laidOut(made);
    if (!image.refusal.empty()) {
        return image;
    }
    if (size != 0 && size < image.bytes.size()) {
        return refused(fmt::format("the content has {} bytes, the image {}", image.bytes.size(), size));
    }
    image.bytes.resize(std::max(size, image.bytes.size()), 0xFF);
    return image;
}

} // namespace kest::contents
