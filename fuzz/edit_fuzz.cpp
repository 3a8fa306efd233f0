/// Edits of images from anywhere. Two bytes choose format and field, the third says how many bytes of value follow; the
/// rest is the image. It is also edited with the checksums that belong to it, since chance finds none. An edit that is done leaves an image of the same format and size, in which no part is broken that
/// was whole. The field has the same bytes when it is set again; what no field of the edit covers keeps its bytes.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "base/crc32.h"
#include "contents/difference.h"
#include "contents/edit.h"
#include "contents/fruarea.h"
#include "contents/reader.h"
#include "contents/recognise.h"

namespace
{

using namespace kest::contents;
using imageBytes = std::span<const std::uint8_t>;

void require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

bool isOf(const format& as, imageBytes image)
{
    const auto found = recognise(image);
    return std::ranges::find(found, &as) != found.end();
}

/// The last part of a name: what an area calls its field.
std::string ownName(const std::string& name) { return name.substr(name.rfind('.') + 1); }

/// What an edit changes besides its field: lengths, checksums, and texts that a text of another length moves.
void checkOthers(const reading& before, const reading& after, const fieldSetting& setting)
{
    for (const fieldDifference& each : differences(before, after)) {
        // texts before one that is added begin to be there, without a character
        if (!each.old && each.now == "") {
            continue;
        }
        const std::string own = ownName(each.name);
        require(each.name == setting.field || own == "totalLength" || own == "crc" || own == "checksum");
    }
    const auto broken = brokenParts(after);
    const auto wasBroken = brokenParts(before);
    for (const node* part : broken) {
        require(std::ranges::any_of(wasBroken, [part](const node* old) { return old->name == part->name; }));
    }
}

/// The bytes from `from` on are the same.
void checkBytes(imageBytes before, imageBytes after, std::size_t from)
{
    require(before.size() == after.size());
    from = std::min(from, before.size());
    require(std::ranges::equal(before.subspan(from), after.subspan(from)));
}

/// The field reads back as it was set; of a removed one nothing is left.
void checkField(const reading& after, const fieldSetting& setting)
{
    const node* const field = findNode(after, setting.field);
    if (setting.value.empty()) {
        require(field == nullptr || field->text.empty() || field->raw == 0U);
    } else {
        require(field != nullptr && field->is == verdict::good);
        // a text comes back as it is; numbers, dates and addresses have several spellings
        require(field->source->as != kind::text || field->length == 19 || field->text.starts_with(setting.value) ||
                setting.value.find_first_not_of(' ') == std::string::npos || setting.value.ends_with(' '));
    }
}

void edit(const format& as, imageBytes image, const fieldSetting& setting)
{
    const std::vector<fieldSetting> settings{setting};
    const editResult done = setFields(as.name, image, settings);
    require(done.bytes.empty() || done.refusal.empty());
    require(!done.wrongUse || !done.refusal.empty());
    if (!done.refusal.empty()) {
        return;
    }
    const reading before = readAs(as, image);
    const reading after = readAs(as, done.bytes);
    checkBytes(image, done.bytes, std::max(endOf(before), endOf(after)));
    if (isOf(as, image)) {
        require(isOf(as, done.bytes));
        checkOthers(before, after, setting);
        checkField(after, setting);
    }
    const editResult again = setFields(as.name, done.bytes, settings);
    require(again.refusal.empty() && again.bytes == done.bytes);
}

void putZeroSum(std::span<std::uint8_t> bytes)
{
    bytes.back() = 0;
    bytes.back() = fruZeroSum(bytes);
}

void sealTlv(std::span<std::uint8_t> image)
{
    constexpr std::size_t lengthAt = 9;
    constexpr std::size_t headBytes = 11;
    constexpr std::size_t sumBytes = 4;
    if (image.size() < headBytes) {
        return;
    }
    const std::size_t end = headBytes + image[lengthAt] * 256U + image[lengthAt + 1];
    if (end <= image.size() && end >= headBytes + sumBytes) {
        const std::uint32_t sum = kest::crc32(image.first(end - sumBytes));
        for (std::size_t byte = 0; byte < sumBytes; ++byte) {
            image[end - 1 - byte] = static_cast<std::uint8_t>(sum >> (8 * byte));
        }
    }
}

void sealFru(std::span<std::uint8_t> image)
{
    if (image.size() < fruUnitBytes) {
        return;
    }
    putZeroSum(image.first(fruUnitBytes));
    for (std::size_t pointer = 2; pointer <= 4; ++pointer) {
        const std::size_t at = image[pointer] * fruUnitBytes;
        const std::size_t length = at == 0 || at + 1 >= image.size() ? 0 : image[at + 1] * fruUnitBytes;
        if (length != 0 && length <= image.size() - at) {
            putZeroSum(image.subspan(at, length));
        }
    }
}

/// The image with right checksums.
byteString sealed(const format& as, imageBytes image)
{
    byteString bytes(image.begin(), image.end());
    as.name == "fru" ? sealFru(bytes) : sealTlv(bytes);
    return bytes;
}

/// An image with this field alone is whole.
void make(const format& as, const fieldSetting& setting)
{
    const editResult made = makeImage(as.name, 0, std::vector<fieldSetting>{setting});
    if (made.refusal.empty()) {
        require(isOf(as, made.bytes));
        require(brokenParts(readAs(as, made.bytes)).empty());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t headBytes = 3;
    if (size < headBytes || data[2] > size - headBytes) {
        return 0;
    }
    const imageBytes rest(data + headBytes, size - headBytes);
    const auto names = editableFormats();
    const format* const as = findFormat(names[data[0] % names.size()]);
    const auto fields = settableFields(as->name);
    const fieldSetting setting{.field = fields[data[1] % fields.size()],
                               .value = std::string(rest.begin(), rest.begin() + data[2])};
    edit(*as, rest.subspan(data[2]), setting);
    edit(*as, sealed(*as, rest.subspan(data[2])), setting);
    make(*as, setting);
    return 0;
}
