/// Images that are cut short or changed, as every format must take them. Nothing lies behind an image's last byte, so
/// the address sanitizer sees a read behind it.
#include <algorithm>
#include <gtest/gtest.h>
#include <set>

#include "contents/formatlist.h"
#include "contents/recognise.h"
#include "tests/contents/fruimage.h"
#include "tests/contents/images.h"
#include "tests/contents/sff8636image.h"

namespace kest::contents::test
{
namespace
{

constexpr const char* images[] = {
    "tlvinfo-4096-switch.bin",        "spd-256-ddr3-soldered.bin",     "spd-512-ddr4-M471A1G44AB0.bin",
    "spd-1024-ddr5-M425R1GB4BB0.bin", "edid-128-dell-e178wfp-vga.bin", "edid-384-acer-xv273k-dp.bin",
    "sff-512-FS-DWDM-SFP10G-80.bin",  "cal-256-scope-x24c02.bin",      "edid-128-syncmaster245b-from-bus.bin"};

/// A BeagleBone's identity: A335BNLT, version 00A5, serial number 3613BBBK0042.
Bytes beagleboneImage()
{
    Bytes image = fromHex("aa 55 33 ee 41 33 33 35 42 4e 4c 54 30 30 41 35 33 36 31 33 42 42 42 4b 30 30 34 32");
    image.resize(256, 0xFF);
    return image;
}

struct NamedImage {
    std::string name;
    Bytes bytes;
};

/// Images of all formats. Of a long one only the front is cut and changed: what comes behind is fill, or more of the
/// same.
std::vector<NamedImage> allImages()
{
    constexpr std::size_t frontBytes = 640;
    std::vector<NamedImage> all{
        {"FRU information", fullFru()}, {"QSFP28 module", longReachModule()}, {"BeagleBone", beagleboneImage()}};
    for (const char* name : images) {
        all.push_back({name, exampleImage(name)});
        all.back().bytes.resize(std::min(all.back().bytes.size(), frontBytes));
    }
    return all;
}

constexpr std::uint8_t fills[] = {0x00, 0x01, 0x55, 0xAA, 0xFF};

/// What must hold of every reading: fields lie inside the image and have names of their own, and what is damaged says
/// why.
void checkNodes(const std::vector<node>& nodes, std::size_t imageLength, std::set<std::string>& names)
{
    for (const node& each : nodes) {
        ASSERT_LE(each.offset, imageLength) << each.name;
        ASSERT_LE(each.length, imageLength - each.offset) << each.name;
        ASSERT_FALSE(each.label.empty()) << each.name;
        ASSERT_EQ(each.is == verdict::damaged, !each.problem.empty()) << each.name;
        ASSERT_TRUE(each.name.empty() || names.insert(each.name).second) << each.name << " is there twice";
        checkNodes(each.children, imageLength, names);
    }
}

reading checkReading(const format& as, const Bytes& image)
{
    const reading what = readExactly(as.name, image);
    std::set<std::string> names;
    checkNodes(what.nodes, image.size(), names);
    return what;
}

/// The formats that recognise an image; calibration data alone has none.
std::vector<const format*> formatsOf(const std::string& name, const Bytes& image)
{
    std::vector<const format*> found = recognise(image);
    EXPECT_EQ(name.starts_with("cal-"), found.empty());
    return found;
}

Bytes cutAt(const Bytes& image, std::size_t length)
{
    return {image.begin(), image.begin() + static_cast<std::ptrdiff_t>(length)};
}

TEST(HostileImages, AreReadAtEveryLength)
{
    for (const auto& [name, image] : allImages()) {
        SCOPED_TRACE(name);
        for (const format* each : formatsOf(name, image)) {
            for (std::size_t length = 0; length <= image.size(); ++length) {
                checkReading(*each, cutAt(image, length));
            }
        }
    }
}

TEST(HostileImages, AreReadAsEveryFormat)
{
    constexpr std::size_t step = 41;
    for (const auto& [name, image] : allImages()) {
        SCOPED_TRACE(name);
        for (const format* each : formats()) {
            for (std::size_t length = 0; length <= image.size(); length += step) {
                checkReading(*each, cutAt(image, length));
            }
        }
    }
}

TEST(HostileImages, AreReadWithEveryByteChanged)
{
    for (const auto& [name, image] : allImages()) {
        SCOPED_TRACE(name);
        for (const format* each : formatsOf(name, image)) {
            for (std::size_t at = 0; at < image.size(); ++at) {
                Bytes changed = image;
                changed[at] ^= 0xFF;
                checkReading(*each, changed);
            }
        }
    }
}

TEST(HostileImages, AFillIsNoFormatAndIsRead)
{
    for (const std::uint8_t fill : fills) {
        for (const std::size_t length : {1U, 128U, 256U, 512U, 1024U, 4096U}) {
            const Bytes image(length, fill);
            EXPECT_TRUE(recognise(image).empty()) << unsigned{fill} << " " << length;
            for (const format* each : formats()) {
                EXPECT_FALSE(isWhole(checkReading(*each, image)))
                    << each->name << " " << unsigned{fill} << " " << length;
            }
        }
    }
}

} // namespace
} // namespace kest::contents::test
