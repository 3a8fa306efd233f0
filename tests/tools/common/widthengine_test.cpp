#include "tools/common/widthengine.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <vector>

namespace kest::tools
{
namespace
{

using Bytes = std::vector<std::uint8_t>;

/// Bytes that do not repeat. The values are those of a linear congruence of 32 bits.
Bytes random(std::size_t length, std::uint32_t state = 1)
{
    Bytes bytes;
    for (std::size_t at = 0; at < length; ++at) {
        state = state * 1664525U + 1013904223U;
        bytes.push_back(static_cast<std::uint8_t>(state >> 24));
    }
    return bytes;
}

/// What a part with two offset bytes does with one.
enum class Half {
    low,
    high,
    keep
};

/// A part that answers an engine. It rewrites the second of two offset bytes like a ferroelectric one when it takes
/// one.
struct Part {
    Bytes bytes;
    std::size_t width = 1;
    Half half = Half::low;
    std::size_t ahead = 1; ///< bytes that a dropped byte moves the counter on
    bool refusesData = false;
    std::size_t mostBytes = 8192;
    std::function<void(unsigned read, std::span<std::uint8_t> into)> noise = {};
    std::function<bool(std::uint8_t address, std::span<std::uint8_t> into)> others = {};
    unsigned reads = 0;
    std::size_t counter = 0;
    std::vector<std::array<std::uint8_t, 2>> sentTwo = {};
    std::vector<std::size_t> lengthsBehindTwo = {};

    readEnd read(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into)
    {
        ++reads;
        if (into.size() > mostBytes) {
            return readEnd::tooLong;
        }
        if (offset.size() == 2) {
            sentTwo.push_back({offset[0], offset[1]});
            lengthsBehindTwo.push_back(into.size());
        }
        if (width == 1 && offset.size() == 2 && refusesData) {
            return readEnd::refused;
        }
        seek(offset);
        for (std::uint8_t& byte : into) {
            byte = bytes[counter % bytes.size()];
            ++counter;
        }
        if (noise) {
            noise(reads, into);
        }
        return readEnd::done;
    }

    void seek(std::span<const std::uint8_t> offset)
    {
        if (width == 2 && offset.size() == 2) {
            counter = std::size_t{offset[0]} << 8 | offset[1];
        } else if (width == 2 && half == Half::high) {
            counter = std::size_t{offset[0]} << 8 | counter % 256;
        } else if (width == 2 && half == Half::low) {
            counter = offset[0];
        } else if (width == 1) {
            counter = offset[0];
            if (offset.size() == 2) {
                bytes[counter] = offset[1];
                counter += ahead;
            }
        }
        counter %= bytes.size();
    }

    widthFinding prove(std::uint32_t offset = 0, std::uint32_t length = 0)
    {
        const widthQuestion question{
            .read = [this](std::span<const std::uint8_t> sent,
                           std::span<std::uint8_t> into) { return read(sent, into); },
            .readOther = [this](std::uint8_t address,
                                std::span<std::uint8_t> into) { return others && others(address, into); },
            .address = 0xA0,
            .mostBytes = 8192,
            .offset = offset,
            .length = length};
        const widthFinding finding = widthEngine(question).run();
        EXPECT_LE(reads, 64U);
        return finding;
    }
};

TEST(WidthEngine, KnowsAPartWithOneOffsetByte)
{
    Part part{.bytes = random(256)};
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::oneByte, found.verdict) << found.seen;
    EXPECT_EQ(partEnd::at256, found.end);
    // two for 256 bytes, two for each of six places, one across the end, one at the next address; the 256 bytes again
    EXPECT_EQ(17U, found.reads);
    EXPECT_EQ(random(256), part.bytes);
}

TEST(WidthEngine, KnowsAPartThatDoesNotGoOnAfterADroppedByte)
{
    Part part{.bytes = random(256), .ahead = 0};
    EXPECT_EQ(widthVerdict::oneByte, part.prove().verdict);
}

TEST(WidthEngine, KnowsAPartThatRefusesASecondOffsetByte)
{
    Part part{.bytes = random(256), .refusesData = true};
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::oneByte, found.verdict);
    EXPECT_EQ("it refuses a second offset byte", found.seen);
    // each of two places is asked twice
    EXPECT_EQ(4U, part.sentTwo.size());
}

TEST(WidthEngine, KnowsPartsWithTwoOffsetBytes)
{
    for (const std::size_t size : {4096U, 8192U, 16384U, 32768U, 65536U}) {
        for (const Half half : {Half::low, Half::high, Half::keep}) {
            Part part{.bytes = random(size), .width = 2, .half = half, .counter = 77};
            const widthFinding found = part.prove();
            EXPECT_EQ(widthVerdict::twoBytes, found.verdict) << size << " " << static_cast<int>(half) << found.seen;
        }
    }
}

