/// The parts on a DDR5 module that its SPD names: each has four bytes, manufacturer, type with a bit "installed", and
/// revision.
///
/// Document: JEDEC JESD400-5, bytes 194 to 213, and 240 to 247 of modules with a register.
#pragma once

#include "contents/formats/jedecnames.h"
#include "contents/table.h"

namespace kest::contents::ddr5rows
{

inline constexpr named hubTypes[] = {{0, "SPD5118"}, {1, "ESPD5216"}};
inline constexpr named powerTypes[] = {
    {0, "PMIC5000"}, {1, "PMIC5010"}, {2, "PMIC5100"}, {3, "PMIC5020"}, {4, "PMIC5120"}, {5, "PMIC5200"},
    {6, "PMIC5030"},
};
inline constexpr named sensorTypes[] = {{0, "TS5111"}, {1, "TS5110"}, {2, "TS5211"}, {3, "TS5210"}};

inline constexpr row hub[] = {
    {.name = "installed", .label = "Installed", .as = kind::choice, .at = 2, .bit = 7, .names = jedec::yesNo},
    {.name = "manufacturer", .label = "Manufacturer", .as = kind::jedecId, .at = 0, .length = 2,
     .names = jedec::manufacturers},
    {.name = "type", .label = "Type", .as = kind::choice, .at = 2, .bits = 4, .names = hubTypes,
     .when = {.field = "installed", .least = 1}},
    {.name = "revision", .label = "Revision", .as = kind::version, .at = 3,
     .when = {.field = "installed", .least = 1}},
};
inline constexpr row power[] = {
    {.name = "installed", .label = "Installed", .as = kind::choice, .at = 2, .bit = 7, .names = jedec::yesNo},
    {.name = "manufacturer", .label = "Manufacturer", .as = kind::jedecId, .at = 0, .length = 2,
     .names = jedec::manufacturers},
    {.name = "type", .label = "Type", .as = kind::choice, .at = 2, .bits = 4, .names = powerTypes,
     .when = {.field = "installed", .least = 1}},
    {.name = "revision", .label = "Revision", .as = kind::version, .at = 3,
     .when = {.field = "installed", .least = 1}},
};
inline constexpr row sensors[] = {
    {.name = "installed", .label = "First installed", .as = kind::choice, .at = 2, .bit = 7, .names = jedec::yesNo},
    {.name = "secondInstalled", .label = "Second installed", .as = kind::choice, .at = 2, .bit = 6, .bits = 1,
     .names = jedec::yesNo},
    {.name = "manufacturer", .label = "Manufacturer", .as = kind::jedecId, .at = 0, .length = 2,
     .names = jedec::manufacturers},
    {.name = "type", .label = "Type", .as = kind::choice, .at = 2, .bits = 4, .names = sensorTypes,
     .when = {.field = "installed", .least = 1}},
    {.name = "revision", .label = "Revision", .as = kind::version, .at = 3,
     .when = {.field = "installed", .least = 1}},
};
inline constexpr row registerPart[] = {
    {.name = "installed", .label = "Installed", .as = kind::choice, .at = 2, .bit = 7, .names = jedec::yesNo},
    {.name = "manufacturer", .label = "Manufacturer", .as = kind::jedecId, .at = 0, .length = 2,
     .names = jedec::manufacturers},
    {.name = "type", .label = "Type code", .as = kind::hexadecimal, .at = 2, .bits = 4,
     .when = {.field = "installed", .least = 1}},
    {.name = "revision", .label = "Revision", .as = kind::version, .at = 3,
     .when = {.field = "installed", .least = 1}},
};

} // namespace kest::contents::ddr5rows
