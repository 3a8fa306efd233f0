/// FRU information of IPMI: what a field-replaceable unit is, who made it, and which power it takes.
///
/// Document: Platform Management FRU Information Storage Definition v1.0, revision 1.3. The types of chassis are those
/// of the System Management BIOS reference, 3.7, table 17.
#include "contents/table.h"

namespace kest::contents
{
namespace
{

constexpr std::size_t unit = 8; // of positions and lengths, in bytes

constexpr scale hundredths{.divisor = 100};

constexpr named areaVersions[] = {{1, "1"}};
constexpr named recordVersions[] = {{2, "2"}};

constexpr named languages[] = {
    {0, "English"}, {1, "Afar"}, {2, "Abkhazian"}, {3, "Afrikaans"}, {4, "Amharic"}, {5, "Arabic"}, {6, "Assamese"},
    {7, "Aymara"}, {8, "Azerbaijani"}, {9, "Bashkir"}, {10, "Byelorussian"}, {11, "Bulgarian"}, {12, "Bihari"},
    {13, "Bislama"}, {14, "Bengali"}, {15, "Tibetan"}, {16, "Breton"}, {17, "Catalan"}, {18, "Corsican"}, {19, "Czech"},
    {20, "Welsh"}, {21, "Danish"}, {22, "German"}, {23, "Bhutani"}, {24, "Greek"}, {25, "English"}, {26, "Esperanto"},
    {27, "Spanish"}, {28, "Estonian"}, {29, "Basque"}, {30, "Persian"}, {31, "Finnish"}, {32, "Fiji"}, {33, "Faeroese"},
    {34, "French"}, {35, "Frisian"}, {36, "Irish"}, {37, "Scots Gaelic"}, {38, "Galician"}, {39, "Guarani"},
    {40, "Gujarati"}, {41, "Hausa"}, {42, "Hindi"}, {43, "Croatian"}, {44, "Hungarian"}, {45, "Armenian"},
    {46, "Interlingua"}, {47, "Interlingue"}, {48, "Inupiak"}, {49, "Indonesian"}, {50, "Icelandic"}, {51, "Italian"},
    {52, "Hebrew"}, {53, "Japanese"}, {54, "Yiddish"}, {55, "Javanese"}, {56, "Georgian"}, {57, "Kazakh"},
    {58, "Greenlandic"}, {59, "Cambodian"}, {60, "Kannada"}, {61, "Korean"}, {62, "Kashmiri"}, {63, "Kurdish"},
    {64, "Kirghiz"}, {65, "Latin"}, {66, "Lingala"}, {67, "Laothian"}, {68, "Lithuanian"}, {69, "Latvian"},
    {70, "Malagasy"}, {71, "Maori"}, {72, "Macedonian"}, {73, "Malayalam"}, {74, "Mongolian"}, {75, "Moldavian"},
    {76, "Marathi"}, {77, "Malay"}, {78, "Maltese"}, {79, "Burmese"}, {80, "Nauru"}, {81, "Nepali"}, {82, "Dutch"},
    {83, "Norwegian"}, {84, "Occitan"}, {85, "Oromo"}, {86, "Oriya"}, {87, "Punjabi"}, {88, "Polish"}, {89, "Pashto"},
    {90, "Portuguese"}, {91, "Quechua"}, {92, "Rhaeto-Romance"}, {93, "Kirundi"}, {94, "Romanian"}, {95, "Russian"},
    {96, "Kinyarwanda"}, {97, "Sanskrit"}, {98, "Sindhi"}, {99, "Sangro"}, {100, "Serbo-Croatian"}, {101, "Singhalese"},
    {102, "Slovak"}, {103, "Slovenian"}, {104, "Samoan"}, {105, "Shona"}, {106, "Somali"}, {107, "Albanian"},
    {108, "Serbian"}, {109, "Siswati"}, {110, "Sesotho"}, {111, "Sundanese"}, {112, "Swedish"}, {113, "Swahili"},
    {114, "Tamil"}, {115, "Telugu"}, {116, "Tajik"}, {117, "Thai"}, {118, "Tigrinya"}, {119, "Turkmen"},
    {120, "Tagalog"}, {121, "Setswana"}, {122, "Tonga"}, {123, "Turkish"}, {124, "Tsonga"}, {125, "Tatar"},
    {126, "Twi"}, {127, "Ukrainian"}, {128, "Urdu"}, {129, "Uzbek"}, {130, "Vietnamese"}, {131, "Volapuk"},
    {132, "Wolof"}, {133, "Xhosa"}, {134, "Yoruba"}, {135, "Chinese"}, {136, "Zulu"}};

constexpr named chassisTypes[] = {
    {1, "Other"}, {2, "Unknown"}, {3, "Desktop"}, {4, "Low-profile desktop"}, {5, "Pizza box"}, {6, "Mini tower"},
    {7, "Tower"}, {8, "Portable"}, {9, "Laptop"}, {10, "Notebook"}, {11, "Hand-held"}, {12, "Docking station"},
    {13, "All in one"}, {14, "Sub-notebook"}, {15, "Space-saving"}, {16, "Lunch box"}, {17, "Main server chassis"},
    {18, "Expansion chassis"}, {19, "Sub-chassis"}, {20, "Bus expansion chassis"}, {21, "Peripheral chassis"},
    {22, "RAID chassis"}, {23, "Rack-mount chassis"}, {24, "Sealed-case PC"}, {25, "Multi-system chassis"},
    {26, "Compact PCI"}, {27, "Advanced TCA"}, {28, "Blade"}, {29, "Blade enclosure"}, {30, "Tablet"},
    {31, "Convertible"}, {32, "Detachable"}, {33, "IoT gateway"}, {34, "Embedded PC"}, {35, "Mini PC"},
    {36, "Stick PC"}};

constexpr named noArea[] = {{0, "none"}};
constexpr row header[] = {
    {.name = "version", .label = "Format version", .as = kind::choice, .bits = 4, .names = areaVersions,
     .allowed = {.least = 1, .most = 1}},
    {.name = "internalOffset", .label = "Internal use area at", .as = kind::number, .at = 1, .by = {.factor = unit},
     .unit = "bytes", .names = noArea},
    {.name = "chassisOffset", .label = "Chassis area at", .as = kind::number, .at = 2, .by = {.factor = unit},
     .unit = "bytes", .names = noArea},
    {.name = "boardOffset", .label = "Board area at", .as = kind::number, .at = 3, .by = {.factor = unit},
     .unit = "bytes", .names = noArea},
    {.name = "productOffset", .label = "Product area at", .as = kind::number, .at = 4, .by = {.factor = unit},
     .unit = "bytes", .names = noArea},
    {.name = "recordOffset", .label = "Records at", .as = kind::number, .at = 5, .by = {.factor = unit},
     .unit = "bytes", .names = noArea},
    {.name = "checksum", .label = "Header checksum", .as = kind::checksum, .at = 7, .sum = {.as = sumKind::zero8}},
};

constexpr std::string_view areaOffsets[] = {
    "internalOffset", "chassisOffset", "boardOffset", "productOffset", "recordOffset"};

constexpr row internalUse[] = {
    {.name = "version", .label = "Format version", .as = kind::choice, .bits = 4, .names = areaVersions,
     .allowed = {.least = 1, .most = 1}},
    {.name = "data", .label = "Data", .at = 1, .length = 0},
};

constexpr row chassisStrings[] = {
    {.name = "partNumber", .label = "Part number", .settable = true, .english = true},
    {.name = "serialNumber", .label = "Serial number", .settable = true, .english = true},
};

constexpr row chassis[] = {
    {.name = "version", .label = "Format version", .as = kind::choice, .bits = 4, .names = areaVersions,
     .allowed = {.least = 1, .most = 1}},
    {.name = "length", .label = "Length", .as = kind::number, .at = 1, .by = {.factor = unit}, .unit = "bytes"},
    {.name = "type", .label = "Type", .as = kind::choice, .at = 2, .names = chassisTypes, .settable = true},
    {.as = kind::strings, .at = 3, .settable = true, .strings = {.known = chassisStrings, .moreName = "custom",
     .moreLabel = "Custom"}},
    {.name = "checksum", .label = "Checksum", .as = kind::checksum, .fromEnd = 1, .sum = {.as = sumKind::zero8}},
};

constexpr row boardStrings[] = {
    {.name = "manufacturer", .label = "Manufacturer", .settable = true},
    {.name = "productName", .label = "Product name", .settable = true},
    {.name = "serialNumber", .label = "Serial number", .settable = true, .english = true},
    {.name = "partNumber", .label = "Part number", .settable = true, .english = true},
    {.name = "fruFileId", .label = "FRU file", .settable = true, .english = true},
};

constexpr row board[] = {
    {.name = "version", .label = "Format version", .as = kind::choice, .bits = 4, .names = areaVersions,
     .allowed = {.least = 1, .most = 1}},
    {.name = "length", .label = "Length", .as = kind::number, .at = 1, .by = {.factor = unit}, .unit = "bytes"},
    {.name = "language", .label = "Language", .as = kind::choice, .at = 2, .names = languages, .settable = true},
    {.name = "date", .label = "Made", .as = kind::minutesSince1996, .at = 3, .length = 3, .settable = true},
    {.as = kind::strings, .at = 6, .settable = true, .strings = {.known = boardStrings, .moreName = "custom",
     .moreLabel = "Custom", .languageField = "language"}},
    {.name = "checksum", .label = "Checksum", .as = kind::checksum, .fromEnd = 1, .sum = {.as = sumKind::zero8}},
};

constexpr row productStrings[] = {
    {.name = "manufacturer", .label = "Manufacturer", .settable = true},
    {.name = "name", .label = "Product name", .settable = true},
    {.name = "partNumber", .label = "Part number", .settable = true, .english = true},
    {.name = "productVersion", .label = "Version", .settable = true},
    {.name = "serialNumber", .label = "Serial number", .settable = true, .english = true},
    {.name = "assetTag", .label = "Asset tag", .settable = true},
    {.name = "fruFileId", .label = "FRU file", .settable = true, .english = true},
};

constexpr row product[] = {
    {.name = "version", .label = "Format version", .as = kind::choice, .bits = 4, .names = areaVersions,
     .allowed = {.least = 1, .most = 1}},
    {.name = "length", .label = "Length", .as = kind::number, .at = 1, .by = {.factor = unit}, .unit = "bytes"},
    {.name = "language", .label = "Language", .as = kind::choice, .at = 2, .names = languages, .settable = true},
    {.as = kind::strings, .at = 3, .settable = true, .strings = {.known = productStrings, .moreName = "custom",
     .moreLabel = "Custom", .languageField = "language"}},
    {.name = "checksum", .label = "Checksum", .as = kind::checksum, .fromEnd = 1, .sum = {.as = sumKind::zero8}},
};

constexpr named noYes[] = {{0, "no"}, {1, "yes"}};

constexpr row recordHeader[] = {
    {.name = "type", .label = "Type", .as = kind::hexadecimal},
    {.name = "version", .label = "Format version", .as = kind::choice, .at = 1, .bits = 4, .names = recordVersions,
     .allowed = {.least = 2, .most = 2}, .when = {.field = "type", .most = 0xBF}},
    // records of manufacturers may have versions of their own
    {.name = "version", .label = "Format version", .as = kind::choice, .at = 1, .bits = 4, .names = recordVersions,
     .when = {.field = "type", .least = 0xC0}},
    {.name = "isLast", .label = "Last record", .as = kind::choice, .at = 1, .bit = 7, .names = noYes},
    {.name = "length", .label = "Length", .as = kind::number, .at = 2, .unit = "bytes"},
    {.name = "checksum", .label = "Record checksum", .as = kind::checksum, .at = 3, .sum = {.as = sumKind::zero8,
     .from = 5, .lengthField = "length"}},
    {.name = "headerChecksum", .label = "Header checksum", .as = kind::checksum, .at = 4,
     .sum = {.as = sumKind::zero8}},
};

constexpr named supplyFeatures[] = {
    {0, "predictive failure pin"}, {1, "power factor correction"}, {2, "automatic voltage switch"}, {3, "hot swap"},
    {4, "two tachometer pulses per rotation, or failure pin active low"}};

constexpr named supplyVoltages[] = {{0, "12 V"}, {1, "-12 V"}, {2, "5 V"}, {3, "3.3 V"}};

constexpr named peakNotGiven[] = {{0xFFFF, "not given"}};
constexpr named inrushNotGiven[] = {{0xFF, "not given"}};

constexpr row powerSupply[] = {
    {.name = "capacity", .label = "Overall capacity", .as = kind::number, .at = 0, .length = 2,
     .order = byteOrder::little, .bits = 12, .unit = "W"},
    {.name = "peakVa", .label = "Peak", .as = kind::number, .at = 2, .length = 2, .order = byteOrder::little,
     .unit = "VA", .names = peakNotGiven},
    {.name = "inrushCurrent", .label = "Inrush current", .as = kind::number, .at = 4, .unit = "A",
     .names = inrushNotGiven},
    {.name = "inrushInterval", .label = "Inrush interval", .as = kind::number, .at = 5, .unit = "ms"},
    {.name = "lowVoltage1", .label = "Lowest input voltage, range 1", .as = kind::number, .at = 6, .length = 2,
     .order = byteOrder::little, .by = hundredths, .unit = "V"},
    {.name = "highVoltage1", .label = "Highest input voltage, range 1", .as = kind::number, .at = 8, .length = 2,
     .order = byteOrder::little, .by = hundredths, .unit = "V"},
    {.name = "lowVoltage2", .label = "Lowest input voltage, range 2", .as = kind::number, .at = 10, .length = 2,
     .order = byteOrder::little, .by = hundredths, .unit = "V"},
    {.name = "highVoltage2", .label = "Highest input voltage, range 2", .as = kind::number, .at = 12, .length = 2,
     .order = byteOrder::little, .by = hundredths, .unit = "V"},
    {.name = "lowFrequency", .label = "Lowest input frequency", .as = kind::number, .at = 14, .unit = "Hz"},
    {.name = "highFrequency", .label = "Highest input frequency", .as = kind::number, .at = 15, .unit = "Hz"},
    {.name = "dropoutTolerance", .label = "Tolerated dropout", .as = kind::number, .at = 16, .unit = "ms"},
    {.name = "features", .label = "Features", .as = kind::flags, .at = 17, .bits = 5, .names = supplyFeatures},
    {.name = "peakCapacity", .label = "Peak capacity", .as = kind::number, .at = 18, .length = 2,
     .order = byteOrder::little, .bits = 12, .unit = "W"},
    {.name = "holdUpTime", .label = "Hold-up time", .as = kind::number, .at = 18, .length = 2,
     .order = byteOrder::little, .bit = 12, .unit = "s"},
    {.name = "combinedVoltage2", .label = "Combined voltage 2", .as = kind::choice, .at = 20, .bits = 4,
     .names = supplyVoltages},
    {.name = "combinedVoltage1", .label = "Combined voltage 1", .as = kind::choice, .at = 20, .bit = 4,
     .names = supplyVoltages},
    {.name = "combinedPower", .label = "Combined power", .as = kind::number, .at = 21, .length = 2,
     .order = byteOrder::little, .unit = "W"},
    {.name = "tachometerThreshold", .label = "Lower threshold of the tachometer", .as = kind::number, .at = 23,
     .unit = "rotations/s"},
};

constexpr row dcOutput[] = {
    {.name = "output", .label = "Output", .as = kind::number, .at = 0, .bits = 4},
    {.name = "standby", .label = "Standby output", .as = kind::choice, .at = 0, .bit = 7, .names = noYes},
    {.name = "nominalVoltage", .label = "Nominal voltage", .as = kind::number, .at = 1, .length = 2,
     .order = byteOrder::little, .isSigned = true, .by = hundredths, .unit = "V"},
    {.name = "negativeDeviation", .label = "Largest negative deviation", .as = kind::number, .at = 3, .length = 2,
     .order = byteOrder::little, .isSigned = true, .by = hundredths, .unit = "V"},
    {.name = "positiveDeviation", .label = "Largest positive deviation", .as = kind::number, .at = 5, .length = 2,
     .order = byteOrder::little, .isSigned = true, .by = hundredths, .unit = "V"},
    {.name = "ripple", .label = "Ripple and noise", .as = kind::number, .at = 7, .length = 2,
     .order = byteOrder::little, .unit = "mV"},
    {.name = "leastCurrent", .label = "Least current", .as = kind::number, .at = 9, .length = 2,
     .order = byteOrder::little, .unit = "mA"},
    {.name = "mostCurrent", .label = "Most current", .as = kind::number, .at = 11, .length = 2,
     .order = byteOrder::little, .unit = "mA"},
};

constexpr row dcLoad[] = {
    {.name = "output", .label = "Output", .as = kind::number, .at = 0, .bits = 4},
    {.name = "nominalVoltage", .label = "Nominal voltage", .as = kind::number, .at = 1, .length = 2,
     .order = byteOrder::little, .isSigned = true, .by = hundredths, .unit = "V"},
    {.name = "leastVoltage", .label = "Least voltage", .as = kind::number, .at = 3, .length = 2,
     .order = byteOrder::little, .isSigned = true, .by = hundredths, .unit = "V"},
    {.name = "mostVoltage", .label = "Most voltage", .as = kind::number, .at = 5, .length = 2,
     .order = byteOrder::little, .isSigned = true, .by = hundredths, .unit = "V"},
    {.name = "ripple", .label = "Ripple and noise", .as = kind::number, .at = 7, .length = 2,
     .order = byteOrder::little, .unit = "mV"},
    {.name = "leastCurrent", .label = "Least current", .as = kind::number, .at = 9, .length = 2,
     .order = byteOrder::little, .unit = "mA"},
    {.name = "mostCurrent", .label = "Most current", .as = kind::number, .at = 11, .length = 2,
     .order = byteOrder::little, .unit = "mA"},
};

constexpr named accessTypes[] = {
    {1, "system management URL"}, {2, "system name"}, {3, "system ping address"}, {4, "component management URL"},
    {5, "component name"}, {6, "component ping address"}, {7, "system unique ID"}};

constexpr row managementAccess[] = {
    {.name = "accessType", .label = "Access", .as = kind::choice, .names = accessTypes},
    {.name = "text", .label = "Text", .as = kind::text, .at = 1, .length = 0, .when = {.field = "accessType",
     .least = 1, .most = 6}},
    {.name = "uniqueId", .label = "Unique ID", .as = kind::uuid, .at = 1, .length = 16, .when = {.field = "accessType",
     .least = 7, .most = 7}},
};

constexpr row compatibility[] = {
    {.name = "manufacturer", .label = "IANA enterprise number", .as = kind::number, .at = 0, .length = 3,
     .order = byteOrder::little, .bits = 20},
    {.name = "entity", .label = "Entity", .as = kind::hexadecimal, .at = 3},
    {.name = "base", .label = "Compatibility base", .as = kind::hexadecimal, .at = 4},
    {.name = "firstCode", .label = "First compatible code", .as = kind::hexadecimal, .at = 5},
    {.name = "codeMask", .label = "Mask of compatible codes", .at = 6, .length = 0},
};

constexpr row oem[] = {
    {.name = "manufacturer", .label = "IANA enterprise number", .as = kind::number, .at = 0, .length = 3,
     .order = byteOrder::little, .bits = 20},
    {.name = "data", .label = "Data", .at = 3, .length = 0},
};

constexpr row anyData[] = {{.name = "data", .label = "Data", .length = 0}};

constexpr row records[] = {
    {.label = "Power supply", .as = kind::block, .tag = 0x00, .rows = powerSupply},
    {.label = "DC output", .as = kind::block, .tag = 0x01, .rows = dcOutput},
    {.label = "DC load", .as = kind::block, .tag = 0x02, .rows = dcLoad},
    {.label = "Management access", .as = kind::block, .tag = 0x03, .rows = managementAccess},
    {.label = "Base compatibility", .as = kind::block, .tag = 0x04, .rows = compatibility},
    {.label = "Extended compatibility", .as = kind::block, .tag = 0x05, .rows = compatibility},
    {.label = "ASF fixed SMBus device", .as = kind::block, .tag = 0x06, .rows = anyData},
    {.label = "ASF legacy-device alerts", .as = kind::block, .tag = 0x07, .rows = anyData},
    {.label = "ASF remote control", .as = kind::block, .tag = 0x08, .rows = anyData},
    {.label = "Extended DC output", .as = kind::block, .tag = 0x09, .rows = anyData},
    {.label = "Extended DC load", .as = kind::block, .tag = 0x0A, .rows = anyData},
    {.label = "OEM", .as = kind::block, .tag = 0xC0, .lastTag = 0xFF, .rows = oem},
};

constexpr row rows[] = {
    {.name = "header", .label = "Common header", .as = kind::block, .length = 8, .rows = header},
    {.name = "internal", .label = "Internal use", .as = kind::block, .length = 0, .where = {.atField = "internalOffset",
     .atUnit = unit, .beforeFields = areaOffsets}, .rows = internalUse},
    {.name = "chassis", .label = "Chassis", .as = kind::block, .where = {.atField = "chassisOffset", .atUnit = unit,
     .ownLength = true, .ownLengthAt = 1, .lengthUnit = unit, .least = unit}, .rows = chassis},
    {.name = "board", .label = "Board", .as = kind::block, .where = {.atField = "boardOffset", .atUnit = unit,
     .ownLength = true, .ownLengthAt = 1, .lengthUnit = unit, .least = unit}, .rows = board},
    {.name = "product", .label = "Product", .as = kind::block, .where = {.atField = "productOffset", .atUnit = unit,
     .ownLength = true, .ownLengthAt = 1, .lengthUnit = unit, .least = unit}, .rows = product},
    {.name = "record", .label = "Records", .as = kind::list, .length = 0,
     .where = {.atField = "recordOffset", .atUnit = unit, .beforeFields = areaOffsets},
     .entries = {.headerLength = 5, .header = recordHeader, .typeField = "type", .lengthField = "length",
     .lastField = "isLast", .showHeader = true, .known = records}},
};

// A header that sums to zero; or, where its sum is wrong, a board area of version 1 whose first string is ASCII text.
constexpr signature signatures[] = {
    {.at = 0, .least = 1, .most = 1}, {.at = 6, .least = 0, .most = 0}, {.at = 0, .zeroSum = 8}};
constexpr signature otherwise[] = {
    {.at = 0, .least = 1, .most = 1},
    {.at = 6, .least = 0, .most = 0},
    {.at = 3, .least = 1, .most = 1, .pointerUnit = unit},
    {.at = 3, .mask = 0xC0, .least = 0xC0, .most = 0xC0, .pointerUnit = unit, .plus = 6}};

} // namespace

extern constexpr format fru{
    .name = "fru",
    .title = "IPMI FRU information",
    .document = "Platform Management FRU Information Storage Definition v1.0, revision 1.3",
    .least = unit,
    .signatures = signatures,
    .otherwise = otherwise,
    .rows = rows,
};

} // namespace kest::contents
