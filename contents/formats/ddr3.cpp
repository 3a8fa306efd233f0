/// DDR3 SPD: what a DDR3 memory module says of itself.
///
/// Document: JEDEC Standard 21-C, section 4.1.2.11, annex K, "Serial Presence Detect (SPD) for DDR3 SDRAM Modules",
/// SPD revisions 1.0 to 1.3. Offsets of rows are the document's bytes, also in the block of the module's identity.
#include "contents/formats/jedecnames.h"
#include "contents/table.h"

namespace kest::contents
{
namespace
{

constexpr std::size_t specificAt = 60;
constexpr std::size_t identityAt = 117;

constexpr named bytesUsed[] = {{0, "not given"}, {1, "128"}, {2, "176"}, {3, "256"}};
constexpr named bytesTotal[] = {{0, "not given"}, {1, "256"}};
constexpr named crcCoverage[] = {{0, "bytes 0 to 125"}, {1, "bytes 0 to 116"}};
constexpr named memoryTypes[] = {{0x0B, "DDR3"}};
constexpr named moduleTypes[] = {
    {0, "not given"}, {1, "RDIMM"}, {2, "UDIMM"}, {3, "SO-DIMM"}, {4, "Micro-DIMM"}, {5, "Mini-RDIMM"},
    {6, "Mini-UDIMM"}, {7, "Mini-CDIMM"}, {8, "72b-SO-UDIMM"}, {9, "72b-SO-RDIMM"}, {10, "72b-SO-CDIMM"},
    {11, "LRDIMM"}, {12, "16b-SO-DIMM"}, {13, "32b-SO-DIMM"},
};
constexpr named densities[] = {
    {0, "256 Mb"}, {1, "512 Mb"}, {2, "1 Gb"}, {3, "2 Gb"}, {4, "4 Gb"}, {5, "8 Gb"}, {6, "16 Gb"},
};
constexpr named banks[] = {{0, "8"}, {1, "16"}, {2, "32"}, {3, "64"}};
constexpr named rowBits[] = {{0, "12"}, {1, "13"}, {2, "14"}, {3, "15"}, {4, "16"}};
constexpr named columnBits[] = {{0, "9"}, {1, "10"}, {2, "11"}, {3, "12"}};
constexpr named operable[] = {{0, "yes"}, {1, "no"}};
constexpr named lowerVoltages[] = {{0, "1.35 V"}, {1, "1.2X V"}};
constexpr named ranks[] = {{0, "1"}, {1, "2"}, {2, "3"}, {3, "4"}, {4, "8"}};
constexpr named eccWidths[] = {{0, "none"}, {1, "8"}};
constexpr named casLatencies[] = {
    {0, "4"}, {1, "5"}, {2, "6"}, {3, "7"}, {4, "8"}, {5, "9"}, {6, "10"}, {7, "11"},
    {8, "12"}, {9, "13"}, {10, "14"}, {11, "15"}, {12, "16"}, {13, "17"}, {14, "18"},
};
constexpr named optionalFeatures[] = {{0, "RZQ/6"}, {1, "RZQ/7"}, {7, "DLL-off mode"}};
constexpr named refreshOptions[] = {
    {0, "extended temperature range"}, {1, "extended temperature at 1x refresh"}, {2, "automatic self-refresh"},
    {3, "on-die thermal sensor"}, {7, "partial array self-refresh"},
};
constexpr named dieTypes[] = {{0, "standard monolithic"}, {1, "not standard"}};
constexpr named dieCounts[] = {{0, "not given"}, {1, "1"}, {2, "2"}, {3, "4"}, {4, "8"}};
constexpr named signalLoadings[] = {{0, "not given"}, {1, "multi load stack"}, {2, "single load stack"}};
constexpr named mirrored[] = {{0, "standard"}, {1, "mirrored"}};
constexpr named registerCounts[] = {{0, "not given"}, {1, "1"}, {2, "2"}, {3, "4"}};
constexpr named registerTypes[] = {{0, "SSTE32882"}};

// One step of the medium and of the fine timebase, in nanoseconds.
constexpr scale medium{.factorField = "mtbDividend", .divisorField = "mtbDivisor"};
constexpr scale fine{.divisor = 1000, .factorField = "ftbDividend", .divisorField = "ftbDivisor"};
// Megabits of a DRAM, times DRAMs of a rank, times ranks.
constexpr std::int64_t densityMegabits[] = {256, 512, 1024, 2048, 4096, 8192, 16384};
constexpr std::int64_t rankCounts[] = {1, 2, 3, 4, 8};
constexpr factor capacity[] = {
    {.field = "density", .values = densityMegabits},
    {.field = "busWidth", .values = jedec::busWidthBits},
    {.field = "deviceWidth", .values = jedec::deviceWidthBits, .divides = true},
    {.field = "ranks", .values = rankCounts},
};
constexpr place upperTRas[] = {{.at = 21, .bit = 0, .bits = 4}};
constexpr place upperTRc[] = {{.at = 21, .bit = 4, .bits = 4}};
constexpr place upperTFaw[] = {{.at = 28, .bit = 0, .bits = 4}};

constexpr row identity[] = {
    {.name = "manufacturer", .label = "Module manufacturer", .as = kind::jedecId, .at = 117 - identityAt, .length = 2,
     .names = jedec::manufacturers},
    {.name = "partNumber", .label = "Part number", .as = kind::text, .at = 128 - identityAt, .length = 18},
    {.name = "serialNumber", .label = "Serial number", .as = kind::hexadecimal, .at = 122 - identityAt, .length = 4},
    {.name = "revision", .label = "Module revision", .at = 146 - identityAt, .length = 2},
    {.name = "date", .label = "Date of manufacture", .as = kind::yearWeekBcd, .at = 120 - identityAt, .length = 2},
    {.name = "location", .label = "Location of manufacture", .as = kind::hexadecimal, .at = 119 - identityAt},
    {.name = "dramManufacturer", .label = "DRAM manufacturer", .as = kind::jedecId, .at = 148 - identityAt,
     .length = 2, .names = jedec::manufacturers},
    {.name = "manufacturerData", .label = "Manufacturer's data", .at = 150 - identityAt, .length = 26},
};

// The rows that all module types of bytes 60 to 116 share come first.
constexpr condition isRegistered{.field = "moduleType", .oneOf = 1 << 1 | 1 << 5 | 1 << 9};
constexpr std::uint64_t unbufferedTypes = 1 << 2 | 1 << 3 | 1 << 4 | 1 << 6 | 1 << 8 | 1 << 12 | 1 << 13;
constexpr condition isUnbuffered{.field = "moduleType", .oneOf = unbufferedTypes};
constexpr condition isNotUnbuffered{.field = "moduleType", .oneOf = 0xFFFF & ~unbufferedTypes};
constexpr row specific[] = {
    {.name = "height", .label = "Height, at most", .as = kind::number, .at = 60 - specificAt, .bits = 5,
     .by = {.plus = 15}, .unit = "mm"},
    {.name = "thicknessFront", .label = "Front thickness, at most", .as = kind::number, .at = 61 - specificAt,
     .bits = 4, .by = {.plus = 1}, .unit = "mm"},
    {.name = "thicknessBack", .label = "Back thickness, at most", .as = kind::number, .at = 61 - specificAt,
     .bit = 4, .bits = 4, .by = {.plus = 1}, .unit = "mm"},
    {.name = "rawCardExtended", .label = "Raw card beyond AL", .as = kind::choice, .at = 62 - specificAt, .bit = 7,
     .bits = 1, .names = jedec::yesNo},
    {.name = "rawCard", .label = "Reference raw card", .as = kind::choice, .at = 62 - specificAt, .bits = 5,
     .names = jedec::rawCards, .when = {.field = "rawCardExtended", .most = 0}},
    {.name = "rawCard", .label = "Reference raw card", .as = kind::choice, .at = 62 - specificAt, .bits = 5,
     .names = jedec::furtherRawCards, .when = {.field = "rawCardExtended", .least = 1}},
    {.name = "revisionExtension", .as = kind::number, .at = 60 - specificAt, .bit = 5, .when = isUnbuffered,
     .isHidden = true},
    {.name = "rawCardRevision", .label = "Revision of the raw card", .as = kind::number, .at = 62 - specificAt,
     .bit = 5, .bits = 2, .when = isNotUnbuffered},
    {.name = "rawCardRevision", .label = "Revision of the raw card", .as = kind::number, .at = 62 - specificAt,
     .bit = 5, .bits = 2, .when = isUnbuffered, .also = {.field = "revisionExtension", .most = 0}},
    {.name = "rawCardRevision", .label = "Revision of the raw card", .as = kind::number, .at = 60 - specificAt,
     .bit = 5, .by = {.plus = jedec::rawCardRevisionMost}, .when = isUnbuffered,
     .also = {.field = "revisionExtension", .least = 1}},
    {.name = "shortRevision", .label = "Revision without its extension", .as = kind::number, .at = 62 - specificAt,
     .bit = 5, .bits = 2, .allowed = jedec::extendedRevision, .when = isUnbuffered,
     .also = {.field = "revisionExtension", .least = 1}},
    {.name = "addressMapping", .label = "Address mapping of rank 1", .as = kind::choice, .at = 63 - specificAt,
     .bits = 1, .names = mirrored, .when = isUnbuffered},
    {.name = "registers", .label = "Registers", .as = kind::choice, .at = 63 - specificAt, .bits = 2,
     .names = registerCounts, .when = isRegistered},
    {.name = "dramRows", .label = "Rows of DRAMs", .as = kind::choice, .at = 63 - specificAt, .bit = 2, .bits = 2,
     .names = registerCounts, .when = isRegistered},
    {.name = "heatSpreader", .label = "Heat spreader", .as = kind::choice, .at = 64 - specificAt, .bit = 7,
     .bits = 1, .names = jedec::yesNo, .when = isRegistered},
    {.name = "registerManufacturer", .label = "Register manufacturer", .as = kind::jedecId, .at = 65 - specificAt,
     .length = 2, .names = jedec::manufacturers, .when = isRegistered},
    {.name = "registerRevision", .label = "Register revision", .as = kind::hexadecimal, .at = 67 - specificAt,
     .when = isRegistered},
    {.name = "registerType", .label = "Register type", .as = kind::choice, .at = 68 - specificAt, .bits = 3,
     .names = registerTypes, .when = isRegistered},
    {.name = "controlWords", .label = "Register control words", .at = 69 - specificAt, .length = 8,
     .when = isRegistered},
};

constexpr row rows[] = {
    {.name = "module", .label = "Module", .as = kind::block, .at = identityAt, .length = 176 - identityAt,
     .rows = identity},
    {.name = "bytesUsed", .label = "Bytes used", .as = kind::choice, .at = 0, .bits = 4, .names = bytesUsed},
    {.name = "bytesTotal", .label = "Bytes of the EEPROM", .as = kind::choice, .at = 0, .bit = 4, .bits = 3,
     .names = bytesTotal},
    {.name = "crcCoverage", .label = "CRC covers", .as = kind::choice, .at = 0, .bit = 7, .names = crcCoverage},
    {.name = "crc", .label = "CRC-16", .as = kind::checksum, .at = 126, .length = 2,
     .when = {.field = "crcCoverage", .most = 0}, .sum = {.as = sumKind::crc16Xmodem, .length = 126}},
    {.name = "crc", .label = "CRC-16", .as = kind::checksum, .at = 126, .length = 2,
     .when = {.field = "crcCoverage", .least = 1}, .sum = {.as = sumKind::crc16Xmodem, .length = 117}},
    {.name = "revision", .label = "SPD revision", .as = kind::version, .at = 1},
    {.name = "memoryType", .label = "Memory type", .as = kind::choice, .at = 2, .names = memoryTypes},
    {.name = "moduleType", .label = "Module type", .as = kind::choice, .at = 3, .bits = 4, .names = moduleTypes},
    {.name = "hybridMedia", .label = "Hybrid media", .as = kind::hexadecimal, .at = 3, .bit = 4},
    {.name = "density", .label = "Capacity of a DRAM", .as = kind::choice, .at = 4, .bits = 4, .names = densities},
    {.name = "banks", .label = "Banks", .as = kind::choice, .at = 4, .bit = 4, .bits = 3, .names = banks},
    {.name = "rowBits", .label = "Row address bits", .as = kind::choice, .at = 5, .bit = 3, .bits = 3,
     .names = rowBits},
    {.name = "columnBits", .label = "Column address bits", .as = kind::choice, .at = 5, .bits = 3,
     .names = columnBits},
    {.name = "operableAt1V5", .label = "Operable at 1.5 V", .as = kind::choice, .at = 6, .bits = 1,
     .names = operable},
    {.name = "lowerVoltages", .label = "Operable at lower voltages", .as = kind::flags, .at = 6, .bit = 1, .bits = 2,
     .names = lowerVoltages},
    {.name = "ranks", .label = "Ranks", .as = kind::choice, .at = 7, .bit = 3, .bits = 3, .names = ranks},
    {.name = "deviceWidth", .label = "Width of a DRAM", .as = kind::choice, .at = 7, .bits = 3, .unit = "bits",
     .names = jedec::deviceWidths},
    {.name = "busWidth", .label = "Width of the bus", .as = kind::choice, .at = 8, .bits = 3, .unit = "bits",
     .names = jedec::busWidths},
    {.name = "eccWidth", .label = "Further bits for ECC", .as = kind::choice, .at = 8, .bit = 3, .bits = 2,
     .names = eccWidths},
    {.name = "capacity", .label = "Capacity of the module", .as = kind::product, .length = 0, .by = {.divisor = 8},
     .factors = capacity, .unit = "MiB"},
    {.name = "ftbDividend", .label = "Fine timebase, dividend (ps)", .as = kind::number, .at = 9, .bit = 4},
    {.name = "ftbDivisor", .label = "Fine timebase, divisor", .as = kind::number, .at = 9, .bits = 4},
    {.name = "mtbDividend", .label = "Medium timebase, dividend (ns)", .as = kind::number, .at = 10},
    {.name = "mtbDivisor", .label = "Medium timebase, divisor", .as = kind::number, .at = 11},
    {.name = "tCKmin", .label = "tCKmin, cycle time", .as = kind::number, .at = 12, .by = medium,
     .fine = {.at = 34, .by = fine}, .unit = "ns"},
    {.name = "casLatencies", .label = "CAS latencies", .as = kind::flags, .at = 14, .length = 2,
     .order = byteOrder::little, .names = casLatencies},
    {.name = "tAAmin", .label = "tAAmin, CAS latency time", .as = kind::number, .at = 16, .by = medium,
     .fine = {.at = 35, .by = fine}, .unit = "ns"},
    {.name = "tWRmin", .label = "tWRmin, write recovery", .as = kind::number, .at = 17, .by = medium, .unit = "ns"},
    {.name = "tRCDmin", .label = "tRCDmin, RAS to CAS", .as = kind::number, .at = 18, .by = medium,
     .fine = {.at = 36, .by = fine}, .unit = "ns"},
    {.name = "tRRDmin", .label = "tRRDmin, row to row", .as = kind::number, .at = 19, .by = medium, .unit = "ns"},
    {.name = "tRPmin", .label = "tRPmin, precharge", .as = kind::number, .at = 20, .by = medium,
     .fine = {.at = 37, .by = fine}, .unit = "ns"},
    {.name = "tRASmin", .label = "tRASmin, active to precharge", .as = kind::number, .at = 22, .more = upperTRas,
     .by = medium, .unit = "ns"},
    {.name = "tRCmin", .label = "tRCmin, active to active", .as = kind::number, .at = 23, .more = upperTRc,
     .by = medium, .fine = {.at = 38, .by = fine}, .unit = "ns"},
    {.name = "tRFCmin", .label = "tRFCmin, refresh recovery", .as = kind::number, .at = 24, .length = 2,
     .order = byteOrder::little, .by = medium, .unit = "ns"},
    {.name = "tWTRmin", .label = "tWTRmin, write to read", .as = kind::number, .at = 26, .by = medium, .unit = "ns"},
    {.name = "tRTPmin", .label = "tRTPmin, read to precharge", .as = kind::number, .at = 27, .by = medium,
     .unit = "ns"},
    {.name = "tFAWmin", .label = "tFAWmin, four activates", .as = kind::number, .at = 29, .more = upperTFaw,
     .by = medium, .unit = "ns"},
    {.name = "optionalFeatures", .label = "Optional features", .as = kind::flags, .at = 30,
     .names = optionalFeatures},
    {.name = "refreshOptions", .label = "Thermal and refresh options", .as = kind::flags, .at = 31,
     .names = refreshOptions},
    {.name = "thermalSensor", .label = "Thermal sensor on the module", .as = kind::choice, .at = 32, .bit = 7,
     .names = jedec::yesNo},
    {.name = "thermalAccuracy", .label = "Accuracy of the sensor", .as = kind::hexadecimal, .at = 32, .bits = 7},
    {.name = "dieType", .label = "DRAM device type", .as = kind::choice, .at = 33, .bit = 7, .names = dieTypes},
    {.name = "dies", .label = "Dies of a package", .as = kind::choice, .at = 33, .bit = 4, .bits = 3,
     .names = dieCounts},
    {.name = "signalLoading", .label = "Signal loading", .as = kind::choice, .at = 33, .bits = 2,
     .names = signalLoadings},
    {.name = "mostActivates", .label = "Most activates of a row, code", .as = kind::hexadecimal, .at = 41},
    {.name = "specific", .label = "Of this module type", .as = kind::block, .at = specificAt,
     .length = 117 - specificAt,
     .rows = specific},
};

// Reserved bits must be 0: they tell an SPD from arbitrary bytes with the right type.
constexpr signature signatures[] = {
    {.at = 2, .least = 0x0B, .most = 0x0B},
    {.at = 1, .least = 0x10, .most = 0x1F},
    {.at = 5, .mask = 0xC0, .most = 0},
    {.at = 8, .mask = 0xE0, .most = 0},
};

} // namespace

extern constexpr format ddr3{
    .name = "ddr3",
    .title = "DDR3 SPD",
    .document = "JEDEC Standard 21-C annex K, SPD revisions 1.0 to 1.3",
    .least = 128,
    .length = 256,
    .signatures = signatures,
    .rows = rows,
};

} // namespace kest::contents
