/// What the memory module formats share: names of manufacturers, reference raw cards and widths.
///
/// Documents: JEDEC JEP106 (manufacturers); JEDEC Standard 21-C, "Serial Presence Detect", annexes K (DDR3) and L
/// (DDR4), and JESD400-5 (DDR5), for the raw cards.
#pragma once

#include "contents/table.h"

namespace kest::contents::jedec
{

/// By count of continuation codes and code, both with their parity bits. Only a choice: the number is always shown.
inline constexpr named manufacturers[] = {
    {0x8001, "AMD"},
    {0x8004, "Fujitsu"},
    {0x8007, "Hitachi"},
    {0x8010, "NEC"},
    {0x8015, "NXP"},
    {0x8020, "STMicroelectronics"},
    {0x8089, "Intel"},
    {0x802C, "Micron"},
    {0x8097, "Texas Instruments"},
    {0x8098, "Toshiba"},
    {0x80AD, "SK hynix"},
    {0x80B3, "IDT"},
    {0x80C1, "Infineon"},
    {0x80CE, "Samsung"},
    {0x0194, "Smart Modular"},
    {0x0198, "Kingston"},
    {0x014F, "Transcend"},
    {0x017A, "Apacer"},
    {0x01BA, "PNY"},
    {0x029E, "Corsair"},
    {0x02FE, "Elpida"},
    {0x830B, "Nanya"},
    {0x0443, "Ramaxel"},
    {0x04B3, "Inphi"},
    {0x04CB, "A-DATA"},
    {0x04CD, "G.Skill"},
    {0x04EF, "Team Group"},
    {0x8551, "Qimonda"},
    {0x859B, "Crucial"},
    {0x8632, "Montage"},
};

/// Letters of reference raw cards.
inline constexpr named rawCards[] = {
    {0, "A"},   {1, "B"},   {2, "C"},   {3, "D"},   {4, "E"},   {5, "F"},   {6, "G"},   {7, "H"},
    {8, "J"},   {9, "K"},   {10, "L"},  {11, "M"},  {12, "N"},  {13, "P"},  {14, "R"},  {15, "T"},
    {16, "U"},  {17, "V"},  {18, "W"},  {19, "Y"},  {20, "AA"}, {21, "AB"}, {22, "AC"}, {23, "AD"},
    {24, "AE"}, {25, "AF"}, {26, "AG"}, {27, "AH"}, {28, "AJ"}, {29, "AK"}, {30, "AL"}, {31, "none"},
};

/// Those that DDR3 and DDR4 have with the extension bit.
inline constexpr named furtherRawCards[] = {
    {0, "AM"}, {1, "AN"}, {2, "AP"}, {3, "AR"}, {4, "AT"}, {5, "AU"}, {6, "AV"}, {7, "AW"},
    {8, "AY"}, {9, "BA"}, {10, "BB"}, {11, "BC"}, {12, "BD"}, {13, "BE"}, {14, "BF"}, {15, "BG"},
    {16, "BH"}, {17, "BJ"}, {18, "BK"}, {19, "BL"}, {20, "BM"}, {21, "BN"}, {22, "BP"}, {23, "BR"},
    {24, "BT"}, {25, "BU"}, {26, "BV"}, {27, "BW"}, {28, "BY"}, {29, "CA"}, {30, "CB"}, {31, "none"},
};
/// The revision of a raw card is 0 to 3 in two bits; more is the extension and this. The two bits are then 3.
constexpr std::int64_t rawCardRevisionMost = 3;
constexpr allowedValues extendedRevision{.least = 3, .most = 3};

inline constexpr named yesNo[] = {{0, "no"}, {1, "yes"}};
inline constexpr named deviceWidths[] = {{0, "4"}, {1, "8"}, {2, "16"}, {3, "32"}};
inline constexpr named busWidths[] = {{0, "8"}, {1, "16"}, {2, "32"}, {3, "64"}};
/// What the codes of these two stand for, in bits.
inline constexpr std::int64_t deviceWidthBits[] = {4, 8, 16, 32};
inline constexpr std::int64_t busWidthBits[] = {8, 16, 32, 64};
/// A module's capacity can be computed where all of its ranks are alike: rank mix 0.
inline constexpr std::int64_t alikeRanks[] = {1};

} // namespace kest::contents::jedec
