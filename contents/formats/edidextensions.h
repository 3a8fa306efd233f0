/// The extension blocks of EDID: their common shape, and what CTA-861 and DisplayID put into them.
///
/// Documents: VESA E-EDID release A, revision 2, section 2.2 (tags); CTA-861-G, section 7 (CTA data blocks); VESA
/// DisplayID 1.3 and 2.0 (section header, and the headers of its data blocks).
#pragma once

#include "contents/formats/ediddescriptors.h"
#include "contents/table.h"

namespace kest::contents::edidrows
{

constexpr std::size_t blockLength = 128;

inline constexpr named extensionTags[] = {
    {0x02, "CTA-861"}, {0x10, "video timing block"}, {0x40, "display information"}, {0x50, "localised strings"},
    {0x60, "digital packet video link"}, {0x70, "DisplayID"}, {0xF0, "block map"}, {0xFF, "of the manufacturer"},
};

inline constexpr named audioFormats[] = {
    {1, "LPCM"}, {2, "AC-3"}, {3, "MPEG-1"}, {4, "MP3"}, {5, "MPEG-2"}, {6, "AAC LC"}, {7, "DTS"}, {8, "ATRAC"},
    {9, "one bit audio"}, {10, "enhanced AC-3"}, {11, "DTS-HD"}, {12, "MAT"}, {13, "DST"}, {14, "WMA Pro"},
    {15, "extended"},
};
inline constexpr named audioRates[] = {
    {0, "32 kHz"}, {1, "44.1 kHz"}, {2, "48 kHz"}, {3, "88.2 kHz"}, {4, "96 kHz"}, {5, "176.4 kHz"}, {6, "192 kHz"},
};
inline constexpr named sampleSizes[] = {{0, "16 bits"}, {1, "20 bits"}, {2, "24 bits"}};
inline constexpr row audioDescriptor[] = {
    {.name = "format", .label = "Format", .as = kind::choice, .at = 0, .bit = 3, .bits = 4, .names = audioFormats},
    {.name = "channels", .label = "Channels, at most", .as = kind::number, .at = 0, .bits = 3, .by = {.plus = 1}},
    {.name = "rates", .label = "Sampling rates", .as = kind::flags, .at = 1, .names = audioRates},
    {.name = "sampleSizes", .label = "Sample sizes", .as = kind::flags, .at = 2, .names = sampleSizes,
     .when = {.field = "format", .most = 1}},
    {.name = "detail", .label = "Detail of the format", .as = kind::hexadecimal, .at = 2,
     .when = {.field = "format", .least = 2}},
};
inline constexpr row audioBlock[] = {
    {.name = "descriptor", .label = "Audio descriptor", .as = kind::repetition, .length = 3, .rows = audioDescriptor,
     .mustFill = true},
};

inline constexpr named speakers[] = {
    {0, "front left and right"}, {1, "low frequency"}, {2, "front centre"}, {3, "back left and right"},
    {4, "back centre"}, {5, "front left and right of centre"}, {6, "rear left and right of centre"},
    {7, "front left and right wide"},
};
inline constexpr row speakerBlock[] = {
    {.name = "speakers", .label = "Speakers", .as = kind::flags, .names = speakers},
    {.name = "more", .label = "Further speakers", .at = 1, .length = 2},
};

inline constexpr named vendors[] = {
    {0x000C03, "HDMI"}, {0xC45DD8, "HDMI Forum"}, {0x00001A, "AMD"}, {0x00D046, "Dolby"}, {0x90848B, "HDR10+"},
    {0xCA125C, "Microsoft"},
};
inline constexpr row vendorBlock[] = {
    {.name = "oui", .label = "OUI", .as = kind::hexadecimal, .length = 3, .order = byteOrder::little},
    {.name = "vendor", .label = "Vendor", .as = kind::choice, .length = 3, .order = byteOrder::little,
     .names = vendors},
    {.name = "data", .label = "Data", .at = 3, .length = 0},
};

inline constexpr named extendedTags[] = {
    {0, "video capability"}, {1, "vendor-specific video"}, {2, "VESA display device"}, {3, "VESA video timing"},
    {5, "colorimetry"}, {6, "HDR static metadata"}, {7, "HDR dynamic metadata"}, {13, "video format preference"},
    {14, "YCbCr 4:2:0 video"}, {15, "YCbCr 4:2:0 capability map"}, {17, "vendor-specific audio"},
    {18, "HDMI audio"}, {19, "room configuration"}, {20, "speaker location"}, {32, "InfoFrame"},
    {0x78, "HDMI Forum extension override"}, {0x79, "HDMI Forum sink capability"},
};
inline constexpr row extendedBlock[] = {
    {.name = "tag", .label = "Extended data block", .as = kind::choice, .names = extendedTags},
    {.name = "data", .label = "Data", .at = 1, .length = 0},
};

inline constexpr row ctaHeader[] = {
    {.name = "type", .label = "Type", .as = kind::number, .bit = 5},
    {.name = "length", .label = "Length", .as = kind::number, .bits = 5, .unit = "bytes"},
};
inline constexpr row ctaBlocks[] = {
    {.name = "audio", .label = "Audio data block", .as = kind::block, .tag = 1, .length = 0, .rows = audioBlock},
    {.name = "video", .label = "Video data block", .tag = 2, .length = 0},
    {.name = "vendor", .label = "Vendor-specific data block", .as = kind::block, .tag = 3, .length = 0,
     .rows = vendorBlock},
    {.name = "speakers", .label = "Speaker allocation data block", .as = kind::block, .tag = 4, .length = 3,
     .rows = speakerBlock},
    {.name = "transfer", .label = "VESA display transfer data block", .tag = 5, .length = 0},
    {.name = "extended", .label = "Extended data block", .as = kind::block, .tag = 7, .length = 0,
     .rows = extendedBlock},
};

// The detailed timings begin behind the header. One that begins at the last place ends at the checksum; from there up
// to the checksum, revision 3 has room for data blocks alone.
constexpr std::uint64_t headerLength = 4;
constexpr std::uint64_t lastTimingAt = blockLength - 1 - descriptorLength;
inline constexpr named noTimings[] = {{0, "none"}};
inline constexpr named ctaSupports[] = {{0, "YCbCr 4:2:2"}, {1, "YCbCr 4:4:4"}, {2, "basic audio"}, {3, "underscan"}};
inline constexpr row cta[] = {
    {.name = "revision", .label = "Revision", .as = kind::number, .at = 1},
    {.name = "timingsAt", .label = "Detailed timings begin at", .as = kind::number, .at = 2, .names = noTimings,
     .allowed = {.least = headerLength, .most = lastTimingAt}, .when = {.field = "revision", .most = 2}},
    {.name = "timingsAt", .label = "Detailed timings begin at", .as = kind::number, .at = 2, .names = noTimings,
     .allowed = {.least = headerLength, .most = blockLength - 1}, .when = {.field = "revision", .least = 3}},
    {.name = "supports", .label = "Supports", .as = kind::flags, .at = 3, .bit = 4, .names = ctaSupports,
     .when = {.field = "revision", .least = 2}},
    {.name = "nativeTimings", .label = "Native timings", .as = kind::number, .at = 3, .bits = 4,
     .when = {.field = "revision", .least = 2}},
    {.name = "block", .label = "Data blocks", .as = kind::list, .at = headerLength, .length = 0,
     .when = {.field = "revision", .least = 3},
     .also = {.field = "timingsAt", .least = headerLength + 1, .most = blockLength - 1},
     .where = {.lengthField = "timingsAt", .lengthPlus = -4},
     .entries = {.headerLength = 1, .header = ctaHeader, .typeField = "type", .lengthField = "length",
                 .known = ctaBlocks}},
    {.name = "descriptor", .label = "Descriptor", .as = kind::repetition, .length = descriptorLength,
     .when = {.field = "timingsAt", .least = headerLength, .most = lastTimingAt},
     .where = {.atField = "timingsAt"}, .rows = descriptor, .stopAtZeros = 4},
};

inline constexpr named displayId1Blocks[] = {
    {0x00, "product identification"}, {0x01, "display parameters"}, {0x02, "colour characteristics"},
    {0x03, "type I timing"}, {0x04, "type II timing"}, {0x05, "type III timing"}, {0x06, "type IV timing"},
    {0x07, "VESA timings"}, {0x08, "CTA timings"}, {0x09, "video timing range"}, {0x0A, "serial number"},
    {0x0B, "text"}, {0x0C, "display device"}, {0x0D, "interface power sequencing"},
    {0x0E, "transfer characteristics"}, {0x0F, "display interface"}, {0x10, "stereo"}, {0x11, "type V timing"},
    {0x12, "tiled display"}, {0x13, "type VI timing"}, {0x7F, "of the vendor"},
};
inline constexpr named displayId2Blocks[] = {
    {0x20, "product identification"}, {0x21, "display parameters"}, {0x22, "type VII timing"},
    {0x23, "type VIII timing"}, {0x24, "type IX timing"}, {0x25, "dynamic video timing range"},
    {0x26, "display interface features"}, {0x27, "stereo"}, {0x28, "tiled display"}, {0x29, "container"},
    {0x7E, "of the vendor"}, {0x81, "CTA data blocks"},
};
inline constexpr row displayIdHeader[] = {
    {.name = "type", .label = "Data block", .as = kind::choice, .names = displayId1Blocks,
     .when = {.field = "version", .most = 0x1F}},
    {.name = "type", .label = "Data block", .as = kind::choice, .names = displayId2Blocks,
     .when = {.field = "version", .least = 0x20}},
    {.name = "revision", .label = "Revision", .as = kind::number, .at = 1, .bits = 3},
    {.name = "length", .label = "Length", .as = kind::number, .at = 2, .unit = "bytes"},
};
// Bytes 0 behind the last data block are a fill.
inline constexpr row displayIdData[] = {
    {.name = "block", .label = "Data blocks", .as = kind::list, .length = 0,
     .entries = {.headerLength = 3, .header = displayIdHeader, .typeField = "type", .lengthField = "length",
                 .zerosEnd = true, .showHeader = true}},
};
inline constexpr row displayIdSection[] = {
    {.name = "version", .label = "Version", .as = kind::version, .at = 0},
    {.name = "dataLength", .label = "Length of the data blocks", .as = kind::number, .at = 1, .unit = "bytes"},
    {.name = "productType", .label = "Product type", .as = kind::hexadecimal, .at = 2},
    {.name = "sections", .label = "Further sections", .as = kind::number, .at = 3},
    {.as = kind::block, .at = 4, .length = 0, .where = {.lengthField = "dataLength"},
     .rows = displayIdData},
    {.name = "checksum", .label = "Checksum of the section", .as = kind::checksum, .fromEnd = 1,
     .sum = {.as = sumKind::zero8}},
};
inline constexpr row displayId[] = {
    {.name = "section", .label = "Section", .as = kind::block, .at = 1, .length = 0,
     .where = {.ownLength = true, .ownLengthAt = 1, .lengthPlus = 5}, .rows = displayIdSection},
};

// The checksum is no part of what the tags describe: only the 127 bytes before it are.
inline constexpr row extension[] = {
    {.name = "tag", .label = "Extension", .as = kind::choice, .names = extensionTags},
    {.as = kind::block, .length = blockLength - 1, .when = {.field = "tag", .least = 0x02,
     .most = 0x02},
     .rows = cta},
    {.as = kind::block, .length = blockLength - 1,
     .when = {.field = "tag", .least = 0x70, .most = 0x70}, .rows = displayId},
    {.name = "checksum", .label = "Checksum", .as = kind::checksum, .at = blockLength - 1,
     .sum = {.as = sumKind::zero8}},
};

} // namespace kest::contents::edidrows