TEST(WidthEngine, SendsASecondOffsetByteOnlyAsThePartHoldsIt)
{
    const Bytes content = random(65536);
    for (const std::size_t width : {1U, 2U}) {
        Part part{.bytes = width == 1 ? random(256) : content, .width = width};
        part.prove();
        ASSERT_FALSE(part.sentTwo.empty());
        for (const auto& [first, second] : part.sentTwo) {
            EXPECT_EQ(part.bytes[first], second);
            EXPECT_NE(3, first % 4);
            EXPECT_GT(0xE0, first);
        }
    }
}

TEST(WidthEngine, AsksAtPlacesThatAreToBeWritten)
{
    Part part{.bytes = random(256)};
    part.prove(0x40, 8);
    std::vector<int> places;
    for (const auto& sent : part.sentTwo) {
        places.push_back(sent[0]);
    }
    EXPECT_EQ((std::vector<int>{0x40, 0x40, 0x41, 0x41, 0x42, 0x42, 0x44, 0x44, 0x45, 0x45, 0x46, 0x46}), places);
}

TEST(WidthEngine, SendsNoSecondOffsetByteWhereTheContentShowsNothing)
{
    Bytes pairs = random(256);
    for (std::size_t at = 0; at < pairs.size(); ++at) {
        pairs[at] = at % 2 == 0 ? 0x19 : 0x40;
    }
    Part part{.bytes = pairs};
    EXPECT_EQ(widthVerdict::notDecidable, part.prove().verdict);
    EXPECT_EQ(0U, part.sentTwo.size());
    Part blank{.bytes = Bytes(256, 0xFF)};
    EXPECT_EQ(widthVerdict::uniform, blank.prove().verdict);
    EXPECT_EQ(0U, blank.sentTwo.size());
}

TEST(WidthEngine, TakesContentThatCountsUpForUnknownWhereBothWidthsReadAlike)
{
    Bytes counting(65536);
    for (std::size_t at = 0; at < counting.size(); ++at) {
        counting[at] = static_cast<std::uint8_t>(at);
    }
    Part two{.bytes = counting, .width = 2};
    EXPECT_EQ(widthVerdict::notDecidable, two.prove().verdict);
    Part one{.bytes = Bytes(counting.begin(), counting.begin() + 256)};
    EXPECT_EQ(widthVerdict::oneByte, one.prove().verdict);
}

TEST(WidthEngine, TakesAPartForUnknownThatIsBlankWhereTwoOffsetBytesReach)
{
    Bytes sparse(32768, 0xFF);
    std::ranges::copy(random(256), sparse.begin());
    Part part{.bytes = sparse, .width = 2};
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::uniform, found.verdict);
    EXPECT_EQ(random(256), found.first);
}

TEST(WidthEngine, TakesABlankPartForUnknownAlsoWhereOnePlaceReadsAlikeInBothWidths)
{
    Bytes sparse(32768, 0xFF);
    std::ranges::copy(random(256), sparse.begin());
    // the place 0 then leads to itself
    sparse[0] = 0;
    Part part{.bytes = sparse, .width = 2};
    EXPECT_EQ(widthVerdict::uniform, part.prove().verdict);
}

TEST(WidthEngine, StopsWhenReadsBehindTwoOffsetBytesDiffer)
{
    Part part{.bytes = random(256)};
    part.noise = [](unsigned read, std::span<std::uint8_t> into) { into[5] ^= read == 4 ? 0x10 : 0; };
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::flaky, found.verdict);
    EXPECT_EQ(5U, found.reads);
}

TEST(WidthEngine, LeavesBytesOfOneWrongReadOut)
{
    Part part{.bytes = random(256)};
    part.noise = [](unsigned read, std::span<std::uint8_t> into) { into[1] ^= read == 1 ? 0xFF : 0; };
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::oneByte, found.verdict);
    // the places 0 and 1 have it in their surroundings
    EXPECT_EQ(2, part.sentTwo.front()[0]);
    EXPECT_EQ(0U, found.first.size());
}

TEST(WidthEngine, SendsNoSecondOffsetByteOverNoisyWires)
{
    Part part{.bytes = random(256)};
    part.noise = [](unsigned read, std::span<std::uint8_t> into) {
        for (std::size_t at = read % 2; at < into.size(); at += 2) {
            into[at] ^= static_cast<std::uint8_t>(1U << (at / 2 + read) % 8);
        }
    };
    EXPECT_EQ(widthVerdict::flaky, part.prove().verdict);
    EXPECT_EQ(0U, part.sentTwo.size());
    EXPECT_EQ(random(256), part.bytes);
}

TEST(WidthEngine, DoesNotKnowAPartWhoseLongReadDoesNotArriveAtTheNextPlace)
{
    Part part{.bytes = random(65536), .width = 2};
    part.noise = [](unsigned, std::span<std::uint8_t> into) {
        if (into.size() > 256) {
            std::ranges::fill(into.last(16), std::uint8_t{0x55});
        }
    };
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::notDecidable, found.verdict);
    EXPECT_EQ("behind two offset bytes it does not go on as a part with two does", found.seen);
}

