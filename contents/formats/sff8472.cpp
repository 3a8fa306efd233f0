/// SFF-8472: pluggable modules of the SFP family.
///
/// Document: SNIA SFF-8472, "Management Interface for SFP+", revision 12.4. An image has address A0h (0x50) from its
/// byte 0 and, if the part gives it, address A2h (0x51) behind that, from byte 256.
#include "contents/formats/sffnames.h"
#include "contents/table.h"

namespace kest::contents
{
namespace
{

constexpr std::size_t addressLength = 256;

constexpr named identifiers[] = {{0x03, "SFP, SFP+, SFP28"}};
constexpr named extendedIdentifiers[] = {{0x04, "serial interface alone"}};
// Bytes 3 to 10 as one number: bit 7 of byte 3 is 63.
constexpr named compliances[] = {
    {63, "10GBASE-ER"}, {62, "10GBASE-LRM"}, {61, "10GBASE-LR"}, {60, "10GBASE-SR"}, {59, "InfiniBand 1X SX"},
    {58, "InfiniBand 1X LX"}, {57, "InfiniBand 1X copper active"}, {56, "InfiniBand 1X copper passive"},
    {55, "ESCON MMF"}, {54, "ESCON SMF"}, {53, "OC-192 short reach"}, {52, "SONET reach bit 1"},
    {51, "SONET reach bit 2"}, {50, "OC-48 long reach"}, {49, "OC-48 intermediate reach"},
    {48, "OC-48 short reach"}, {46, "OC-12 single mode, long reach"}, {45, "OC-12 single mode, intermediate reach"},
    {44, "OC-12 short reach"}, {42, "OC-3 single mode, long reach"}, {41, "OC-3 single mode, intermediate reach"},
    {40, "OC-3 short reach"}, {39, "BASE-PX"}, {38, "BASE-BX10"}, {37, "100BASE-FX"}, {36, "100BASE-LX or LX10"},
    {35, "1000BASE-T"}, {34, "1000BASE-CX"}, {33, "1000BASE-LX"}, {32, "1000BASE-SX"},
    {31, "FC very long distance"}, {30, "FC short distance"}, {29, "FC intermediate distance"},
    {28, "FC long distance"}, {27, "FC medium distance"}, {26, "FC shortwave laser, linear receiver"},
    {25, "FC longwave laser (LC)"}, {24, "FC electrical inter-enclosure"}, {23, "FC electrical intra-enclosure"},
    {22, "FC shortwave laser without OFC"}, {21, "FC shortwave laser with OFC"}, {20, "FC longwave laser (LL)"},
    {19, "active cable"}, {18, "passive cable"}, {15, "FC twin axial pair"}, {14, "FC twisted pair"},
    {13, "FC miniature coax"}, {12, "FC video coax"}, {11, "FC multimode 62.5 um"}, {10, "FC multimode 50 um"},
    {8, "FC single mode"}, {7, "FC 1200 MB/s"}, {6, "FC 800 MB/s"}, {5, "FC 1600 MB/s"}, {4, "FC 400 MB/s"},
    {3, "FC 3200 MB/s"}, {2, "FC 200 MB/s"}, {1, "as byte 62 says"}, {0, "FC 100 MB/s"},
};
constexpr condition isCable{.field = "compliance", .mask = 3U << 18, .least = 1};
constexpr condition isOptical{.field = "compliance", .mask = 3U << 18, .most = 0};
constexpr named encodings[] = {
    {0, "not given"}, {1, "8B/10B"}, {2, "4B/5B"}, {3, "NRZ"}, {4, "Manchester"}, {5, "SONET scrambled"},
    {6, "64B/66B"}, {7, "256B/257B"}, {8, "PAM4"},
};
constexpr named zeroIsNotGiven[] = {{0, "not given"}};
// 255 of a length is beyond what the byte can give.
constexpr named kilometreLengths[] = {{0, "not given"}, {255, "more than 254 km"}};
constexpr named hundredMetreLengths[] = {{0, "not given"}, {255, "more than 25400 m"}};
constexpr named tenMetreLengths[] = {{0, "not given"}, {255, "more than 2540 m"}};
constexpr named metreLengths[] = {{0, "not given"}, {255, "more than 254 m"}};
constexpr named options[] = {
    {1, "loss of signal"}, {2, "inverted loss of signal"}, {3, "TX_FAULT"}, {4, "TX_DISABLE"}, {5, "RATE_SELECT"},
    {6, "tunable"}, {7, "receiver decision threshold"}, {8, "linear receiver output"}, {9, "power level 2"},
    {10, "cooled"}, {11, "retimer or CDR"}, {12, "paging"},
    {13, "power level 3"},
};
constexpr named diagnosticTypes[] = {
    {2, "address change needed"}, {3, "received power is an average"}, {4, "calibrated externally"},
    {5, "calibrated internally"}, {6, "diagnostics"},
};
constexpr condition hasDiagnostics{.field = "diagnosticType", .mask = 0x40, .least = 0x40};
constexpr condition isInternal{.field = "diagnosticType", .mask = 0x20, .least = 0x20};
constexpr condition isNotInternal{.field = "diagnosticType", .mask = 0x20, .most = 0};
constexpr named enhancedOptions[] = {
    {1, "soft RATE_SELECT"}, {2, "application select"}, {3, "soft RATE_SELECT, control and monitoring"},
    {4, "soft RX_LOS"}, {5, "soft TX_FAULT"}, {6, "soft TX_DISABLE"}, {7, "alarm and warning flags"},
};
constexpr named revisions[] = {
    {0, "none"}, {1, "9.3"}, {2, "9.5"}, {3, "10.2"}, {4, "10.4"}, {5, "11.0"}, {6, "11.3"}, {7, "11.4"},
    {8, "12.3"}, {9, "12.4"},
};
constexpr named states[] = {
    {0, "data not ready"}, {1, "RX_LOS"}, {2, "TX_FAULT"}, {3, "soft RS(0)"}, {4, "RS(0)"}, {5, "RS(1)"},
    {6, "soft TX_DISABLE"}, {7, "TX_DISABLE"},
};
// Bytes 112 and 113, or 116 and 117, as one number.
constexpr named crossedLimits[] = {
    {15, "temperature high"}, {14, "temperature low"}, {13, "voltage high"}, {12, "voltage low"},
    {11, "bias high"}, {10, "bias low"}, {9, "transmitted power high"}, {8, "transmitted power low"},
    {7, "received power high"}, {6, "received power low"}, {5, "laser temperature high"},
    {4, "laser temperature low"}, {3, "TEC current high"}, {2, "TEC current low"},
};

constexpr scale celsius{.divisor = 256}; // of 1/256 °C
constexpr scale volts{.divisor = 10000}; // of 100 uV
constexpr scale milliamperes{.divisor = 500}; // of 2 uA
constexpr scale milliwatts{.divisor = 10000}; // of 0.1 uW
constexpr scale slope{.divisor = 256};

constexpr row temperatureLimits[] = {
    {.name = "highAlarm", .label = "High alarm", .as = kind::number, .at = 0, .length = 2, .isSigned = true,
     .by = celsius, .unit = "°C"},
    {.name = "lowAlarm", .label = "Low alarm", .as = kind::number, .at = 2, .length = 2, .isSigned = true,
     .by = celsius, .unit = "°C"},
    {.name = "highWarning", .label = "High warning", .as = kind::number, .at = 4, .length = 2, .isSigned = true,
     .by = celsius, .unit = "°C"},
    {.name = "lowWarning", .label = "Low warning", .as = kind::number, .at = 6, .length = 2, .isSigned = true,
     .by = celsius, .unit = "°C"},
};
constexpr row voltageLimits[] = {
    {.name = "highAlarm", .label = "High alarm", .as = kind::number, .at = 0, .length = 2, .by = volts, .unit = "V"},
    {.name = "lowAlarm", .label = "Low alarm", .as = kind::number, .at = 2, .length = 2, .by = volts, .unit = "V"},
    {.name = "highWarning", .label = "High warning", .as = kind::number, .at = 4, .length = 2, .by = volts,
     .unit = "V"},
    {.name = "lowWarning", .label = "Low warning", .as = kind::number, .at = 6, .length = 2, .by = volts,
     .unit = "V"},
};
constexpr row biasLimits[] = {
    {.name = "highAlarm", .label = "High alarm", .as = kind::number, .at = 0, .length = 2, .by = milliamperes,
     .unit = "mA"},
    {.name = "lowAlarm", .label = "Low alarm", .as = kind::number, .at = 2, .length = 2, .by = milliamperes,
     .unit = "mA"},
    {.name = "highWarning", .label = "High warning", .as = kind::number, .at = 4, .length = 2, .by = milliamperes,
     .unit = "mA"},
    {.name = "lowWarning", .label = "Low warning", .as = kind::number, .at = 6, .length = 2, .by = milliamperes,
     .unit = "mA"},
};
constexpr row powerLimits[] = {
    {.name = "highAlarm", .label = "High alarm", .as = kind::number, .at = 0, .length = 2, .by = milliwatts,
     .unit = "mW"},
    {.name = "lowAlarm", .label = "Low alarm", .as = kind::number, .at = 2, .length = 2, .by = milliwatts,
     .unit = "mW"},
    {.name = "highWarning", .label = "High warning", .as = kind::number, .at = 4, .length = 2, .by = milliwatts,
     .unit = "mW"},
    {.name = "lowWarning", .label = "Low warning", .as = kind::number, .at = 6, .length = 2, .by = milliwatts,
     .unit = "mW"},
};
constexpr row thresholds[] = {
    {.name = "temperature", .label = "Temperature", .as = kind::block, .at = 0, .length = 8,
     .rows = temperatureLimits},
    {.name = "voltage", .label = "Supply voltage", .as = kind::block, .at = 8, .length = 8, .rows = voltageLimits},
    {.name = "bias", .label = "Transmitter bias", .as = kind::block, .at = 16, .length = 8, .rows = biasLimits},
    {.name = "transmitPower", .label = "Transmitted power", .as = kind::block, .at = 24, .length = 8,
     .rows = powerLimits},
    {.name = "receivePower", .label = "Received power", .as = kind::block, .at = 32, .length = 8,
     .rows = powerLimits},
};

constexpr std::size_t calibrationAt = 56;
constexpr row calibration[] = {
    {.name = "receivePower4", .label = "Rx_PWR(4)", .as = kind::real,
     .at = 56 - calibrationAt, .length = 4},
    {.name = "receivePower3", .label = "Rx_PWR(3)", .as = kind::real,
     .at = 60 - calibrationAt, .length = 4},
    {.name = "receivePower2", .label = "Rx_PWR(2)", .as = kind::real,
     .at = 64 - calibrationAt, .length = 4},
    {.name = "receivePower1", .label = "Rx_PWR(1)", .as = kind::real, .at = 68 - calibrationAt,
     .length = 4},
    {.name = "receivePower0", .label = "Rx_PWR(0)", .as = kind::real, .at = 72 - calibrationAt,
     .length = 4},
    {.name = "biasSlope", .label = "Bias, slope", .as = kind::number, .at = 76 - calibrationAt, .length = 2,
     .by = slope},
    {.name = "biasOffset", .label = "Bias, offset", .as = kind::number, .at = 78 - calibrationAt, .length = 2,
     .isSigned = true},
    {.name = "transmitPowerSlope", .label = "Transmitted power, slope", .as = kind::number,
     .at = 80 - calibrationAt, .length = 2, .by = slope},
    {.name = "transmitPowerOffset", .label = "Transmitted power, offset", .as = kind::number,
     .at = 82 - calibrationAt, .length = 2, .isSigned = true},
    {.name = "temperatureSlope", .label = "Temperature, slope", .as = kind::number, .at = 84 - calibrationAt,
     .length = 2, .by = slope},
    {.name = "temperatureOffset", .label = "Temperature, offset", .as = kind::number, .at = 86 - calibrationAt,
     .length = 2, .isSigned = true},
    {.name = "voltageSlope", .label = "Supply voltage, slope", .as = kind::number, .at = 88 - calibrationAt,
     .length = 2, .by = slope},
    {.name = "voltageOffset", .label = "Supply voltage, offset", .as = kind::number, .at = 90 - calibrationAt,
     .length = 2, .isSigned = true},
};

// With external calibration, values and thresholds are counts of the converter: shown as bytes.
constexpr row diagnostics[] = {
    {.name = "checksum", .label = "Check code CC_DMI", .as = kind::checksum, .at = 95,
     .sum = {.as = sumKind::low8}},
    {.name = "temperature", .label = "Temperature", .as = kind::number, .at = 96, .length = 2, .isSigned = true,
     .by = celsius, .unit = "°C", .when = isInternal},
    {.name = "voltage", .label = "Supply voltage", .as = kind::number, .at = 98, .length = 2, .by = volts,
     .unit = "V", .when = isInternal},
    {.name = "bias", .label = "Transmitter bias", .as = kind::number, .at = 100, .length = 2, .by = milliamperes,
     .unit = "mA", .when = isInternal},
    {.name = "transmitPower", .label = "Transmitted power", .as = kind::number, .at = 102, .length = 2,
     .by = milliwatts, .unit = "mW", .when = isInternal},
    {.name = "receivePower", .label = "Received power", .as = kind::number, .at = 104, .length = 2,
     .by = milliwatts, .unit = "mW", .when = isInternal},
    {.name = "counts", .label = "Values before calibration", .at = 96, .length = 10, .when = isNotInternal},
    {.name = "optionalValues", .label = "Laser and TEC values", .at = 106, .length = 4},
    {.name = "states", .label = "States and control", .as = kind::flags, .at = 110, .names = states},
    {.name = "alarms", .label = "Alarms", .as = kind::flags, .at = 112, .length = 2, .names = crossedLimits},
    {.name = "equaliser", .label = "Equalisation and emphasis", .at = 114, .length = 2},
    {.name = "warnings", .label = "Warnings", .as = kind::flags, .at = 116, .length = 2, .names = crossedLimits},
    {.name = "extendedStates", .label = "Extended states and control", .at = 118, .length = 2},
    {.name = "thresholds", .label = "Thresholds", .as = kind::block, .at = 0, .length = 40, .when = isInternal,
     .rows = thresholds},
    {.name = "thresholdCounts", .label = "Thresholds before calibration", .at = 0, .length = 40,
     .when = isNotInternal},
    {.name = "optionalThresholds", .label = "Laser and TEC thresholds", .at = 40,
     .length = 16},
    {.name = "calibration", .label = "Calibration", .as = kind::block, .at = calibrationAt,
     .length = 92 - calibrationAt, .rows = calibration},
    {.name = "vendorData", .label = "Vendor's data", .at = 120, .length = 7},
    {.name = "page", .label = "Page", .as = kind::number, .at = 127},
    {.name = "pageData", .label = "Data of the page", .at = 128, .length = 128},
};

constexpr row rows[] = {
    {.name = "identifier", .label = "Identifier", .as = kind::choice, .at = 0, .names = identifiers},
    {.name = "vendor", .label = "Vendor", .as = kind::text, .at = 20, .length = 16},
    {.name = "partNumber", .label = "Part number", .as = kind::text, .at = 40, .length = 16},
    {.name = "revision", .label = "Revision", .as = kind::text, .at = 56, .length = 4},
    {.name = "serialNumber", .label = "Serial number", .as = kind::text, .at = 68, .length = 16},
    {.name = "date", .label = "Date of manufacture (YYMMDD)", .as = kind::text, .at = 84, .length = 6},
    {.name = "lot", .label = "Lot", .as = kind::text, .at = 90, .length = 2},
    {.name = "oui", .label = "OUI of the vendor", .as = kind::hexadecimal, .at = 37, .length = 3},
    {.name = "baseChecksum", .label = "Check code CC_BASE", .as = kind::checksum, .at = 63,
     .sum = {.as = sumKind::low8}},
    {.name = "extendedChecksum", .label = "Check code CC_EXT", .as = kind::checksum, .at = 95,
     .sum = {.as = sumKind::low8, .from = 64}},
    {.name = "extendedIdentifier", .label = "Extended identifier", .as = kind::choice, .at = 1,
     .names = extendedIdentifiers},
    {.name = "connector", .label = "Connector", .as = kind::choice, .at = 2, .names = sff::connectors},
    {.name = "compliance", .label = "Compliance", .as = kind::flags, .at = 3, .length = 8, .names = compliances},
    {.name = "extendedCompliance", .label = "Extended compliance", .as = kind::choice, .at = 36,
     .names = sff::extendedCompliances},
    {.name = "encoding", .label = "Encoding", .as = kind::choice, .at = 11, .names = encodings},
    {.name = "rateCode", .as = kind::number, .at = 12, .isHidden = true},
    {.name = "signallingRate", .label = "Signalling rate", .as = kind::number, .at = 12, .by = {.factor = 100},
     .unit = "MBd", .names = zeroIsNotGiven, .when = {.field = "rateCode", .most = 0xFE}},
    {.name = "signallingRate", .label = "Signalling rate", .as = kind::number, .at = 66, .by = {.factor = 250},
     .unit = "MBd", .when = {.field = "rateCode", .least = 0xFF}},
    {.name = "rateRange", .label = "Range of the rate, +/-", .as = kind::number, .at = 67,
     .unit = "%", .when = {.field = "rateCode", .least = 0xFF}},
    {.name = "rateAbove", .label = "Upper margin of the rate", .as = kind::number, .at = 66, .unit = "%",
     .when = {.field = "rateCode", .most = 0xFE}},
    {.name = "rateBelow", .label = "Lower margin of the rate", .as = kind::number, .at = 67, .unit = "%",
     .when = {.field = "rateCode", .most = 0xFE}},
    {.name = "rateIdentifier", .label = "Rate identifier", .as = kind::hexadecimal, .at = 13},
    {.name = "lengthSingleModeKm", .label = "Length, single mode, in km", .as = kind::number, .at = 14, .unit = "km",
     .names = kilometreLengths},
    {.name = "lengthSingleMode", .label = "Length, single mode", .as = kind::number, .at = 15,
     .by = {.factor = 100}, .unit = "m", .names = hundredMetreLengths},
    {.name = "lengthOm2", .label = "Length, 50 um, OM2", .as = kind::number, .at = 16, .by = {.factor = 10},
     .unit = "m", .names = tenMetreLengths},
    {.name = "lengthOm1", .label = "Length, 62.5 um, OM1", .as = kind::number, .at = 17, .by = {.factor = 10},
     .unit = "m", .names = tenMetreLengths},
    {.name = "lengthOm4", .label = "Length, 50 um, OM4", .as = kind::number, .at = 18, .by = {.factor = 10},
     .unit = "m", .names = tenMetreLengths, .when = isOptical},
    {.name = "lengthCable", .label = "Length of the cable", .as = kind::number, .at = 18, .unit = "m",
     .names = metreLengths, .when = isCable},
    {.name = "lengthOm3", .label = "Length, 50 um, OM3", .as = kind::number, .at = 19, .by = {.factor = 10},
     .unit = "m", .names = tenMetreLengths, .when = isOptical},
    {.name = "lengthCableCode", .label = "Length of the cable, further code", .as = kind::hexadecimal, .at = 19,
     .when = isCable},
    {.name = "wavelength", .label = "Wavelength", .as = kind::number, .at = 60, .length = 2, .unit = "nm",
     .when = isOptical},
    {.name = "cableCompliance", .label = "Compliance of the cable", .at = 60, .length = 2, .when = isCable},
    {.name = "fibreChannelSpeed2", .label = "Fibre Channel speed 2", .as = kind::hexadecimal, .at = 62,
     .when = {.field = "compliance", .mask = 1U << 1, .least = 1U << 1}},
    {.name = "options", .label = "Options", .as = kind::flags, .at = 64, .length = 2, .names = options},
    {.name = "diagnosticType", .label = "Diagnostics", .as = kind::flags, .at = 92, .names = diagnosticTypes},
    {.name = "enhancedOptions", .label = "Enhanced options", .as = kind::flags, .at = 93, .names = enhancedOptions},
    {.name = "documentRevision", .label = "Follows SFF-8472 revision", .as = kind::choice, .at = 94,
     .names = revisions},
    {.name = "vendorData", .label = "Vendor's data", .at = 96, .length = 32},
    {.name = "diagnostics", .label = "Address A2h", .as = kind::block, .at = addressLength, .length = addressLength,
     .when = hasDiagnostics, .optional = true, .rows = diagnostics},
};

constexpr signature signatures[] = {
    {.at = 0, .least = 0x03, .most = 0x03},
    {.at = 1, .least = 0x04, .most = 0x04},
    {.at = 20, .least = 0x20, .most = 0x7E},
    {.at = 40, .least = 0x20, .most = 0x7E},
};

} // namespace

extern constexpr format sff8472{
    .name = "sff8472",
    .title = "SFF-8472 module",
    .document = "SNIA SFF-8472 revision 12.4",
    .least = 128,
    .signatures = signatures,
    .rows = rows,
};

} // namespace kest::contents
