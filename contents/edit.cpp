#include "contents/edit.h"

#include <algorithm>
#include <array>

#include "contents/fieldname.h"
#include "contents/fruedit.h"
#include "contents/tlvedit.h"

namespace kest::contents
{
namespace
{

/// A format whose fields can be set.
struct editor {
    std::string_view format;
    std::vector<std::string> (*fields)();
    editResult (*set)(std::span<const std::uint8_t> image, std::span<const fieldSetting> settings);
    editResult (*make)(std::size_t size, std::span<const fieldSetting> settings);
};

constexpr std::array<editor, 2> editors{
    editor{.format = "fru", .fields = fruFields, .set = setFruFields, .make = makeFru},
    editor{.format = "tlvinfo", .fields = tlvFields, .set = setTlvFields, .make = makeTlv}};

const editor* editorOf(std::string_view format)
{
    const auto found = std::ranges::find_if(editors, [format](const editor& each) { return each.format == format; });
    return found == editors.end() ? nullptr : &*found;
}

editResult noEditor(std::string_view format)
{
    return refusedUse("fields of the format '" + std::string(format) + "' can't be set",
                      "formats with fields to set: " + joinedNames(editableFormats()));
}

} // namespace

std::vector<std::string> editableFormats()
{
    std::vector<std::string> names;
    std::ranges::transform(editors, std::back_inserter(names),
                           [](const editor& each) { return std::string(each.format); });
    return names;
}

bool isEditable(std::string_view format) { return editorOf(format) != nullptr; }

std::vector<std::string> settableFields(std::string_view format)
{
    const editor* const found = editorOf(format);
    return found == nullptr ? std::vector<std::string>() : found->fields();
}

editResult setFields(std::string_view format, std::span<const std::uint8_t> image,
                     std::span<const fieldSetting> settings)
{
    const editor* const found = editorOf(format);
    return found == nullptr ? noEditor(format) : found->set(image, settings);
}

editResult makeImage(std::string_view format, std::size_t size, std::span<const fieldSetting> settings)
{
    const editor* const found = editorOf(format);
    return found == nullptr ? noEditor(format) : found->make(size, settings);
}

} // namespace kest::contents