/// Reads behind one offset byte go on where the last one ended.
TEST(WidthEngine, AsksAPartWhoseReadsMoveOnAtPlacesOfItsOwnChoice)
{
    Part part{.bytes = random(65536), .width = 2, .half = Half::keep, .counter = 77};
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::twoBytes, found.verdict);
    EXPECT_EQ("behind two offset bytes it gives other bytes than behind one", found.seen);
    // four for 256 bytes, two for each of six places, one long
    EXPECT_EQ(17U, found.reads);
    EXPECT_EQ(13U, part.sentTwo.size());
}

TEST(WidthEngine, DoesNotKnowAPartWhoseReadsMoveOnWhereTwoOffsetBytesReachNothing)
{
    Bytes upper(65536, 0xFF);
    std::ranges::copy(random(32768), upper.begin() + 32768);
    Part part{.bytes = upper, .width = 2, .half = Half::keep, .counter = 40000};
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::uniform, found.verdict);
    EXPECT_EQ(0U, found.first.size());
}

/// A contact that heals: what was read first says nothing of the part.
TEST(WidthEngine, TakesAPartForFlakyThatGoesOnAsBehindOneAfterReadsThatDiffer)
{
    Part part{.bytes = random(256)};
    part.noise = [](unsigned read, std::span<std::uint8_t> into) {
        if (read <= 4) {
            std::ranges::copy(random(into.size(), 100 * read), into.begin());
        }
    };
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::flaky, found.verdict);
    EXPECT_EQ("reads behind one offset byte differ, and those behind two go on as behind one", found.seen);
}

TEST(WidthEngine, MakesALongReadAlsoWhereNoTwoPlacesAreNeighbours)
{
    Part part{.bytes = random(65536), .width = 2};
    part.noise = [](unsigned read, std::span<std::uint8_t> into) {
        // 33 bytes between them are right in each read: one place
        for (const std::size_t at : {33U, 67U, 101U, 135U, 169U, 203U, 237U}) {
            into[read == 1 ? at : 0] ^= read == 1 ? 1 : 0;
        }
    };
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::twoBytes, found.verdict) << found.seen;
    const auto isLong = [](const std::size_t length) { return length > 32; };
    EXPECT_EQ(1, std::ranges::count_if(part.lengthsBehindTwo, isLong));
}

TEST(WidthEngine, LeavesAPartOpenThatCanNotShowThatItGoesOn)
{
    Part part{.bytes = random(65536), .width = 2};
    part.noise = [](unsigned read, std::span<std::uint8_t> into) {
        // the places between them are the third bytes of pages: behind the fourth ones no second byte may be sent
        for (const std::size_t at : {1U, 35U, 37U, 71U, 73U, 107U, 109U, 143U, 145U, 179U, 181U, 215U, 217U, 251U}) {
            into[read == 1 ? at : 0] ^= read == 1 ? 1 : 0;
        }
    };
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::notDecidable, found.verdict);
    EXPECT_EQ("no read can show that it goes on as a part with two offset bytes", found.seen);
}

TEST(WidthEngine, KnowsABlockOfALargerPart)
{
    const Bytes content = random(512);
    Part part{.bytes = content};
    part.others = [&content](std::uint8_t address, std::span<std::uint8_t> into) {
        std::copy_n(content.begin() + 256, into.size(), into.begin());
        return address == 0xA2;
    };
    EXPECT_EQ(partEnd::nextAddress, part.prove().end);
}

TEST(WidthEngine, DoesNotKnowTheEndOfAPartThatAnswersTheNextAddress)
{
    const Bytes content = random(256);
    Part part{.bytes = content};
    part.others = [&content](std::uint8_t, std::span<std::uint8_t> into) {
        std::copy_n(content.begin(), into.size(), into.begin());
        return true;
    };
    const widthFinding found = part.prove();
    EXPECT_EQ(widthVerdict::oneByte, found.verdict);
    EXPECT_EQ(partEnd::notKnown, found.end);
}

TEST(WidthEngine, ReadsInPiecesOnASmallAdapter)
{
    for (const std::size_t most : {128U, 32U, 16U}) {
        Part one{.bytes = random(256), .mostBytes = most};
        EXPECT_EQ(widthVerdict::oneByte, one.prove().verdict) << most;
        Part two{.bytes = random(65536), .width = 2, .mostBytes = most};
        EXPECT_EQ(widthVerdict::twoBytes, two.prove().verdict) << most;
    }
    Part tiny{.bytes = random(256), .mostBytes = 8};
    const widthFinding found = tiny.prove();
    EXPECT_EQ(widthVerdict::notDecidable, found.verdict);
    EXPECT_EQ("the adapter takes no read of 16 bytes behind an offset", found.seen);
}

} // namespace
} // namespace kest::tools
