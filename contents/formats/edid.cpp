/// EDID: what a display says of itself.
///
/// Document: VESA Enhanced Extended Display Identification Data Standard (E-EDID), release A, revision 1 (EDID 1.3) and
/// revision 2 (EDID 1.4).
#include "contents/formats/edidextensions.h"
#include "contents/table.h"

namespace kest::contents
{
namespace
{

using namespace std::string_view_literals;
using edidrows::blockLength;

constexpr named weeks[] = {{0, "not given"}, {0xFF, "the year is that of the model"}};
constexpr named signalTypes[] = {{0, "analogue"}, {1, "digital"}};
constexpr named signalLevels[] = {
    {0, "0.700 V, 0.300 V"}, {1, "0.714 V, 0.286 V"}, {2, "1.000 V, 0.400 V"}, {3, "0.700 V, 0.000 V"},
};
constexpr named analogueSupports[] = {
    {0, "serration of vertical sync"}, {1, "sync on green"}, {2, "composite sync"}, {3, "separate syncs"},
    {4, "blank-to-black setup"},
};
constexpr named colourDepths[] = {{0, "not given"}, {1, "6"}, {2, "8"}, {3, "10"}, {4, "12"}, {5, "14"}, {6, "16"}};
constexpr named interfaces[] = {
    {0, "not given"}, {1, "DVI"}, {2, "HDMI-a"}, {3, "HDMI-b"}, {4, "MDDI"}, {5, "DisplayPort"},
};
constexpr named oldDigital[] = {{0, "DFP 1.x"}};
constexpr named sizes[] = {{0, "not given"}};
constexpr named gammas[] = {{0xFF, "given in an extension"}};
constexpr named powerStates[] = {{0, "active off"}, {1, "suspend"}, {2, "standby"}};
constexpr named analogueColours[] = {{0, "monochrome"}, {1, "RGB"}, {2, "not RGB"}, {3, "not given"}};
constexpr named digitalColours[] = {
    {0, "RGB 4:4:4"}, {1, "RGB 4:4:4, YCbCr 4:4:4"}, {2, "RGB 4:4:4, YCbCr 4:2:2"},
    {3, "RGB 4:4:4, YCbCr 4:4:4, YCbCr 4:2:2"},
};
constexpr named oldFeatures[] = {{0, "default GTF"}, {1, "first timing is preferred"}, {2, "sRGB"}};
constexpr named features[] = {{0, "continuous frequency"}, {1, "first timing is native"}, {2, "sRGB"}};
constexpr named establishedTimings[] = {
    {23, "720x400 at 70 Hz"}, {22, "720x400 at 88 Hz"}, {21, "640x480 at 60 Hz"}, {20, "640x480 at 67 Hz"},
    {19, "640x480 at 72 Hz"}, {18, "640x480 at 75 Hz"}, {17, "800x600 at 56 Hz"}, {16, "800x600 at 60 Hz"},
    {15, "800x600 at 72 Hz"}, {14, "800x600 at 75 Hz"}, {13, "832x624 at 75 Hz"}, {12, "1024x768 at 87 Hz, interlaced"},
    {11, "1024x768 at 60 Hz"}, {10, "1024x768 at 70 Hz"}, {9, "1024x768 at 75 Hz"}, {8, "1280x1024 at 75 Hz"},
    {7, "1152x870 at 75 Hz"},
};
constexpr named aspects[] = {{0, "16:10"}, {1, "4:3"}, {2, "5:4"}, {3, "16:9"}};
constexpr named oldAspects[] = {{0, "1:1"}, {1, "4:3"}, {2, "5:4"}, {3, "16:9"}};

// Ten bits: the upper eight in a byte of their own, the lower two in one of the bytes 25 and 26.
constexpr place redX[] = {{.at = 27}};
constexpr place redY[] = {{.at = 28}};
constexpr place greenX[] = {{.at = 29}};
constexpr place greenY[] = {{.at = 30}};
constexpr place blueX[] = {{.at = 31}};
constexpr place blueY[] = {{.at = 32}};
constexpr place whiteX[] = {{.at = 33}};
constexpr place whiteY[] = {{.at = 34}};
constexpr scale chromaticity{.divisor = 1024};

constexpr row standardTimingFields[] = {
    {.name = "width", .label = "Width", .as = kind::number, .at = 0, .by = {.factor = 8, .plus = 248},
     .unit = "pixels"},
    {.name = "aspect", .label = "Aspect ratio", .as = kind::choice, .at = 1, .bit = 6, .names = aspects,
     .when = {.field = "revision", .least = 3}},
    {.name = "aspect", .label = "Aspect ratio", .as = kind::choice, .at = 1, .bit = 6, .names = oldAspects,
     .when = {.field = "revision", .most = 2}},
    {.name = "rate", .label = "Rate", .as = kind::number, .at = 1, .bits = 6, .by = {.plus = 60}, .unit = "Hz"},
};
// 01 01 stands for none; a first byte 0 has no meaning.
constexpr row standardTiming[] = {
    {.name = "first", .as = kind::number, .at = 0, .isHidden = true},
    {.name = "second", .as = kind::number, .at = 1, .isHidden = true},
    {.as = kind::block, .length = 2, .when = {.field = "first", .least = 2},
     .rows = standardTimingFields},
    {.as = kind::block, .length = 2, .when = {.field = "first", .least = 1, .most = 1},
     .also = {.field = "second", .most = 0}, .rows = standardTimingFields},
    {.as = kind::block, .length = 2, .when = {.field = "first", .least = 1, .most = 1},
     .also = {.field = "second", .least = 2}, .rows = standardTimingFields},
    {.name = "code", .label = "Code without a meaning", .length = 2, .when = {.field = "first", .most = 0}},
};

constexpr row standardTimings[] = {
    {.name = "standardTiming", .label = "Standard timing", .as = kind::repetition, .length = 2, .rows = standardTiming,
     .count = 8},
};

constexpr condition isAnalogue{.field = "signal", .most = 0};
constexpr condition isDigital{.field = "signal", .least = 1};
constexpr condition isOld{.field = "revision", .most = 3};
constexpr condition isNew{.field = "revision", .least = 4};

constexpr row oldScreen[] = {
    {.name = "width", .label = "Width of the screen", .as = kind::number, .at = 0, .unit = "cm", .names = sizes},
    {.name = "height", .label = "Height of the screen", .as = kind::number, .at = 1, .unit = "cm", .names = sizes},
};
// From EDID 1.4 on, one of both alone is no length: it gives the aspect ratio, less 0.99, in hundredths.
constexpr factor landscapeRatio[] = {{.field = "widthCode", .plus = 99}};
constexpr factor portraitRatio[] = {{.field = "heightCode", .plus = 99, .divides = true}};
constexpr condition hasWidth{.field = "widthCode", .least = 1};
constexpr condition hasNoWidth{.field = "widthCode", .most = 0};
constexpr condition hasHeight{.field = "heightCode", .least = 1};
constexpr condition hasNoHeight{.field = "heightCode", .most = 0};
constexpr row screen[] = {
    {.name = "widthCode", .as = kind::number, .at = 0, .isHidden = true},
    {.name = "heightCode", .as = kind::number, .at = 1, .isHidden = true},
    {.name = "width", .label = "Width of the screen", .as = kind::number, .at = 0, .unit = "cm", .when = hasWidth,
     .also = hasHeight},
    {.name = "height", .label = "Height of the screen", .as = kind::number, .at = 1, .unit = "cm", .when = hasWidth,
     .also = hasHeight},
    {.name = "width", .label = "Width of the screen", .as = kind::number, .at = 0, .names = sizes,
     .when = hasNoWidth, .also = hasNoHeight},
    {.name = "height", .label = "Height of the screen", .as = kind::number, .at = 1, .names = sizes,
     .when = hasNoWidth, .also = hasNoHeight},
    {.name = "screenAspect", .label = "Width by height", .as = kind::product, .length = 0, .by = {.divisor = 100},
     .factors = landscapeRatio, .decimals = 2, .when = hasWidth, .also = hasNoHeight},
    {.name = "screenAspect", .label = "Width by height", .as = kind::product, .length = 0, .by = {.factor = 100},
     .factors = portraitRatio, .decimals = 2, .when = hasNoWidth, .also = hasHeight},
};

constexpr row rows[] = {
    {.name = "header", .label = "Header", .length = 8},
    {.name = "manufacturer", .label = "Manufacturer", .as = kind::eisaId, .at = 8, .length = 2},
    {.name = "product", .label = "Product code", .as = kind::hexadecimal, .at = 10, .length = 2,
     .order = byteOrder::little},
    {.name = "serialNumber", .label = "Serial number", .as = kind::number, .at = 12, .length = 4,
     .order = byteOrder::little},
    {.name = "week", .label = "Week of manufacture", .as = kind::number, .at = 16, .names = weeks},
    {.name = "year", .label = "Year of manufacture", .as = kind::number, .at = 17, .by = {.plus = 1990}},
    {.name = "version", .label = "EDID version", .as = kind::number, .at = 18},
    {.name = "revision", .label = "EDID revision", .as = kind::number, .at = 19},
    {.name = "checksum", .label = "Checksum", .as = kind::checksum, .at = blockLength - 1,
     .sum = {.as = sumKind::zero8}},
    {.name = "signal", .label = "Video signal", .as = kind::choice, .at = 20, .bit = 7, .names = signalTypes},
    {.name = "signalLevel", .label = "Video and sync level", .as = kind::choice, .at = 20, .bit = 5, .bits = 2,
     .names = signalLevels, .when = isAnalogue},
    {.name = "analogueSupports", .label = "Supports", .as = kind::flags, .at = 20, .bits = 5,
     .names = analogueSupports, .when = isAnalogue},
    {.name = "colourDepth", .label = "Bits of a colour", .as = kind::choice, .at = 20, .bit = 4, .bits = 3,
     .names = colourDepths, .when = isDigital, .also = isNew},
    {.name = "interface", .label = "Interface", .as = kind::choice, .at = 20, .bits = 4, .names = interfaces,
     .when = isDigital, .also = isNew},
    {.name = "interface", .label = "Compatible with", .as = kind::flags, .at = 20, .bits = 7, .names = oldDigital,
     .when = isDigital, .also = isOld},
    {.as = kind::block, .at = 21, .length = 2, .when = isOld, .rows = oldScreen},
    {.as = kind::block, .at = 21, .length = 2, .when = isNew, .rows = screen},
    {.name = "gamma", .label = "Gamma", .as = kind::number, .at = 23, .by = {.divisor = 100, .plus = 1},
     .names = gammas},
    {.name = "powerStates", .label = "Power states", .as = kind::flags, .at = 24, .bit = 5, .names = powerStates},
    {.name = "colours", .label = "Colours", .as = kind::choice, .at = 24, .bit = 3, .bits = 2,
     .names = analogueColours, .when = isAnalogue},
    {.name = "colours", .label = "Colours", .as = kind::choice, .at = 24, .bit = 3, .bits = 2,
     .names = digitalColours, .when = isDigital, .also = isNew},
    {.name = "colours", .label = "Colours", .as = kind::choice, .at = 24, .bit = 3, .bits = 2,
     .names = analogueColours, .when = isDigital, .also = isOld},
    {.name = "features", .label = "Features", .as = kind::flags, .at = 24, .bits = 3, .names = oldFeatures,
     .when = isOld},
    {.name = "features", .label = "Features", .as = kind::flags, .at = 24, .bits = 3, .names = features,
     .when = isNew},
    {.name = "redX", .label = "Red x", .as = kind::number, .at = 25, .bit = 6, .bits = 2, .more = redX,
     .by = chromaticity},
    {.name = "redY", .label = "Red y", .as = kind::number, .at = 25, .bit = 4, .bits = 2, .more = redY,
     .by = chromaticity},
    {.name = "greenX", .label = "Green x", .as = kind::number, .at = 25, .bit = 2, .bits = 2, .more = greenX,
     .by = chromaticity},
    {.name = "greenY", .label = "Green y", .as = kind::number, .at = 25, .bits = 2, .more = greenY, .by = chromaticity},
    {.name = "blueX", .label = "Blue x", .as = kind::number, .at = 26, .bit = 6, .bits = 2, .more = blueX,
     .by = chromaticity},
    {.name = "blueY", .label = "Blue y", .as = kind::number, .at = 26, .bit = 4, .bits = 2, .more = blueY,
     .by = chromaticity},
    {.name = "whiteX", .label = "White x", .as = kind::number, .at = 26, .bit = 2, .bits = 2, .more = whiteX,
     .by = chromaticity},
    {.name = "whiteY", .label = "White y", .as = kind::number, .at = 26, .bits = 2, .more = whiteY, .by = chromaticity},
    {.name = "establishedTimings", .label = "Established timings", .as = kind::flags, .at = 35, .length = 3,
     .names = establishedTimings},
    {.label = "Standard timings", .as = kind::block, .at = 38, .length = 16, .rows = standardTimings},
    {.name = "descriptor", .label = "Descriptor", .as = kind::repetition, .at = 54,
     .length = edidrows::descriptorLength, .rows = edidrows::descriptor, .count = 4},
    {.name = "extensions", .label = "Extension blocks", .as = kind::number, .at = 126},
    {.name = "extension", .label = "Extension block", .as = kind::repetition, .at = blockLength,
     .length = blockLength, .rows = edidrows::extension, .countField = "extensions"},
};

constexpr signature signatures[] = {
    {.at = 0, .bytes = "\x00\xFF\xFF\xFF\xFF\xFF\xFF\x00"sv},
    {.at = 18, .least = 1, .most = 1},
};

} // namespace

extern constexpr format edid{
    .name = "edid",
    .title = "EDID",
    .document = "VESA E-EDID release A, EDID 1.3 and 1.4; CTA-861-G; DisplayID 1.3",
    .least = blockLength,
    .signatures = signatures,
    .rows = rows,
};

} // namespace kest::contents
