/// DDR5 SPD: what a DDR5 memory module says of itself.
///
/// Document: JEDEC JESD400-5, "DDR5 Serial Presence Detect (SPD) Contents", SPD revisions 1.0 to 1.2. Offsets of rows
/// are the document's bytes, also inside of blocks.
#include "contents/formats/ddr5parts.h"
#include "contents/formats/jedecnames.h"
#include "contents/table.h"

namespace kest::contents
{
namespace
{

constexpr std::size_t timingAt = 20;
constexpr std::size_t limitsAt = 70;
constexpr std::size_t commonAt = 192;
constexpr std::size_t crcAt = 510;
constexpr std::size_t identityAt = 512;

constexpr named bytesTotal[] = {{0, "not given"}, {1, "256"}, {2, "512"}, {3, "1024"}, {4, "2048"}};
constexpr named memoryTypes[] = {{0x12, "DDR5"}};
constexpr named moduleTypes[] = {
    {1, "RDIMM"}, {2, "UDIMM"}, {3, "SO-DIMM"}, {4, "LRDIMM"}, {5, "CUDIMM"}, {6, "CSODIMM"}, {7, "MRDIMM"},
    {8, "CAMM2"}, {10, "DDIMM"}, {11, "soldered down"},
};
constexpr named densities[] = {
    {0, "none"}, {1, "4 Gb"}, {2, "8 Gb"}, {3, "12 Gb"}, {4, "16 Gb"}, {5, "24 Gb"}, {6, "32 Gb"}, {7, "48 Gb"},
    {8, "64 Gb"},
};
constexpr named packages[] = {
    {0, "1 die, monolithic"}, {2, "2 dies, 3DS"}, {3, "4 dies, 3DS"}, {4, "8 dies, 3DS"}, {5, "16 dies, 3DS"},
};
constexpr named rowBits[] = {{0, "16"}, {1, "17"}, {2, "18"}};
constexpr named columnBits[] = {{0, "10"}, {1, "11"}};
constexpr named bankGroups[] = {{0, "1"}, {1, "2"}, {2, "4"}, {3, "8"}};
constexpr named banks[] = {{0, "1"}, {1, "2"}, {2, "4"}};
constexpr named logicVoltages[] = {{0, "1.1"}};
constexpr named pumpVoltages[] = {{0, "1.8"}};
constexpr named casLatencies[] = {
    {0, "20"}, {1, "22"}, {2, "24"}, {3, "26"}, {4, "28"}, {5, "30"}, {6, "32"}, {7, "34"}, {8, "36"}, {9, "38"},
    {10, "40"}, {11, "42"}, {12, "44"}, {13, "46"}, {14, "48"}, {15, "50"}, {16, "52"}, {17, "54"}, {18, "56"},
    {19, "58"}, {20, "60"}, {21, "62"}, {22, "64"}, {23, "66"}, {24, "68"}, {25, "70"}, {26, "72"}, {27, "74"},
    {28, "76"}, {29, "78"}, {30, "80"}, {31, "82"}, {32, "84"}, {33, "86"}, {34, "88"}, {35, "90"}, {36, "92"},
    {37, "94"}, {38, "96"}, {39, "98"},
};
constexpr named temperatureRanges[] = {
    {0, "A1T, -40 to 125 °C"}, {1, "A2T, -40 to 105 °C"}, {2, "A3T, -40 to 85 °C"}, {3, "IT, -40 to 95 °C"},
    {4, "ST, -25 to 85 °C"}, {5, "ET, -25 to 105 °C"}, {6, "RT, 0 to 45 °C"}, {7, "NT, 0 to 85 °C"},
    {8, "XT, 0 to 95 °C"},
};
constexpr named dramRows[] = {{0, "not given"}, {1, "1"}, {2, "2"}};
constexpr named rankMixes[] = {{0, "symmetrical"}, {1, "asymmetrical"}};
constexpr named subChannels[] = {{0, "1"}, {1, "2"}, {2, "4"}, {3, "8"}};
constexpr named eccWidths[] = {{0, "none"}, {1, "4"}, {2, "8"}};

// The area of the user, from 640 on, may hold profiles for faster clocks. No document of JEDEC has them: only the bytes
// that they begin with are told from others.
constexpr named firstProfiles[] = {{0, "none"}, {0xFFFF, "none"}, {0x0C4A, "XMP"}};
constexpr named furtherProfiles[] = {{0, "none"}, {0xFFFFFFFF, "none"}, {0x4558504F, "EXPO"}};

// Of picoseconds, in nanoseconds.
constexpr scale picoseconds{.divisor = 1000};
constexpr place betaLevelTop[] = {{.at = 0, .bit = 7, .bits = 1}};

// Megabits of a die, times dies, times packages of a rank, times ranks, times sub-channels.
constexpr std::int64_t densityMegabits[] = {0, 4096, 8192, 12288, 16384, 24576, 32768, 49152, 65536};
constexpr std::int64_t stackedDies[] = {1, 0, 2, 4, 8, 16};
constexpr std::int64_t subChannelCounts[] = {1, 2, 4, 8};
constexpr factor capacity[] = {
    {.field = "dieCapacity", .values = densityMegabits},
    {.field = "package", .values = stackedDies},
    {.field = "busWidth", .values = jedec::busWidthBits},
    {.field = "deviceWidth", .values = jedec::deviceWidthBits, .divides = true},
    {.field = "ranks", .plus = 1},
    {.field = "rankMix", .values = jedec::alikeRanks},
    {.field = "subChannels", .values = subChannelCounts},
};

constexpr row identity[] = {
    {.name = "manufacturer", .label = "Module manufacturer", .as = kind::jedecId, .at = 512 - identityAt, .length = 2,
     .names = jedec::manufacturers},
    {.name = "partNumber", .label = "Part number", .as = kind::text, .at = 521 - identityAt, .length = 30},
    {.name = "serialNumber", .label = "Serial number", .as = kind::hexadecimal, .at = 517 - identityAt, .length = 4},
    {.name = "revision", .label = "Module revision", .as = kind::hexadecimal, .at = 551 - identityAt},
    {.name = "date", .label = "Date of manufacture", .as = kind::yearWeekBcd, .at = 515 - identityAt, .length = 2},
    {.name = "location", .label = "Location of manufacture", .as = kind::hexadecimal, .at = 514 - identityAt},
    {.name = "dramManufacturer", .label = "DRAM manufacturer", .as = kind::jedecId, .at = 552 - identityAt,
     .length = 2, .names = jedec::manufacturers},
    {.name = "dramStepping", .label = "DRAM stepping", .as = kind::hexadecimal, .at = 554 - identityAt},
    {.name = "manufacturerData", .label = "Manufacturer's data", .at = 555 - identityAt, .length = 85},
};

// First and second SDRAM alike.
constexpr condition hasSdram{.field = "density", .least = 1};
constexpr row sdram[] = {
    {.name = "density", .label = "Capacity of a die", .as = kind::choice, .at = 0, .bits = 5, .names = densities},
    {.name = "package", .label = "Dies of a package", .as = kind::choice, .at = 0, .bit = 5, .names = packages,
     .when = hasSdram},
    {.name = "rowBits", .label = "Row address bits", .as = kind::choice, .at = 1, .bits = 5, .names = rowBits,
     .when = hasSdram},
    {.name = "columnBits", .label = "Column address bits", .as = kind::choice, .at = 1, .bit = 5,
     .names = columnBits, .when = hasSdram},
    {.name = "deviceWidth", .label = "Width of a DRAM", .as = kind::choice, .at = 2, .bit = 5, .unit = "bits",
     .names = jedec::deviceWidths, .when = hasSdram},
    {.name = "bankGroups", .label = "Bank groups", .as = kind::choice, .at = 3, .bit = 5, .names = bankGroups,
     .when = hasSdram},
    {.name = "banks", .label = "Banks of a group", .as = kind::choice, .at = 3, .bits = 3, .names = banks,
     .when = hasSdram},
};

constexpr row timing[] = {
    {.name = "tCKmin", .label = "tCKmin, cycle time", .as = kind::number, .at = 20 - timingAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tCKmax", .label = "tCKmax, cycle time", .as = kind::number, .at = 22 - timingAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "casLatencies", .label = "CAS latencies", .as = kind::flags, .at = 24 - timingAt, .length = 5,
     .order = byteOrder::little, .names = casLatencies},
    {.name = "tAAmin", .label = "tAAmin, CAS latency time", .as = kind::number, .at = 30 - timingAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tRCDmin", .label = "tRCDmin, RAS to CAS", .as = kind::number, .at = 32 - timingAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tRPmin", .label = "tRPmin, precharge", .as = kind::number, .at = 34 - timingAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tRASmin", .label = "tRASmin, active to precharge", .as = kind::number, .at = 36 - timingAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tRCmin", .label = "tRCmin, active to active", .as = kind::number, .at = 38 - timingAt,
     .length = 2, .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tWRmin", .label = "tWRmin, write recovery", .as = kind::number, .at = 40 - timingAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tRFC1min", .label = "tRFC1min, refresh recovery", .as = kind::number, .at = 42 - timingAt,
     .length = 2, .order = byteOrder::little, .unit = "ns"},
    {.name = "tRFC2min", .label = "tRFC2min, refresh recovery", .as = kind::number, .at = 44 - timingAt,
     .length = 2, .order = byteOrder::little, .unit = "ns"},
    {.name = "tRFCsbmin", .label = "tRFCsbmin, same bank", .as = kind::number, .at = 46 - timingAt,
     .length = 2, .order = byteOrder::little, .unit = "ns"},
    {.name = "tRFC1dlrmin", .label = "tRFC1min, other logical rank", .as = kind::number,
     .at = 48 - timingAt, .length = 2, .order = byteOrder::little, .unit = "ns"},
    {.name = "tRFC2dlrmin", .label = "tRFC2min, other logical rank",
     .as = kind::number, .at = 50 - timingAt, .length = 2, .order = byteOrder::little, .unit = "ns"},
    {.name = "tRFCsbdlrmin", .label = "tRFCsbmin, other logical rank", .as = kind::number,
     .at = 52 - timingAt, .length = 2, .order = byteOrder::little, .unit = "ns"},
};

// Times that are also limited in clocks.
constexpr row limits[] = {
    {.name = "tRRDL", .label = "tRRD_L, activates", .as = kind::number, .at = 70 - limitsAt,
     .length = 2, .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tRRDLClocks", .label = "tRRD_L, at least", .as = kind::number,
     .at = 72 - limitsAt, .unit = "clocks"},
    {.name = "tCCDL", .label = "tCCD_L, reads", .as = kind::number, .at = 73 - limitsAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tCCDLClocks", .label = "tCCD_L, at least", .as = kind::number,
     .at = 75 - limitsAt, .unit = "clocks"},
    {.name = "tCCDLWR", .label = "tCCD_L_WR, writes", .as = kind::number, .at = 76 - limitsAt,
     .length = 2, .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tCCDLWRClocks", .label = "tCCD_L_WR, at least", .as = kind::number,
     .at = 78 - limitsAt, .unit = "clocks"},
    {.name = "tCCDLWR2", .label = "tCCD_L_WR2, writes", .as = kind::number, .at = 79 - limitsAt,
     .length = 2, .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tCCDLWR2Clocks", .label = "tCCD_L_WR2, at least", .as = kind::number,
     .at = 81 - limitsAt, .unit = "clocks"},
    {.name = "tFAW", .label = "tFAW, four activates", .as = kind::number, .at = 82 - limitsAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tFAWClocks", .label = "tFAW, at least", .as = kind::number, .at = 84 - limitsAt,
     .unit = "clocks"},
    {.name = "tCCDLWTR", .label = "tCCD_L_WTR, write to read", .as = kind::number, .at = 85 - limitsAt,
     .length = 2, .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tCCDLWTRClocks", .label = "tCCD_L_WTR, at least", .as = kind::number,
     .at = 87 - limitsAt, .unit = "clocks"},
    {.name = "tCCDSWTR", .label = "tCCD_S_WTR, write to read", .as = kind::number, .at = 88 - limitsAt,
     .length = 2, .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tCCDSWTRClocks", .label = "tCCD_S_WTR, at least", .as = kind::number,
     .at = 90 - limitsAt, .unit = "clocks"},
    {.name = "tRTP", .label = "tRTP, read to precharge", .as = kind::number, .at = 91 - limitsAt, .length = 2,
     .order = byteOrder::little, .by = picoseconds, .unit = "ns"},
    {.name = "tRTPClocks", .label = "tRTP, at least", .as = kind::number, .at = 93 - limitsAt,
     .unit = "clocks"},
};

constexpr condition isRegistered{.field = "moduleType", .oneOf = 1 << 1 | 1 << 4};
constexpr row common[] = {
    {.name = "revision", .label = "Revision of this area", .as = kind::version, .at = 192 - commonAt},
    {.name = "hashing", .label = "Hashing sequence", .as = kind::hexadecimal, .at = 193 - commonAt, .bits = 3},
    {.name = "hub", .label = "SPD device", .as = kind::block, .at = 194 - commonAt, .length = 4, .rows = ddr5rows::hub},
    {.name = "power", .label = "Power management", .as = kind::repetition, .at = 198 - commonAt, .length = 4,
     .rows = ddr5rows::power, .count = 3},
    {.name = "sensors", .label = "Temperature sensors", .as = kind::block, .at = 210 - commonAt, .length = 4,
     .rows = ddr5rows::sensors},
    {.name = "height", .label = "Height, at most", .as = kind::number, .at = 230 - commonAt, .bits = 5,
     .by = {.plus = 15}, .unit = "mm"},
    {.name = "thicknessFront", .label = "Front thickness, at most", .as = kind::number, .at = 231 - commonAt,
     .bits = 4, .by = {.plus = 1}, .unit = "mm"},
    {.name = "thicknessBack", .label = "Back thickness, at most", .as = kind::number, .at = 231 - commonAt,
     .bit = 4, .bits = 4, .by = {.plus = 1}, .unit = "mm"},
    {.name = "rawCard", .label = "Reference raw card", .as = kind::choice, .at = 232 - commonAt, .bits = 5,
     .names = jedec::rawCards},
    {.name = "rawCardRevision", .label = "Revision of the raw card", .as = kind::number, .at = 232 - commonAt,
     .bit = 5},
    {.name = "temperatures", .label = "Operating temperatures", .as = kind::choice, .at = 233 - commonAt, .bit = 4,
     .names = temperatureRanges},
    {.name = "heatSpreader", .label = "Heat spreader", .as = kind::choice, .at = 233 - commonAt, .bit = 2,
     .bits = 1, .names = jedec::yesNo},
    {.name = "dramRows", .label = "Rows of DRAMs", .as = kind::choice, .at = 233 - commonAt, .bits = 2,
     .names = dramRows},
    {.name = "rankMix", .label = "Rank mix", .as = kind::choice, .at = 234 - commonAt, .bit = 6, .bits = 1,
     .names = rankMixes},
    {.name = "ranks", .label = "Package ranks of a sub-channel", .as = kind::number, .at = 234 - commonAt, .bit = 3,
     .bits = 3, .by = {.plus = 1}},
    {.name = "subChannels", .label = "Sub-channels", .as = kind::choice, .at = 235 - commonAt, .bit = 5, .bits = 2,
     .names = subChannels},
    {.name = "busWidth", .label = "Width of a sub-channel", .as = kind::choice, .at = 235 - commonAt, .bits = 3,
     .unit = "bits", .names = jedec::busWidths},
    {.name = "eccWidth", .label = "Further bits for ECC", .as = kind::choice, .at = 235 - commonAt, .bit = 3,
     .bits = 2, .names = eccWidths},
    {.name = "register", .label = "Registering clock driver", .as = kind::block, .at = 240 - commonAt, .length = 4,
     .when = isRegistered, .rows = ddr5rows::registerPart},
    {.name = "buffer", .label = "Data buffer", .as = kind::block, .at = 244 - commonAt, .length = 4,
     .when = isRegistered, .rows = ddr5rows::registerPart},
};

constexpr row rows[] = {
    {.name = "module", .label = "Module", .as = kind::block, .at = identityAt, .length = 640 - identityAt,
     .rows = identity},
    {.name = "bytesTotal", .label = "Bytes of the EEPROM", .as = kind::choice, .at = 0, .bit = 4, .bits = 3,
     .names = bytesTotal},
    {.name = "betaLevel", .label = "Beta level", .as = kind::number, .at = 0, .bits = 4, .more = betaLevelTop},
    {.name = "revision", .label = "SPD revision", .as = kind::version, .at = 1},
    {.name = "memoryType", .label = "Memory type", .as = kind::choice, .at = 2, .names = memoryTypes},
    {.name = "moduleType", .label = "Module type", .as = kind::choice, .at = 3, .bits = 4, .names = moduleTypes},
    {.name = "hybridMedia", .label = "Hybrid media", .as = kind::hexadecimal, .at = 3, .bit = 4, .bits = 3},
    {.name = "hybrid", .label = "Hybrid module", .as = kind::choice, .at = 3, .bit = 7, .names = jedec::yesNo},
    {.name = "dieCapacity", .as = kind::number, .at = 4, .bits = 5, .isHidden = true},
    {.name = "sdram", .label = "First SDRAM", .as = kind::block, .at = 4, .length = 4, .rows = sdram},
    {.name = "secondSdram", .label = "Second SDRAM", .as = kind::block, .at = 8, .length = 4, .rows = sdram},
    {.name = "repair", .label = "BL32 and post package repair", .as = kind::hexadecimal, .at = 12},
    {.name = "dutyCycle", .label = "Duty cycle, partial self-refresh", .as = kind::hexadecimal, .at = 13},
    {.name = "faultHandling", .label = "Fault handling", .as = kind::hexadecimal, .at = 14},
    {.name = "vdd", .label = "Voltage VDD", .as = kind::choice, .at = 16, .bit = 4, .unit = "V",
     .names = logicVoltages},
    {.name = "vddLimits", .label = "VDD, operable and endured", .as = kind::hexadecimal, .at = 16, .bits = 4},
    {.name = "vddq", .label = "Voltage VDDQ", .as = kind::choice, .at = 17, .bit = 4, .unit = "V",
     .names = logicVoltages},
    {.name = "vddqLimits", .label = "VDDQ, operable and endured", .as = kind::hexadecimal, .at = 17, .bits = 4},
    {.name = "vpp", .label = "Voltage VPP", .as = kind::choice, .at = 18, .bit = 4, .unit = "V",
     .names = pumpVoltages},
    {.name = "vppLimits", .label = "VPP, operable and endured", .as = kind::hexadecimal, .at = 18, .bits = 4},
    {.label = "Timing", .as = kind::block, .at = timingAt, .length = 54 - timingAt, .rows = timing},
    {.label = "Timing, limited also in clocks", .as = kind::block, .at = limitsAt, .length = 94 - limitsAt,
     .rows = limits},
    {.name = "common", .label = "Of all module types", .as = kind::block, .at = commonAt, .length = 248 - commonAt,
     .rows = common},
    {.name = "profiles", .label = "Profiles at 640", .as = kind::choice, .at = 640, .length = 2,
     .names = firstProfiles},
    {.name = "furtherProfiles", .label = "Profiles at 832", .as = kind::choice, .at = 832, .length = 4,
     .names = furtherProfiles},
    {.name = "capacity", .label = "Capacity of the module", .as = kind::product, .length = 0, .by = {.divisor = 8},
     .factors = capacity, .unit = "MiB"},
    {.name = "crc", .label = "CRC-16", .as = kind::checksum, .at = crcAt, .length = 2,
     .sum = {.as = sumKind::crc16Xmodem, .length = crcAt}},
};

constexpr signature signatures[] = {
    {.at = 2, .least = 0x12, .most = 0x12},
    {.at = 1, .least = 0x10, .most = 0x1F},
    {.at = 0, .mask = 0x70, .least = 0x30, .most = 0x40},
    {.at = 235, .mask = 0x80, .most = 0},
};

} // namespace

extern constexpr format ddr5{
    .name = "ddr5",
    .title = "DDR5 SPD",
    .document = "JEDEC JESD400-5, SPD revisions 1.0 to 1.2",
    .least = 512,
    .length = 1024,
    .signatures = signatures,
    .rows = rows,
};

} // namespace kest::contents
