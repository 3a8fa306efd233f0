/// The identity of a BeagleBone board.
///
/// Document: BeagleBone Black System Reference Manual, revision C.1, "EEPROM".
#include "contents/table.h"

namespace kest::contents
{
namespace
{

constexpr row board[] = {
    {.name = "name", .label = "Board name", .as = kind::text, .at = 4, .length = 8},
    {.name = "version", .label = "Version", .as = kind::text, .at = 12, .length = 4},
    {.name = "serialNumber", .label = "Serial number", .as = kind::text, .at = 16, .length = 12},
    {.name = "configuration", .label = "Configuration", .at = 28, .length = 32},
};

constexpr row rows[] = {
    {.name = "header", .label = "Header", .as = kind::hexadecimal, .length = 4},
    {.name = "board", .label = "Board", .as = kind::block, .length = 78, .rows = board},
};

constexpr signature signatures[] = {{.at = 0, .bytes = "\xAA\x55\x33\xEE"}, {.at = 4, .bytes = "A335"}};

} // namespace

extern constexpr format beaglebone{
    .name = "beaglebone",
    .title = "BeagleBone board identity",
    .document = "BeagleBone Black System Reference Manual, revision C.1",
    .least = 78,
    .signatures = signatures,
    .rows = rows,
};

} // namespace kest::contents
