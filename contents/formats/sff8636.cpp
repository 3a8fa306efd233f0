/// SFF-8636: pluggable modules of the QSFP family.
///
/// Document: SNIA SFF-8636, "Management Interface for 4-lane Modules and Cables", revision 2.10a. An image has the
/// lower page in its bytes 0 to 127, and upper page 00h in 128 to 255.
#include "contents/formats/sffnames.h"
#include "contents/table.h"

namespace kest::contents
{
namespace
{

constexpr named identifiers[] = {{0x0C, "QSFP"}, {0x0D, "QSFP+"}, {0x11, "QSFP28"}};
constexpr named revisions[] = {
    {0, "not given"}, {1, "SFF-8436 4.8 or before"}, {2, "SFF-8436 4.8 or before, with exceptions"},
    {3, "SFF-8636 1.3 or before"}, {4, "SFF-8636 1.4"}, {5, "SFF-8636 1.5"}, {6, "SFF-8636 2.0"},
    {7, "SFF-8636 2.5 to 2.7"}, {8, "SFF-8636 2.8 to 2.10"},
};
constexpr named states[] = {{0, "data not ready"}, {1, "no interrupt"}, {2, "flat memory"}};
constexpr named lossOfSignal[] = {
    {0, "receiver 1"}, {1, "receiver 2"}, {2, "receiver 3"}, {3, "receiver 4"}, {4, "transmitter 1"},
    {5, "transmitter 2"}, {6, "transmitter 3"}, {7, "transmitter 4"},
};
constexpr named faults[] = {
    {0, "transmitter 1"}, {1, "transmitter 2"}, {2, "transmitter 3"}, {3, "transmitter 4"},
    {4, "equaliser 1"}, {5, "equaliser 2"}, {6, "equaliser 3"}, {7, "equaliser 4"},
};
constexpr named moduleLimits[] = {
    {7, "high alarm"}, {6, "low alarm"}, {5, "high warning"}, {4, "low warning"}, {0, "initialised"},
};
constexpr named voltageLimits[] = {{7, "high alarm"}, {6, "low alarm"}, {5, "high warning"}, {4, "low warning"}};
// Of channels 1 to 4, each in half a byte.
constexpr named channelLimits[] = {
    {15, "1 high alarm"}, {14, "1 low alarm"}, {13, "1 high warning"}, {12, "1 low warning"},
    {11, "2 high alarm"}, {10, "2 low alarm"}, {9, "2 high warning"}, {8, "2 low warning"},
    {7, "3 high alarm"}, {6, "3 low alarm"}, {5, "3 high warning"}, {4, "3 low warning"},
    {3, "4 high alarm"}, {2, "4 low alarm"}, {1, "4 high warning"}, {0, "4 low warning"},
};
constexpr named channels[] = {{0, "1"}, {1, "2"}, {2, "3"}, {3, "4"}};
constexpr named powerControl[] = {
    {0, "power override"}, {1, "low power"}, {2, "classes 5 to 7 enabled"}, {3, "class 8 enabled"},
    {7, "software reset"},
};
constexpr named powerClasses[] = {{0, "1 (1.5 W)"}, {1, "2 (2.0 W)"}, {2, "3 (2.5 W)"}, {3, "4 (3.5 W)"}};
constexpr named highPowerClasses[] = {{0, "none"}, {1, "5 (4.0 W)"}, {2, "6 (4.5 W)"}, {3, "7 (5.0 W)"}};
constexpr named extendedIdentifier[] = {
    {0, "CDR of the receiver"}, {1, "CDR of the transmitter"}, {2, "CLEI code"}, {3, "power class 8"},
};
// Bytes 131 to 138 as one number: bit 7 of byte 131 is 63.
constexpr named compliances[] = {
    {63, "as byte 192 says"}, {62, "10GBASE-LRM"}, {61, "10GBASE-LR"}, {60, "10GBASE-SR"}, {59, "40GBASE-CR4"},
    {58, "40GBASE-SR4"}, {57, "40GBASE-LR4"}, {56, "40G active cable"}, {50, "OC-48 long reach"},
    {49, "OC-48 intermediate reach"}, {48, "OC-48 short reach"}, {47, "SAS 24G"}, {46, "SAS 12G"},
    {45, "SAS 6G"}, {44, "SAS 3G"}, {35, "1000BASE-T"}, {34, "1000BASE-CX"}, {33, "1000BASE-LX"},
    {32, "1000BASE-SX"}, {31, "FC very long distance"}, {30, "FC short distance"},
    {29, "FC intermediate distance"}, {28, "FC long distance"}, {27, "FC medium distance"},
    {25, "FC longwave laser (LC)"}, {24, "FC electrical inter-enclosure"}, {23, "FC electrical intra-enclosure"},
    {22, "FC shortwave laser without OFC"}, {21, "FC shortwave laser with OFC"}, {20, "FC longwave laser (LL)"},
    {15, "FC twin axial pair"}, {14, "FC twisted pair"}, {13, "FC miniature coax"}, {12, "FC video coax"},
    {11, "FC multimode 62.5 um"}, {10, "FC multimode 50 um"}, {9, "FC multimode 50 um, OM3"},
    {8, "FC single mode"}, {7, "FC 1200 MB/s"}, {6, "FC 800 MB/s"}, {5, "FC 1600 MB/s"}, {4, "FC 400 MB/s"},
    {3, "FC 3200 MB/s"}, {2, "FC 200 MB/s"}, {1, "FC extended"}, {0, "FC 100 MB/s"},
};
constexpr named encodings[] = {
    {0, "not given"}, {1, "8B/10B"}, {2, "4B/5B"}, {3, "NRZ"}, {4, "SONET scrambled"}, {5, "64B/66B"},
    {6, "Manchester"}, {7, "256B/257B"}, {8, "PAM4"},
};
constexpr named zeroIsNotGiven[] = {{0, "not given"}};
// 255 of a length is beyond what the byte can give.
constexpr named kilometreLengths[] = {{0, "not given"}, {255, "more than 254 km"}};
constexpr named twoMetreLengths[] = {{0, "not given"}, {255, "more than 508 m"}};
constexpr named metreLengths[] = {{0, "not given"}, {255, "more than 254 m"}};
constexpr named caseTemperatures[] = {{0, "70 °C, the standard's"}};
constexpr named technologies[] = {
    {0, "850 nm VCSEL"}, {1, "1310 nm VCSEL"}, {2, "1550 nm VCSEL"}, {3, "1310 nm FP"}, {4, "1310 nm DFB"},
    {5, "1550 nm DFB"}, {6, "1310 nm EML"}, {7, "1550 nm EML"}, {8, "other"}, {9, "1490 nm DFB"},
    {10, "copper, not equalised"}, {11, "copper, passive equalisation"},
    {12, "copper, active limiting at both ends"}, {13, "copper, active limiting at the far end"},
    {14, "copper, active limiting at the near end"}, {15, "copper, linear active equalisation"},
};
constexpr named technologyFlags[] = {
    {0, "tunable"}, {1, "APD detector"}, {2, "cooled"}, {3, "wavelength control"},
};
constexpr condition isCopper{.field = "technology", .least = 10};
constexpr condition isOptical{.field = "technology", .most = 9};
constexpr named options[] = {
    {15, "CDR control of the transmitter"}, {14, "CDR control of the receiver"},
    {13, "loss of lock of the transmitter"}, {12, "loss of lock of the receiver"},
    {11, "squelch disable of the receiver"}, {10, "output disable of the receiver"},
    {9, "squelch disable of the transmitter"}, {8, "squelch of the transmitter"}, {7, "page 02h"}, {6, "page 01h"},
    {5, "rate select"}, {4, "TX_DISABLE"}, {3, "TX_FAULT"}, {2, "squelch lowers the average power"},
    {1, "loss of signal of the transmitter"}, {0, "pages 20h and 21h"},
};
constexpr named diagnosticTypes[] = {
    {2, "transmitted power"}, {3, "received power is an average"}, {4, "supply voltage"}, {5, "temperature"},
};

constexpr scale celsius{.divisor = 256}; // of 1/256 °C
constexpr scale volts{.divisor = 10000}; // of 100 uV
constexpr scale milliamperes{.divisor = 500}; // of 2 uA
constexpr scale milliwatts{.divisor = 10000}; // of 0.1 uW

constexpr row powers[] = {
    {.name = "channel1", .label = "Channel 1", .as = kind::number, .at = 0, .length = 2, .by = milliwatts,
     .unit = "mW"},
    {.name = "channel2", .label = "Channel 2", .as = kind::number, .at = 2, .length = 2, .by = milliwatts,
     .unit = "mW"},
    {.name = "channel3", .label = "Channel 3", .as = kind::number, .at = 4, .length = 2, .by = milliwatts,
     .unit = "mW"},
    {.name = "channel4", .label = "Channel 4", .as = kind::number, .at = 6, .length = 2, .by = milliwatts,
     .unit = "mW"},
};
constexpr row biases[] = {
    {.name = "channel1", .label = "Channel 1", .as = kind::number, .at = 0, .length = 2, .by = milliamperes,
     .unit = "mA"},
    {.name = "channel2", .label = "Channel 2", .as = kind::number, .at = 2, .length = 2, .by = milliamperes,
     .unit = "mA"},
    {.name = "channel3", .label = "Channel 3", .as = kind::number, .at = 4, .length = 2, .by = milliamperes,
     .unit = "mA"},
    {.name = "channel4", .label = "Channel 4", .as = kind::number, .at = 6, .length = 2, .by = milliamperes,
     .unit = "mA"},
};

constexpr row rows[] = {
    {.name = "identifier", .label = "Identifier", .as = kind::choice, .at = 128, .names = identifiers},
    {.name = "vendor", .label = "Vendor", .as = kind::text, .at = 148, .length = 16},
    {.name = "partNumber", .label = "Part number", .as = kind::text, .at = 168, .length = 16},
    {.name = "revision", .label = "Revision", .as = kind::text, .at = 184, .length = 2},
    {.name = "serialNumber", .label = "Serial number", .as = kind::text, .at = 196, .length = 16},
    {.name = "date", .label = "Date of manufacture (YYMMDD)", .as = kind::text, .at = 212, .length = 6},
    {.name = "lot", .label = "Lot", .as = kind::text, .at = 218, .length = 2},
    {.name = "oui", .label = "OUI of the vendor", .as = kind::hexadecimal, .at = 165, .length = 3},
    {.name = "baseChecksum", .label = "Check code CC_BASE", .as = kind::checksum, .at = 191,
     .sum = {.as = sumKind::low8, .from = 128}},
    {.name = "extendedChecksum", .label = "Check code CC_EXT", .as = kind::checksum, .at = 223,
     .sum = {.as = sumKind::low8, .from = 192}},
    {.name = "powerClass", .label = "Power class", .as = kind::choice, .at = 129, .bit = 6, .names = powerClasses},
    {.name = "highPowerClass", .label = "High power class", .as = kind::choice, .at = 129, .bits = 2,
     .names = highPowerClasses},
    {.name = "extendedIdentifier", .label = "Extended identifier", .as = kind::flags, .at = 129, .bit = 2,
     .bits = 4, .names = extendedIdentifier},
    {.name = "connector", .label = "Connector", .as = kind::choice, .at = 130, .names = sff::connectors},
    {.name = "compliance", .label = "Compliance", .as = kind::flags, .at = 131, .length = 8, .names = compliances},
    {.name = "extendedCompliance", .label = "Extended compliance", .as = kind::choice, .at = 192,
     .names = sff::extendedCompliances},
    {.name = "encoding", .label = "Encoding", .as = kind::choice, .at = 139, .names = encodings},
    {.name = "rateCode", .as = kind::number, .at = 140, .isHidden = true},
    {.name = "signallingRate", .label = "Signalling rate", .as = kind::number, .at = 140, .by = {.factor = 100},
     .unit = "MBd", .names = zeroIsNotGiven, .when = {.field = "rateCode", .most = 0xFE}},
    {.name = "signallingRate", .label = "Signalling rate", .as = kind::number, .at = 222, .by = {.factor = 250},
     .unit = "MBd", .when = {.field = "rateCode", .least = 0xFF}},
    {.name = "rateSelect", .label = "Rate select", .as = kind::hexadecimal, .at = 141},
    {.name = "technology", .label = "Technology", .as = kind::choice, .at = 147, .bit = 4, .names = technologies},
    {.name = "technologyFlags", .label = "Technology has", .as = kind::flags, .at = 147, .bits = 4,
     .names = technologyFlags},
    {.name = "lengthSingleMode", .label = "Length, single mode", .as = kind::number, .at = 142, .unit = "km",
     .names = kilometreLengths},
    {.name = "lengthOm3", .label = "Length, 50 um, OM3", .as = kind::number, .at = 143, .by = {.factor = 2},
     .unit = "m", .names = twoMetreLengths},
    {.name = "lengthOm2", .label = "Length, 50 um, OM2", .as = kind::number, .at = 144, .unit = "m",
     .names = metreLengths},
    {.name = "lengthOm1", .label = "Length, 62.5 um, OM1", .as = kind::number, .at = 145, .unit = "m",
     .names = metreLengths},
    {.name = "lengthOm4", .label = "Length, 50 um, OM4", .as = kind::number, .at = 146, .by = {.factor = 2},
     .unit = "m", .names = twoMetreLengths, .when = {.field = "technology", .most = 0}},
    {.name = "lengthCable", .label = "Length of the cable", .as = kind::number, .at = 146, .unit = "m",
     .names = metreLengths, .when = {.field = "technology", .least = 1}},
    {.name = "extendedModule", .label = "InfiniBand rates", .as = kind::hexadecimal, .at = 164},
    {.name = "wavelength", .label = "Wavelength", .as = kind::number, .at = 186, .length = 2, .by = {.divisor = 20},
     .unit = "nm", .when = isOptical},
    {.name = "wavelengthTolerance", .label = "Tolerance of the wavelength", .as = kind::number, .at = 188,
     .length = 2, .by = {.divisor = 200}, .unit = "nm", .when = isOptical},
    {.name = "attenuation2G5", .label = "Attenuation at 2.5 GHz", .as = kind::number, .at = 186, .unit = "dB",
     .when = isCopper},
    {.name = "attenuation5G", .label = "Attenuation at 5.0 GHz", .as = kind::number, .at = 187, .unit = "dB",
     .when = isCopper},
    {.name = "attenuation7G", .label = "Attenuation at 7.0 GHz", .as = kind::number, .at = 188, .unit = "dB",
     .when = isCopper},
    {.name = "attenuation12G9", .label = "Attenuation at 12.9 GHz", .as = kind::number, .at = 189, .unit = "dB",
     .when = isCopper},
    {.name = "caseTemperature", .label = "Highest case temperature", .as = kind::number, .at = 190, .unit = "°C",
     .names = caseTemperatures},
    {.name = "equalisationOptions", .label = "Equalisation options", .as = kind::hexadecimal,
     .at = 193},
    {.name = "options", .label = "Options", .as = kind::flags, .at = 194, .length = 2, .names = options},
    {.name = "diagnosticType", .label = "Diagnostics", .as = kind::flags, .at = 220, .names = diagnosticTypes},
    {.name = "enhancedOptions", .label = "Enhanced options", .as = kind::hexadecimal, .at = 221},
    {.name = "vendorData", .label = "Vendor's data", .at = 224, .length = 32},
    {.name = "lowerIdentifier", .label = "Identifier of the lower page", .as = kind::choice, .at = 0,
     .names = identifiers},
    {.name = "documentRevision", .label = "Follows", .as = kind::choice, .at = 1, .names = revisions},
    {.name = "states", .label = "States", .as = kind::flags, .at = 2, .names = states},
    {.name = "lossOfSignal", .label = "Loss of signal", .as = kind::flags, .at = 3, .names = lossOfSignal},
    {.name = "faults", .label = "Faults", .as = kind::flags, .at = 4, .names = faults},
    {.name = "lossOfLock", .label = "Loss of lock", .as = kind::flags, .at = 5, .names = lossOfSignal},
    {.name = "temperatureLimits", .label = "Temperature beyond", .as = kind::flags, .at = 6, .names = moduleLimits},
    {.name = "voltageLimits", .label = "Supply voltage beyond", .as = kind::flags, .at = 7, .names = voltageLimits},
    {.name = "receivePowerLimits", .label = "Received power beyond", .as = kind::flags, .at = 9,
     .length = 2, .names = channelLimits},
    {.name = "biasLimits", .label = "Transmitter bias beyond", .as = kind::flags, .at = 11, .length = 2,
     .names = channelLimits},
    {.name = "transmitPowerLimits", .label = "Transmitted power beyond", .as = kind::flags, .at = 13,
     .length = 2, .names = channelLimits},
    {.name = "temperature", .label = "Temperature", .as = kind::number, .at = 22, .length = 2, .isSigned = true,
     .by = celsius, .unit = "°C"},
    {.name = "voltage", .label = "Supply voltage", .as = kind::number, .at = 26, .length = 2, .by = volts,
     .unit = "V"},
    {.name = "receivePower", .label = "Received power", .as = kind::block, .at = 34, .length = 8,
     .rows = powers},
    {.name = "bias", .label = "Transmitter bias", .as = kind::block, .at = 42, .length = 8, .rows = biases},
    {.name = "transmitPower", .label = "Transmitted power", .as = kind::block, .at = 50, .length = 8,
     .rows = powers},
    {.name = "transmitDisable", .label = "Transmitters disabled", .as = kind::flags, .at = 86, .bits = 4,
     .names = channels},
    {.name = "rateControl", .label = "Rate and application select", .at = 87, .length = 6},
    {.name = "powerControl", .label = "Power control", .as = kind::flags, .at = 93, .names = powerControl},
    {.name = "cdrControl", .label = "CDR switched on", .as = kind::flags, .at = 98, .names = lossOfSignal},
    {.name = "masks", .label = "Interrupt masks", .at = 100, .length = 7},
    {.name = "properties", .label = "Properties of the module", .at = 107, .length = 10},
    {.name = "page", .label = "Page", .as = kind::number, .at = 127},
};

// Both pages begin with the same identifier.
constexpr signature signatures[] = {
    {.at = 0, .least = 0x0C, .most = 0x0D},
    {.at = 128, .least = 0x0C, .most = 0x0D},
    {.at = 148, .least = 0x20, .most = 0x7E},
};
constexpr signature newerSignatures[] = {
    {.at = 0, .least = 0x11, .most = 0x11},
    {.at = 128, .least = 0x11, .most = 0x11},
    {.at = 148, .least = 0x20, .most = 0x7E},
};

} // namespace

extern constexpr format sff8636{
    .name = "sff8636",
    .title = "SFF-8636 module",
    .document = "SNIA SFF-8636 revision 2.10a",
    .least = 256,
    .length = 256,
    .signatures = signatures,
    .otherwise = newerSignatures,
    .rows = rows,
};

} // namespace kest::contents
