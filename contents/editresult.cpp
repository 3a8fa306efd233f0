#include "contents/editresult.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace kest::contents
{

editResult refused(std::string what, std::string tryThis)
{
    return {.bytes = {}, .refusal = std::move(what), .tryThis = std::move(tryThis)};
}

editResult refusedUse(std::string what, std::string tryThis)
{
    editResult result = refused(std::move(what), std::move(tryThis));
    result.wrongUse = true;
    return result;
}

editResult refusedValue(const fieldSetting& setting, const std::string& complaint)
{
    return refusedUse(fmt::format("{} can't be '{}': {}", setting.field, setting.value, complaint));
}

bool isBlank(std::span<const std::uint8_t> bytes)
{
    return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0x00; }) ||
           std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0xFF; });
}

} // namespace kest::contents
