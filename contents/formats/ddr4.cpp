/// DDR4 SPD: what a DDR4 memory module says of itself.
///
/// Document: JEDEC Standard 21-C, section 4.1.2.L, annex L, "Serial Presence Detect (SPD) for DDR4 SDRAM Modules", SPD
/// revisions 1.0 to 1.2. Offsets of rows are the document's bytes, also inside of blocks.
#include "contents/formats/jedecnames.h"
#include "contents/table.h"

namespace kest::contents
{
namespace
{

constexpr std::size_t timingAt = 18;
constexpr std::size_t specificAt = 128;
constexpr std::size_t identityAt = 320;

constexpr named bytesUsed[] = {{0, "not given"}, {1, "128"}, {2, "256"}, {3, "384"}, {4, "512"}};
constexpr named bytesTotal[] = {{0, "not given"}, {1, "256"}, {2, "512"}};
constexpr named memoryTypes[] = {{0x0C, "DDR4"}};
constexpr named moduleTypes[] = {
    {0, "as byte 15 says"}, {1, "RDIMM"}, {2, "UDIMM"}, {3, "SO-DIMM"}, {4, "LRDIMM"}, {5, "Mini-RDIMM"},
    {6, "Mini-UDIMM"}, {8, "72b-SO-RDIMM"}, {9, "72b-SO-UDIMM"}, {12, "16b-SO-DIMM"}, {13, "32b-SO-DIMM"},
};
constexpr named hybridMedia[] = {{0, "none"}, {1, "NVDIMM"}};
constexpr named densities[] = {
    {0, "256 Mb"}, {1, "512 Mb"}, {2, "1 Gb"}, {3, "2 Gb"}, {4, "4 Gb"},
    {5, "8 Gb"}, {6, "16 Gb"}, {7, "32 Gb"}, {8, "12 Gb"}, {9, "24 Gb"},
};
constexpr named bankGroups[] = {{0, "none"}, {1, "2"}, {2, "4"}};
constexpr named banks[] = {{0, "4"}, {1, "8"}};
constexpr named rowBits[] = {{0, "12"}, {1, "13"}, {2, "14"}, {3, "15"}, {4, "16"}, {5, "17"}, {6, "18"}};
constexpr named columnBits[] = {{0, "9"}, {1, "10"}, {2, "11"}, {3, "12"}};
constexpr named packages[] = {{0, "monolithic"}, {1, "not monolithic"}};
constexpr named signalLoadings[] = {{0, "not given"}, {1, "multi load stack"}, {2, "single load stack (3DS)"}};
constexpr named activateCounts[] = {
    {0, "not tested"}, {1, "700000"}, {2, "600000"}, {3, "500000"}, {4, "400000"}, {5, "300000"}, {6, "200000"},
    {8, "unlimited"},
};
constexpr named activateWindows[] = {{0, "8192 tREFI"}, {1, "4096 tREFI"}, {2, "2048 tREFI"}};
constexpr named packageRepairs[] = {{0, "not supported"}, {1, "one row for each bank group"}};
constexpr named voltages[] = {{0, "operable at 1.2 V"}, {1, "endurant at 1.2 V"}};
constexpr named rankMixes[] = {{0, "symmetrical"}, {1, "asymmetrical"}};
constexpr named eccWidths[] = {{0, "none"}, {1, "8"}};
constexpr named mediumTimebases[] = {{0, "125"}};
constexpr named fineTimebases[] = {{0, "1"}};
constexpr named lowLatencies[] = {
    {0, "7"}, {1, "8"}, {2, "9"}, {3, "10"}, {4, "11"}, {5, "12"}, {6, "13"}, {7, "14"}, {8, "15"}, {9, "16"},
    {10, "17"}, {11, "18"}, {12, "19"}, {13, "20"}, {14, "21"}, {15, "22"}, {16, "23"}, {17, "24"}, {18, "25"},
    {19, "26"}, {20, "27"}, {21, "28"}, {22, "29"}, {23, "30"}, {24, "31"}, {25, "32"}, {26, "33"}, {27, "34"},
    {28, "35"}, {29, "36"},
};
constexpr named highLatencies[] = {
    {0, "23"}, {1, "24"}, {2, "25"}, {3, "26"}, {4, "27"}, {5, "28"}, {6, "29"}, {7, "30"}, {8, "31"}, {9, "32"},
    {10, "33"}, {11, "34"}, {12, "35"}, {13, "36"}, {14, "37"}, {15, "38"}, {16, "39"}, {17, "40"}, {18, "41"},
    {19, "42"}, {20, "43"}, {21, "44"}, {22, "45"}, {23, "46"}, {24, "47"}, {25, "48"}, {26, "49"}, {27, "50"},
    {28, "51"}, {29, "52"},
};
constexpr named latencyRanges[] = {{0, "7 to 36"}, {1, "23 to 52"}};
constexpr named mirrored[] = {{0, "standard"}, {1, "mirrored"}};
constexpr named registerCounts[] = {{0, "not given"}, {1, "1"}, {2, "2"}, {3, "4"}};
constexpr named registerTypes[] = {{0, "DDR4RCD01"}, {1, "DDR4RCD02"}};
constexpr named bufferTypes[] = {{0, "DDR4RCD01 and DDR4DB01"}, {1, "DDR4RCD02 and DDR4DB02"}};

// One step of the medium timebase (125 ps) and of the fine one (1 ps), in nanoseconds.
constexpr scale medium{.factor = 125, .divisor = 1000};
constexpr scale fine{.divisor = 1000};
// Megabits of a die, times packages of a rank, times ranks; 3DS packages also have ranks inside.
constexpr std::int64_t densityMegabits[] = {256, 512, 1024, 2048, 4096, 8192, 16384, 32768, 12288, 24576};
constexpr factor capacity[] = {
    {.field = "density", .values = densityMegabits},
    {.field = "busWidth", .values = jedec::busWidthBits},
    {.field = "deviceWidth", .values = jedec::deviceWidthBits, .divides = true},
    {.field = "ranks", .plus = 1},
    {.field = "rankMix", .values = jedec::alikeRanks},
};
constexpr factor stackCapacity[] = {
    {.field = "density", .values = densityMegabits},
    {.field = "dies", .plus = 1},
    {.field = "busWidth", .values = jedec::busWidthBits},
    {.field = "deviceWidth", .values = jedec::deviceWidthBits, .divides = true},
    {.field = "ranks", .plus = 1},
    {.field = "rankMix", .values = jedec::alikeRanks},
};
constexpr place upperTRas[] = {{.at = 27 - timingAt, .bit = 0, .bits = 4}};
constexpr place upperTRc[] = {{.at = 27 - timingAt, .bit = 4, .bits = 4}};
constexpr place upperTFaw[] = {{.at = 36 - timingAt, .bit = 0, .bits = 4}};
constexpr place upperTWr[] = {{.at = 41 - timingAt, .bit = 0, .bits = 4}};
constexpr place upperTWtrS[] = {{.at = 43 - timingAt, .bit = 0, .bits = 4}};
constexpr place upperTWtrL[] = {{.at = 43 - timingAt, .bit = 4, .bits = 4}};

constexpr row identity[] = {
    {.name = "manufacturer", .label = "Module manufacturer", .as = kind::jedecId, .at = 320 - identityAt, .length = 2,
     .names = jedec::manufacturers},
    {.name = "partNumber", .label = "Part number", .as = kind::text, .at = 329 - identityAt, .length = 20},
    {.name = "serialNumber", .label = "Serial number", .as = kind::hexadecimal, .at = 325 - identityAt, .length = 4},
    {.name = "revision", .label = "Module revision", .as = kind::hexadecimal, .at = 349 - identityAt},
    {.name = "date", .label = "Date of manufacture", .as = kind::yearWeekBcd, .at = 323 - identityAt, .length = 2},
    {.name = "location", .label = "Location of manufacture", .as = kind::hexadecimal, .at = 322 - identityAt},
    {.name = "dramManufacturer", .label = "DRAM manufacturer", .as = kind::jedecId, .at = 350 - identityAt,
     .length = 2, .names = jedec::manufacturers},
    {.name = "dramStepping", .label = "DRAM stepping", .as = kind::hexadecimal, .at = 352 - identityAt},
    {.name = "manufacturerData", .label = "Manufacturer's data", .at = 353 - identityAt, .length = 29},
};

constexpr row base[] = {
    {.name = "bytesUsed", .label = "Bytes used", .as = kind::choice, .at = 0, .bits = 4, .names = bytesUsed},
    {.name = "bytesTotal", .label = "Bytes of the EEPROM", .as = kind::choice, .at = 0, .bit = 4, .bits = 3,
     .names = bytesTotal},
    {.name = "revision", .label = "SPD revision", .as = kind::version, .at = 1},
    {.name = "memoryType", .label = "Memory type", .as = kind::choice, .at = 2, .names = memoryTypes},
    {.name = "moduleType", .label = "Module type", .as = kind::choice, .at = 3, .bits = 4, .names = moduleTypes},
    {.name = "hybrid", .label = "Hybrid media", .as = kind::choice, .at = 3, .bit = 4, .bits = 3,
     .names = hybridMedia},
    {.name = "isHybrid", .label = "Hybrid module", .as = kind::choice, .at = 3, .bit = 7, .names = jedec::yesNo},
    {.name = "density", .label = "Capacity of a die", .as = kind::choice, .at = 4, .bits = 4, .names = densities},
    {.name = "bankGroups", .label = "Bank groups", .as = kind::choice, .at = 4, .bit = 6, .names = bankGroups},
    {.name = "banks", .label = "Banks of a group", .as = kind::choice, .at = 4, .bit = 4, .bits = 2, .names = banks},
    {.name = "rowBits", .label = "Row address bits", .as = kind::choice, .at = 5, .bit = 3, .bits = 3,
     .names = rowBits},
    {.name = "columnBits", .label = "Column address bits", .as = kind::choice, .at = 5, .bits = 3,
     .names = columnBits},
    {.name = "package", .label = "DRAM package", .as = kind::choice, .at = 6, .bit = 7, .names = packages},
    {.name = "dies", .label = "Dies of a package", .as = kind::number, .at = 6, .bit = 4, .bits = 3,
     .by = {.plus = 1}},
    {.name = "signalLoading", .label = "Signal loading", .as = kind::choice, .at = 6, .bits = 2,
     .names = signalLoadings},
    {.name = "mostActivates", .label = "Most activates of a row", .as = kind::choice, .at = 7, .bits = 4,
     .names = activateCounts},
    {.name = "activateWindow", .label = "Window of the activates", .as = kind::choice, .at = 7, .bit = 4, .bits = 2,
     .names = activateWindows},
    {.name = "packageRepair", .label = "Post package repair", .as = kind::choice, .at = 9, .bit = 6,
     .names = packageRepairs},
    {.name = "softPackageRepair", .label = "Soft post package repair", .as = kind::choice, .at = 9, .bit = 5,
     .bits = 1, .names = jedec::yesNo},
    {.name = "secondPackage", .label = "Second DRAM package", .as = kind::hexadecimal, .at = 10},
    {.name = "voltage", .label = "Voltage VDD", .as = kind::flags, .at = 11, .names = voltages},
    {.name = "deviceWidth", .label = "Width of a DRAM", .as = kind::choice, .at = 12, .bits = 3, .unit = "bits",
     .names = jedec::deviceWidths},
    {.name = "ranks", .label = "Package ranks", .as = kind::number, .at = 12, .bit = 3, .bits = 3,
     .by = {.plus = 1}},
    {.name = "rankMix", .label = "Rank mix", .as = kind::choice, .at = 12, .bit = 6, .bits = 1, .names = rankMixes},
    {.name = "busWidth", .label = "Width of the bus", .as = kind::choice, .at = 13, .bits = 3, .unit = "bits",
     .names = jedec::busWidths},
    {.name = "eccWidth", .label = "Further bits for ECC", .as = kind::choice, .at = 13, .bit = 3, .bits = 2,
     .names = eccWidths},
    {.name = "capacity", .label = "Capacity of the module", .as = kind::product, .length = 0, .by = {.divisor = 8},
     .factors = capacity, .unit = "MiB", .when = {.field = "signalLoading", .most = 1}},
    {.name = "capacity", .label = "Capacity of the module", .as = kind::product, .length = 0, .by = {.divisor = 8},
     .factors = stackCapacity, .unit = "MiB", .when = {.field = "signalLoading", .least = 2, .most = 2}},
    {.name = "thermalSensor", .label = "Thermal sensor on the module", .as = kind::choice, .at = 14, .bit = 7,
     .names = jedec::yesNo},
    {.name = "extendedType", .label = "Extended module type", .as = kind::hexadecimal, .at = 15, .bits = 4},
};

constexpr row timing[] = {
    {.name = "tCKmin", .label = "tCKmin, cycle time", .as = kind::number, .at = 18 - timingAt, .by = medium,
     .fine = {.at = 125 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "tCKmax", .label = "tCKmax, cycle time", .as = kind::number, .at = 19 - timingAt, .by = medium,
     .fine = {.at = 124 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "latencyRange", .label = "Range of the CAS latencies", .as = kind::choice, .at = 23 - timingAt, .bit = 7,
     .names = latencyRanges},
    {.name = "casLatencies", .label = "CAS latencies", .as = kind::flags, .at = 20 - timingAt, .length = 4,
     .order = byteOrder::little, .bits = 30, .names = lowLatencies, .when = {.field = "latencyRange", .most = 0}},
    {.name = "casLatencies", .label = "CAS latencies", .as = kind::flags, .at = 20 - timingAt, .length = 4,
     .order = byteOrder::little, .bits = 30, .names = highLatencies, .when = {.field = "latencyRange", .least = 1}},
    {.name = "tAAmin", .label = "tAAmin, CAS latency time", .as = kind::number, .at = 24 - timingAt, .by = medium,
     .fine = {.at = 123 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "tRCDmin", .label = "tRCDmin, RAS to CAS", .as = kind::number, .at = 25 - timingAt, .by = medium,
     .fine = {.at = 122 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "tRPmin", .label = "tRPmin, precharge", .as = kind::number, .at = 26 - timingAt, .by = medium,
     .fine = {.at = 121 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "tRASmin", .label = "tRASmin, active to precharge", .as = kind::number, .at = 28 - timingAt,
     .more = upperTRas,
     .by = medium, .unit = "ns"},
    {.name = "tRCmin", .label = "tRCmin, active to active", .as = kind::number, .at = 29 - timingAt,
     .more = upperTRc,
     .by = medium, .fine = {.at = 120 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "tRFC1min", .label = "tRFC1min, refresh recovery", .as = kind::number, .at = 30 - timingAt, .length = 2,
     .order = byteOrder::little, .by = medium, .unit = "ns"},
    {.name = "tRFC2min", .label = "tRFC2min, refresh recovery", .as = kind::number, .at = 32 - timingAt, .length = 2,
     .order = byteOrder::little, .by = medium, .unit = "ns"},
    {.name = "tRFC4min", .label = "tRFC4min, refresh recovery", .as = kind::number, .at = 34 - timingAt, .length = 2,
     .order = byteOrder::little, .by = medium, .unit = "ns"},
    {.name = "tFAWmin", .label = "tFAWmin, four activates", .as = kind::number, .at = 37 - timingAt, .more = upperTFaw,
     .by = medium, .unit = "ns"},
    {.name = "tRRDSmin", .label = "tRRD_Smin, other bank group", .as = kind::number, .at = 38 - timingAt,
     .by = medium, .fine = {.at = 119 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "tRRDLmin", .label = "tRRD_Lmin, same bank group", .as = kind::number, .at = 39 - timingAt,
     .by = medium, .fine = {.at = 118 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "tCCDLmin", .label = "tCCD_Lmin, same bank group", .as = kind::number, .at = 40 - timingAt, .by = medium,
     .fine = {.at = 117 - timingAt, .by = fine}, .unit = "ns"},
    {.name = "tWRmin", .label = "tWRmin, write recovery", .as = kind::number, .at = 42 - timingAt, .more = upperTWr,
     .by = medium, .unit = "ns"},
    {.name = "tWTRSmin", .label = "tWTR_Smin, other bank group", .as = kind::number, .at = 44 - timingAt,
     .more = upperTWtrS, .by = medium, .unit = "ns"},
    {.name = "tWTRLmin", .label = "tWTR_Lmin, same bank group", .as = kind::number, .at = 45 - timingAt,
     .more = upperTWtrL, .by = medium, .unit = "ns"},
};

constexpr condition isRegistered{.field = "moduleType", .oneOf = 1 << 1 | 1 << 5 | 1 << 8};
constexpr condition isLoadReduced{.field = "moduleType", .least = 4, .most = 4};
constexpr condition hasRegister{.field = "moduleType", .oneOf = 1 << 1 | 1 << 4 | 1 << 5 | 1 << 8};
constexpr condition isUnbuffered{.field = "moduleType", .oneOf = 1 << 2 | 1 << 3 | 1 << 6 | 1 << 9 | 1 << 12 | 1 << 13};
constexpr row specific[] = {
    {.name = "height", .label = "Height, at most", .as = kind::number, .at = 128 - specificAt, .bits = 5,
     .by = {.plus = 15}, .unit = "mm"},
    {.name = "thicknessFront", .label = "Front thickness, at most", .as = kind::number, .at = 129 - specificAt,
     .bits = 4, .by = {.plus = 1}, .unit = "mm"},
    {.name = "thicknessBack", .label = "Back thickness, at most", .as = kind::number, .at = 129 - specificAt,
     .bit = 4, .bits = 4, .by = {.plus = 1}, .unit = "mm"},
    {.name = "rawCardExtended", .label = "Raw card beyond AL", .as = kind::choice, .at = 130 - specificAt, .bit = 7,
     .names = jedec::yesNo},
    {.name = "rawCard", .label = "Reference raw card", .as = kind::choice, .at = 130 - specificAt, .bits = 5,
     .names = jedec::rawCards, .when = {.field = "rawCardExtended", .most = 0}},
    {.name = "rawCard", .label = "Reference raw card", .as = kind::choice, .at = 130 - specificAt, .bits = 5,
     .names = jedec::furtherRawCards, .when = {.field = "rawCardExtended", .least = 1}},
    {.name = "revisionExtension", .as = kind::number, .at = 128 - specificAt, .bit = 5, .isHidden = true},
    {.name = "rawCardRevision", .label = "Revision of the raw card", .as = kind::number, .at = 130 - specificAt,
     .bit = 5, .bits = 2, .when = {.field = "revisionExtension", .most = 0}},
    {.name = "rawCardRevision", .label = "Revision of the raw card", .as = kind::number, .at = 128 - specificAt,
     .bit = 5, .by = {.plus = jedec::rawCardRevisionMost}, .when = {.field = "revisionExtension", .least = 1}},
    {.name = "shortRevision", .label = "Revision without its extension", .as = kind::number,
     .at = 130 - specificAt, .bit = 5, .bits = 2, .allowed = jedec::extendedRevision,
     .when = {.field = "revisionExtension", .least = 1}},
    {.name = "addressMapping", .label = "Address mapping of rank 1", .as = kind::choice, .at = 131 - specificAt,
     .bits = 1, .names = mirrored, .when = isUnbuffered},
    {.name = "registers", .label = "Registers", .as = kind::choice, .at = 131 - specificAt, .bits = 2,
     .names = registerCounts, .when = hasRegister},
    {.name = "dramRows", .label = "Rows of DRAMs", .as = kind::choice, .at = 131 - specificAt, .bit = 2, .bits = 2,
     .names = registerCounts, .when = hasRegister},
    {.name = "registerType", .label = "Register type", .as = kind::choice, .at = 131 - specificAt, .bit = 4,
     .names = registerTypes, .when = isRegistered},
    {.name = "registerType", .label = "Register and buffer type", .as = kind::choice, .at = 131 - specificAt,
     .bit = 4, .names = bufferTypes, .when = isLoadReduced},
    {.name = "heatSpreader", .label = "Heat spreader", .as = kind::choice, .at = 132 - specificAt, .bit = 7,
     .names = jedec::yesNo, .when = hasRegister},
    {.name = "registerManufacturer", .label = "Register manufacturer", .as = kind::jedecId, .at = 133 - specificAt,
     .length = 2, .names = jedec::manufacturers, .when = hasRegister},
    {.name = "registerRevision", .label = "Register revision", .as = kind::hexadecimal, .at = 135 - specificAt,
     .when = hasRegister},
    {.name = "addressMapping", .label = "Address mapping of the register", .as = kind::choice,
     .at = 136 - specificAt, .bits = 1, .names = mirrored, .when = hasRegister},
    {.name = "driveStrengths", .label = "Drive strengths of the register", .at = 137 - specificAt, .length = 2,
     .when = hasRegister},
    {.name = "bufferRevision", .label = "Data buffer revision", .as = kind::hexadecimal, .at = 139 - specificAt,
     .when = isLoadReduced},
    {.name = "crc", .label = "CRC-16 of block 1", .as = kind::checksum, .at = 254 - specificAt, .length = 2,
     .sum = {.as = sumKind::crc16Xmodem, .length = 126}},
};

constexpr row rows[] = {
    {.name = "module", .label = "Module", .as = kind::block, .at = identityAt, .length = 382 - identityAt,
     .rows = identity},
    {.label = "Memory", .as = kind::block, .length = 17, .rows = base},
    {.name = "mediumTimebase", .label = "Medium timebase", .as = kind::choice, .at = 17, .bit = 2, .bits = 2,
     .unit = "ps", .names = mediumTimebases},
    {.name = "fineTimebase", .label = "Fine timebase", .as = kind::choice, .at = 17, .bits = 2, .unit = "ps",
     .names = fineTimebases},
    {.label = "Timing", .as = kind::block, .at = timingAt, .length = 126 - timingAt,
     .when = {.field = "mediumTimebase", .most = 0},
     .also = {.field = "fineTimebase", .most = 0}, .rows = timing},
    {.name = "bitMapping", .label = "Connector to DRAM bit mapping", .at = 60, .length = 18},
    {.name = "crc", .label = "CRC-16 of block 0", .as = kind::checksum, .at = 126, .length = 2,
     .sum = {.as = sumKind::crc16Xmodem, .length = 126}},
    {.name = "specific", .label = "Of this module type", .as = kind::block, .at = specificAt, .length = 128,
     .rows = specific},
};

// Reserved bits must be 0: they tell an SPD from arbitrary bytes with the right type.
constexpr signature signatures[] = {
    {.at = 2, .least = 0x0C, .most = 0x0C},
    {.at = 1, .least = 0x10, .most = 0x1F},
    {.at = 5, .mask = 0xC0, .most = 0},
    {.at = 13, .mask = 0xE0, .most = 0},
};

} // namespace

extern constexpr format ddr4{
    .name = "ddr4",
    .title = "DDR4 SPD",
    .document = "JEDEC Standard 21-C annex L, SPD revisions 1.0 to 1.2",
    .least = 128,
    .length = 512,
    .signatures = signatures,
    .rows = rows,
};

} // namespace kest::contents
