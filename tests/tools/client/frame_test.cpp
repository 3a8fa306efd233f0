/// Frames: their bytes, and how they are put together from pieces.
#include <sstream>

#include "tests/tools/kestd_support.h"

namespace kest::test
{
namespace
{

using client::frame;
using client::frameAssembler;
using Stage = frameAssembler::stage;

std::vector<std::uint8_t> fromHex(const std::string& text)
{
    std::vector<std::uint8_t> bytes;
    std::istringstream groups(text);
    for (std::string group; groups >> group;) {
        for (std::size_t at = 0; at + 1 < group.size(); at += 2) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(group.substr(at, 2), nullptr, 16)));
        }
    }
    return bytes;
}

/// The frames in docs/message-protocol.md, from a big-endian machine.
constexpr const char* exampleRequest = "00000023 002a8001 00010000 00000000 00000000"
                                       "00000010 00000000 00000004 73696d3a 706c616e 61722c4c 2c324330 3235362c 413000";
constexpr const char* exampleReply = "00000004 002a8001 42010000 00000000 00000000 4b455354";

TEST(KestdFrame, ExamplesOfTheDocumentation)
{
    frameAssembler assembler(1000);
    const auto bytes = fromHex(exampleRequest);
    EXPECT_EQ(20u + 35, bytes.size());
    EXPECT_EQ(bytes.size(), assembler.feed(bytes));
    ASSERT_EQ(Stage::complete, assembler.state());
    const frame request = assembler.take();
    EXPECT_EQ(42, request.identifier);
    EXPECT_EQ(0x8001, request.type);
    EXPECT_EQ(0, request.flags);
    EXPECT_EQ(0u, request.returnCode);
    EXPECT_EQ(0u, request.logId);
    EXPECT_EQ(fromHex("00000010 00000000 00000004"),
              std::vector(request.payload.begin(), request.payload.begin() + 12));
    EXPECT_STREQ("sim:planar,L,2C0256,A0", reinterpret_cast<const char*>(request.payload.data() + 12));
    EXPECT_EQ(bytes, client::encodeFrame(request));

    EXPECT_EQ(24u, assembler.feed(fromHex(exampleReply)));
    const frame reply = assembler.take();
    EXPECT_EQ(42, reply.identifier);
    EXPECT_EQ(0x42, reply.flags);
    EXPECT_EQ((std::vector<std::uint8_t>{'K', 'E', 'S', 'T'}), reply.payload);
}

TEST(KestdFrame, EveryFieldHasItsPlace)
{
    const frame message{0x0102, 0x0304, 0x05, 0x06070809, 0x0A0B0C0D, {0xEE, 0xFF}};
    EXPECT_EQ(fromHex("00000002 01020304 05010000 06070809 0a0b0c0d eeff"), client::encodeFrame(message));
    // in place of a former frame, a longer one
    std::vector<std::uint8_t> bytes(100, 0x77);
    client::encodeFrame(message, bytes);
    EXPECT_EQ(fromHex("00000002 01020304 05010000 06070809 0a0b0c0d eeff"), bytes);
}

TEST(KestdFrame, CutAtEveryPairOfBytes)
{
    const auto bytes = fromHex(exampleReply);
    for (std::size_t first = 0; first <= bytes.size(); ++first) {
        for (std::size_t second = first; second <= bytes.size(); ++second) {
            frameAssembler assembler(4);
            EXPECT_EQ(first, assembler.feed({bytes.data(), first}));
            EXPECT_EQ(second - first, assembler.feed({bytes.data() + first, second - first}));
            EXPECT_EQ(bytes.size() - second, assembler.feed({bytes.data() + second, bytes.size() - second}));
            ASSERT_EQ(Stage::complete, assembler.state());
            EXPECT_EQ(bytes, client::encodeFrame(assembler.take()));
        }
    }
}

TEST(KestdFrame, TakesNothingOfTheNextFrame)
{
    auto bytes = fromHex(exampleReply);
    bytes.insert(bytes.end(), bytes.begin(), bytes.end());
    frameAssembler assembler(4);
    EXPECT_EQ(24u, assembler.feed(bytes));
    EXPECT_EQ(0u, assembler.feed({bytes.data() + 24, 24}));
    (void)assembler.take();
    EXPECT_FALSE(assembler.begun());
    EXPECT_EQ(24u, assembler.feed({bytes.data() + 24, 24}));
    EXPECT_EQ(Stage::complete, assembler.state());
}

TEST(KestdFrame, WithoutPayload)
{
    frameAssembler assembler(0);
    EXPECT_EQ(19u, assembler.feed(fromHex("00000000 00018004 00010000 00000000 000000")));
    EXPECT_EQ(Stage::incomplete, assembler.state());
    EXPECT_TRUE(assembler.begun());
    EXPECT_EQ(1u, assembler.feed(fromHex("00")));
    EXPECT_EQ(Stage::complete, assembler.state());
    EXPECT_TRUE(assembler.take().payload.empty());
}

TEST(KestdFrame, OverTheLimitIsKnownFromTheHeaderAlone)
{
    for (const char* size : {"00000005", "7fffffff", "80000000", "ffffffff"}) {
        frameAssembler assembler(4);
        EXPECT_EQ(20u, assembler.feed(fromHex(size + std::string("00078001 00010000 00000000 00000000 4b455354 4b"))));
        EXPECT_EQ(Stage::tooLong, assembler.state()) << size;
        const frame head = assembler.take();
        EXPECT_EQ(7, head.identifier);
        EXPECT_TRUE(head.payload.empty());
    }
}

TEST(KestdFrame, OtherProtocols)
{
    for (const char* bytes :
         {"47455420 2f204854 54502f31 2e310d0a 486f7374", // "GET / HTTP/1.1"
          "00000004 00018001 00000000 00000000 00000000", "00000004 00018001 00020000 00000000 00000000",
          "00000004 00018001 00010100 00000000 00000000", "00000004 00018001 00010001 00000000 00000000"}) {
        frameAssembler assembler(1000);
        (void)assembler.feed(fromHex(bytes));
        EXPECT_EQ(Stage::foreign, assembler.state()) << bytes;
    }
}

} // namespace
} // namespace kest::test
