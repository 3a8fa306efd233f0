/// TlvInfo: the system EEPROM of network switches.
///
/// Document: Open Network Install Environment, Hardware Requirements, "Board EEPROM Information Format", version 1 of
/// the TlvInfo header.
#include "contents/table.h"

namespace kest::contents
{
namespace
{

using namespace std::string_view_literals;

constexpr std::size_t headerLength = 11;

constexpr named versions[] = {{1, "1"}};

constexpr row header[] = {
    {.name = "identifier", .label = "Identifier", .as = kind::text, .length = 8},
    {.name = "version", .label = "Version", .as = kind::choice, .at = 8, .names = versions,
     .allowed = {.least = 1, .most = 1}},
    {.name = "totalLength", .label = "Length of the entries", .as = kind::number, .at = 9, .length = 2,
     .unit = "bytes"},
};

constexpr row entryHeader[] = {
    {.name = "type", .label = "Type", .as = kind::hexadecimal},
    {.name = "length", .label = "Length", .as = kind::number, .at = 1, .unit = "bytes"},
};

constexpr row vendorExtension[] = {
    {.name = "enterprise", .label = "IANA enterprise number", .as = kind::number, .length = 4},
    {.name = "data", .label = "Data", .at = 4, .length = 0},
};

constexpr row entries[] = {
    {.name = "productName", .label = "Product name", .as = kind::text, .tag = 0x21, .length = 0, .settable = true},
    {.name = "partNumber", .label = "Part number", .as = kind::text, .tag = 0x22, .length = 0, .settable = true},
    {.name = "serialNumber", .label = "Serial number", .as = kind::text, .tag = 0x23, .length = 0, .settable = true},
    {.name = "baseMac", .label = "First MAC address", .as = kind::macAddress, .tag = 0x24, .length = 6,
     .settable = true},
    {.name = "manufactureDate", .label = "Date of manufacture", .as = kind::text, .tag = 0x25, .length = 19,
     .settable = true},
    {.name = "deviceVersion", .label = "Version of the device", .as = kind::number, .tag = 0x26, .settable = true},
    {.name = "labelRevision", .label = "Revision of the label", .as = kind::text, .tag = 0x27, .length = 0,
     .settable = true},
    {.name = "platformName", .label = "Name of the platform", .as = kind::text, .tag = 0x28, .length = 0,
     .settable = true},
    {.name = "onieVersion", .label = "Version of the installer", .as = kind::text, .tag = 0x29, .length = 0,
     .settable = true},
    {.name = "macCount", .label = "MAC addresses", .as = kind::number, .tag = 0x2A, .length = 2, .settable = true},
    {.name = "manufacturer", .label = "Manufacturer", .as = kind::text, .tag = 0x2B, .length = 0, .settable = true},
    {.name = "countryCode", .label = "Country of manufacture", .as = kind::text, .tag = 0x2C, .length = 2,
     .settable = true},
    {.name = "vendor", .label = "Vendor", .as = kind::text, .tag = 0x2D, .length = 0, .settable = true},
    {.name = "diagVersion", .label = "Version of the diagnostics", .as = kind::text, .tag = 0x2E, .length = 0,
     .settable = true},
    {.name = "serviceTag", .label = "Service tag", .as = kind::text, .tag = 0x2F, .length = 0, .settable = true},
    {.name = "vendorExtension", .label = "Vendor extension", .as = kind::block, .tag = 0xFD,
     .rows = vendorExtension},
    {.name = "crc", .label = "CRC-32", .as = kind::checksum, .tag = 0xFE, .length = 4, .sum = {.as = sumKind::crc32Big,
     .fromImage = true}},
};

constexpr row rows[] = {
    {.name = "header", .label = "Header", .as = kind::block, .length = headerLength, .rows = header},
    {.name = "", .label = "Entries", .as = kind::list, .at = headerLength, .length = 0,
     .where = {.lengthField = "totalLength"}, .entries = {.headerLength = 2, .header = entryHeader, .typeField = "type",
     .lengthField = "length", .lastType = 0xFE, .known = entries}},
};

constexpr signature signatures[] = {{.at = 0, .bytes = "TlvInfo\0"sv}};

} // namespace

extern constexpr format tlvinfo{
    .name = "tlvinfo",
    .title = "TlvInfo system EEPROM",
    .document = "Board EEPROM Information Format, TlvInfo version 1",
    .least = headerLength,
    .signatures = signatures,
    .rows = rows,
};

} // namespace kest::contents
