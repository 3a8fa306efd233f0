#include "platform/host/iic/operationrecord.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace kest::host::iic
{
namespace
{

constexpr std::string_view firstLine = "kest operation 1";
// three of them and the numbers fit into a record
constexpr std::size_t longestText = 120;

std::string placeText(const operationPlace& place)
{
    return fmt::format("{:02X} {:02X} {:02X}", place.hub, place.port, place.address);
}

/// One line of a record.
std::string lineOf(std::string_view text)
{
    constexpr char firstPrintable = ' ';
    constexpr char deleteCharacter = 0x7F;
    std::string line(text.substr(0, longestText));
    // bytes of UTF-8 are negative where a char is signed
    std::ranges::replace_if(
        line,
        [](char each) {
            const auto byte = static_cast<unsigned char>(each);
            return byte < static_cast<unsigned char>(firstPrintable) || each == deleteCharacter;
        },
        '?');
    return line + "\n";
}

/// Takes the next line off a text. Lines that are missing are empty.
std::string_view takeLine(std::string_view& text)
{
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

/// @return 0 for anything but a whole decimal number of that type
template <typename Number>
Number numberIn(std::string_view line)
{
    Number number = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    return error == std::errc{} && end == line.data() + line.size() ? number : Number{0};
}

} // namespace

std::string operationRecordText(const operationPlace& place, const operationRecord& record)
{
    std::string text =
        fmt::format("{}\n{}\n{}\n{}\n{}\n", firstLine, placeText(place), record.process, record.user, record.sinceMs);
    for (const std::string* line : {&record.program, &record.doing, &record.device}) {
        text += lineOf(*line);
    }
    text.resize(operationRecordBytes, '\0');
    return text;
}

std::optional<operationRecord> parseOperationRecord(std::string_view text, const operationPlace& place)
{
    text = text.substr(0, std::min(text.find('\0'), operationRecordBytes));
    if (takeLine(text) != firstLine || takeLine(text) != placeText(place)) {
        return std::nullopt;
    }
    operationRecord record;
    record.process = numberIn<std::uint32_t>(takeLine(text));
    record.user = numberIn<std::uint32_t>(takeLine(text));
    record.sinceMs = numberIn<std::int64_t>(takeLine(text));
    for (std::string* line : {&record.program, &record.doing, &record.device}) {
        *line = takeLine(text).substr(0, longestText);
    }
    return record;
}

} // namespace kest::host::iic
