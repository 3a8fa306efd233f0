/// The 18-byte descriptors of EDID: detailed timings and display descriptors. The base block has four of them, a
/// CTA-861 extension any number.
///
/// Document: VESA Enhanced Extended Display Identification Data Standard (E-EDID), release A, revision 2 (EDID 1.4),
/// sections 3.10.2 and 3.10.3; the same for EDID 1.3 in release A, revision 1.
#pragma once

#include "contents/table.h"

namespace kest::contents::edidrows
{

constexpr std::size_t descriptorLength = 18;
/// A line feed ends a text, blanks follow it; some displays have NUL instead.
inline constexpr std::string_view textPadding("\n \0", 3);

inline constexpr place upperHorizontalActive[] = {{.at = 4, .bit = 4, .bits = 4}};
inline constexpr place upperHorizontalBlanking[] = {{.at = 4, .bit = 0, .bits = 4}};
inline constexpr place upperVerticalActive[] = {{.at = 7, .bit = 4, .bits = 4}};
inline constexpr place upperVerticalBlanking[] = {{.at = 7, .bit = 0, .bits = 4}};
inline constexpr place upperHorizontalFront[] = {{.at = 11, .bit = 6, .bits = 2}};
inline constexpr place upperHorizontalSync[] = {{.at = 11, .bit = 4, .bits = 2}};
inline constexpr place upperVerticalFront[] = {{.at = 11, .bit = 2, .bits = 2}};
inline constexpr place upperVerticalSync[] = {{.at = 11, .bit = 0, .bits = 2}};
inline constexpr place upperWidth[] = {{.at = 14, .bit = 4, .bits = 4}};
inline constexpr place upperHeight[] = {{.at = 14, .bit = 0, .bits = 4}};
inline constexpr place stereoTop[] = {{.at = 17, .bit = 5, .bits = 2}};
inline constexpr named scans[] = {{0, "progressive"}, {1, "interlaced"}};
// Bit 0 is the lowest, bits 5 and 6 lie above it.
inline constexpr named stereoModes[] = {
    {0, "none"}, {1, "none"}, {2, "field sequential, right at sync 1"}, {3, "2-way interleaved, right on even lines"},
    {4, "field sequential, left at sync 1"}, {5, "2-way interleaved, left on even lines"}, {6, "4-way interleaved"},
    {7, "side by side"},
};
inline constexpr named syncs[] = {
    {0, "analogue composite"}, {1, "bipolar analogue composite"}, {2, "digital composite"}, {3, "digital separate"},
};
inline constexpr named syncedColours[] = {{0, "green"}, {1, "all colours"}};
inline constexpr named polarities[] = {{0, "negative"}, {1, "positive"}};
inline constexpr named serrations[] = {{0, "without serration"}, {1, "with serration"}};

// The pixel clock, in units of 10 kHz, by all pixels of a line and all lines of a frame. The lines of an interlaced
// timing are those of a field, and each field has half a line more.
inline constexpr factor fieldRate[] = {
    {.field = "pixelClock"},
    {.field = "horizontalActive", .plusField = "horizontalBlanking", .divides = true},
    {.field = "verticalActive", .plus = 1, .plusField = "verticalBlanking", .times = 2, .divides = true},
};
inline constexpr factor verticalRate[] = {
    {.field = "pixelClock"},
    {.field = "horizontalActive", .plusField = "horizontalBlanking", .divides = true},
    {.field = "verticalActive", .plusField = "verticalBlanking", .divides = true},
};
inline constexpr row timing[] = {
    {.name = "pixelClock", .label = "Pixel clock", .as = kind::number, .at = 0, .length = 2,
     .order = byteOrder::little, .by = {.divisor = 100}, .unit = "MHz"},
    {.name = "horizontalActive", .label = "Horizontal active", .as = kind::number, .at = 2,
     .more = upperHorizontalActive, .unit = "pixels"},
    {.name = "horizontalBlanking", .label = "Horizontal blanking", .as = kind::number, .at = 3,
     .more = upperHorizontalBlanking, .unit = "pixels"},
    {.name = "verticalActive", .label = "Vertical active", .as = kind::number, .at = 5, .more = upperVerticalActive,
     .unit = "lines"},
    {.name = "verticalBlanking", .label = "Vertical blanking", .as = kind::number, .at = 6,
     .more = upperVerticalBlanking, .unit = "lines"},
    {.name = "scanCode", .as = kind::number, .at = 17, .bit = 7, .isHidden = true},
    {.name = "verticalRate", .label = "Vertical rate", .as = kind::product, .length = 0, .by = {.factor = 10000},
     .factors = verticalRate, .unit = "Hz", .decimals = 2, .when = {.field = "scanCode", .most = 0}},
    {.name = "verticalRate", .label = "Vertical rate, of fields", .as = kind::product, .length = 0,
     .by = {.factor = 20000}, .factors = fieldRate, .unit = "Hz", .decimals = 2,
     .when = {.field = "scanCode", .least = 1}},
    {.name = "horizontalFrontPorch", .label = "Horizontal front porch", .as = kind::number, .at = 8,
     .more = upperHorizontalFront, .unit = "pixels"},
    {.name = "horizontalSync", .label = "Horizontal sync pulse", .as = kind::number, .at = 9,
     .more = upperHorizontalSync, .unit = "pixels"},
    {.name = "verticalFrontPorch", .label = "Vertical front porch", .as = kind::number, .at = 10, .bit = 4,
     .bits = 4, .more = upperVerticalFront, .unit = "lines"},
    {.name = "verticalSync", .label = "Vertical sync pulse", .as = kind::number, .at = 10, .bits = 4,
     .more = upperVerticalSync, .unit = "lines"},
    {.name = "width", .label = "Width of the image", .as = kind::number, .at = 12, .more = upperWidth, .unit = "mm"},
    {.name = "height", .label = "Height of the image", .as = kind::number, .at = 13, .more = upperHeight,
     .unit = "mm"},
    {.name = "horizontalBorder", .label = "Horizontal border", .as = kind::number, .at = 15, .unit = "pixels"},
    {.name = "verticalBorder", .label = "Vertical border", .as = kind::number, .at = 16, .unit = "lines"},
    {.name = "scan", .label = "Scan", .as = kind::choice, .at = 17, .bit = 7, .names = scans},
    {.name = "stereo", .label = "Stereo", .as = kind::choice, .at = 17, .bits = 1, .more = stereoTop,
     .names = stereoModes},
    {.name = "sync", .label = "Sync", .as = kind::choice, .at = 17, .bit = 3, .bits = 2, .names = syncs},
    {.name = "serration", .label = "Composite sync", .as = kind::choice, .at = 17, .bit = 2, .bits = 1,
     .names = serrations, .when = {.field = "sync", .most = 2}},
    {.name = "verticalPolarity", .label = "Vertical sync polarity", .as = kind::choice, .at = 17, .bit = 2,
     .bits = 1, .names = polarities, .when = {.field = "sync", .least = 3}},
    {.name = "horizontalPolarity", .label = "Horizontal sync polarity", .as = kind::choice, .at = 17, .bit = 1,
     .bits = 1, .names = polarities, .when = {.field = "sync", .least = 2}},
    {.name = "analogueSync", .label = "Sync on", .as = kind::choice, .at = 17, .bit = 1, .bits = 1,
     .names = syncedColours, .when = {.field = "sync", .most = 1}},
};

inline constexpr named tags[] = {
    {0xFF, "serial number"}, {0xFE, "text"}, {0xFD, "range limits"}, {0xFC, "name"}, {0xFB, "colour points"},
    {0xFA, "standard timings"}, {0xF9, "colour management"}, {0xF8, "CVT timing codes"},
    {0xF7, "established timings III"}, {0x10, "unused"},
};
inline constexpr named timingSupports[] = {
    {0, "default GTF"}, {1, "range limits only"}, {2, "secondary GTF"}, {4, "CVT"},
};

// What range limits say of CVT; offsets count from byte 11 of the descriptor. The upper bits of byte 12 lower the
// highest pixel clock.
inline constexpr place upperPixelsMost[] = {{.at = 1, .bit = 0, .bits = 2}};
inline constexpr named pixelsMost[] = {{0, "no limit"}};
inline constexpr named cvtAspects[] = {{7, "4:3"}, {6, "16:9"}, {5, "16:10"}, {4, "5:4"}, {3, "15:9"}};
inline constexpr named preferredAspects[] = {{0, "4:3"}, {1, "16:9"}, {2, "16:10"}, {3, "5:4"}, {4, "15:9"}};
inline constexpr named blankings[] = {{0, "standard"}, {1, "reduced"}};
inline constexpr named scalings[] = {
    {3, "horizontal shrink"}, {2, "horizontal stretch"}, {1, "vertical shrink"}, {0, "vertical stretch"},
};
inline constexpr row cvtLimits[] = {
    {.name = "cvtVersion", .label = "CVT version", .as = kind::version, .at = 0},
    {.name = "pixelsMost", .label = "Active pixels of a line, at most", .as = kind::number, .at = 2,
     .more = upperPixelsMost, .by = {.factor = 8}, .unit = "pixels", .names = pixelsMost},
    {.name = "aspects", .label = "Aspect ratios", .as = kind::flags, .at = 3, .names = cvtAspects},
    {.name = "preferredAspect", .label = "Preferred aspect ratio", .as = kind::choice, .at = 4, .bit = 5,
     .names = preferredAspects},
    {.name = "blankings", .label = "Blankings", .as = kind::flags, .at = 4, .bit = 3, .bits = 2, .names = blankings},
    {.name = "scalings", .label = "Scalings", .as = kind::flags, .at = 5, .bit = 4, .names = scalings},
    {.name = "preferredRate", .label = "Preferred vertical rate", .as = kind::number, .at = 6, .unit = "Hz"},
};
inline constexpr condition isCvt{.field = "timingCode", .least = 4, .most = 4};

// EDID 1.4 adds 255 to limits that these bits name; before, the byte is 0.
inline constexpr row rangeLimits[] = {
    {.name = "verticalOffset", .as = kind::number, .at = 4, .bits = 2, .isHidden = true},
    {.name = "horizontalOffset", .as = kind::number, .at = 4, .bit = 2, .bits = 2, .isHidden = true},
    {.name = "verticalLeast", .label = "Lowest vertical rate", .as = kind::number, .at = 5, .unit = "Hz",
     .when = {.field = "verticalOffset", .most = 2}},
    {.name = "verticalLeast", .label = "Lowest vertical rate", .as = kind::number, .at = 5, .by = {.plus = 255},
     .unit = "Hz", .when = {.field = "verticalOffset", .least = 3}},
    {.name = "verticalMost", .label = "Highest vertical rate", .as = kind::number, .at = 6, .unit = "Hz",
     .when = {.field = "verticalOffset", .most = 1}},
    {.name = "verticalMost", .label = "Highest vertical rate", .as = kind::number, .at = 6, .by = {.plus = 255},
     .unit = "Hz", .when = {.field = "verticalOffset", .least = 2}},
    {.name = "horizontalLeast", .label = "Lowest horizontal rate", .as = kind::number, .at = 7, .unit = "kHz",
     .when = {.field = "horizontalOffset", .most = 2}},
    {.name = "horizontalLeast", .label = "Lowest horizontal rate", .as = kind::number, .at = 7, .by = {.plus = 255},
     .unit = "kHz", .when = {.field = "horizontalOffset", .least = 3}},
    {.name = "horizontalMost", .label = "Highest horizontal rate", .as = kind::number, .at = 8, .unit = "kHz",
     .when = {.field = "horizontalOffset", .most = 1}},
    {.name = "horizontalMost", .label = "Highest horizontal rate", .as = kind::number, .at = 8, .by = {.plus = 255},
     .unit = "kHz", .when = {.field = "horizontalOffset", .least = 2}},
    {.name = "timingCode", .as = kind::number, .at = 10, .isHidden = true},
    {.name = "pixelClockMost", .label = "Highest pixel clock", .as = kind::number, .at = 9, .by = {.factor = 10},
     .unit = "MHz", .when = {.field = "timingCode", .most = 3}},
    {.name = "pixelClockMost", .label = "Highest pixel clock", .as = kind::number, .at = 9,
     .by = {.factor = 10}, .fine = {.at = 12, .bit = 2, .bits = 6, .by = {.factor = -1, .divisor = 4}},
     .unit = "MHz", .when = isCvt},
    {.name = "pixelClockMost", .label = "Highest pixel clock", .as = kind::number, .at = 9, .by = {.factor = 10},
     .unit = "MHz", .when = {.field = "timingCode", .least = 5}},
    {.name = "timingSupport", .label = "Timing support", .as = kind::choice, .at = 10, .names = timingSupports},
    {.as = kind::block, .at = 11, .length = 7, .when = isCvt, .rows = cvtLimits},
    {.name = "timingData", .label = "Data of the timing support", .at = 11, .length = 7,
     .when = {.field = "timingCode", .most = 3}},
    {.name = "timingData", .label = "Data of the timing support", .at = 11, .length = 7,
     .when = {.field = "timingCode", .least = 5}},
};

// A timing has a pixel clock; a display descriptor has 0 there.
inline constexpr condition isDisplayDescriptor{.field = "form", .most = 0};
inline constexpr row descriptor[] = {
    {.name = "form", .as = kind::number, .length = 2, .isHidden = true},
    {.as = kind::block, .length = 0, .when = {.field = "form", .least = 1}, .rows = timing},
    {.name = "tag", .label = "Descriptor", .as = kind::choice, .at = 3, .names = tags, .when = isDisplayDescriptor},
    {.name = "serialNumber", .label = "Serial number", .as = kind::text, .at = 5, .length = 13,
     .padding = textPadding, .when = isDisplayDescriptor, .also = {.field = "tag", .least = 0xFF}},
    {.name = "text", .label = "Text", .as = kind::text, .at = 5, .length = 13, .padding = textPadding,
     .when = isDisplayDescriptor, .also = {.field = "tag", .least = 0xFE, .most = 0xFE}},
    {.as = kind::block, .length = 0, .when = isDisplayDescriptor,
     .also = {.field = "tag", .least = 0xFD, .most = 0xFD}, .rows = rangeLimits},
    {.name = "name", .label = "Name", .as = kind::text, .at = 5, .length = 13, .padding = textPadding,
     .when = isDisplayDescriptor, .also = {.field = "tag", .least = 0xFC, .most = 0xFC}},
    {.name = "data", .label = "Data", .at = 4, .length = 14, .when = isDisplayDescriptor,
     .also = {.field = "tag", .most = 0xFB}},
};

} // namespace kest::contents::edidrows
