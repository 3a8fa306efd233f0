/// SEEPROMs in a chain that begins with an 0xF0 hub: the hub itself is the target, like a device without offsets.
#include <utility>

#include "tests/kest/seepromengine.h"

using namespace seepromengine;

namespace
{

constexpr const char* openLines = "MernInitialize(0x80000000)\nmern_iic_open(node -1, \"sim:planar\", 0x1002)\n";
constexpr const char* speedLine = "mern_iic_config(h1, 2, 2, 0x190)\n";

/// The text of a chain, and the chain as an entry shows it.
constexpr std::pair<const char*, const char*> chains[] = {
    {"sim:planar,L,F0,10,1,2C0256,A0", "0x10/0xF0/1 0xA0/0x2C0256/0"},
    {"sim:planar,L,F0,10,1,922,80,3,2C0128,A2", "0x10/0xF0/1 0x80/0x922/3 0xA2/0x2C0128/0"},
    {"sim:planar,L,F0,10,1,172,A0", "0x10/0xF0/1 0xA0/0x172/0"},
};

/// The calls have no offset and no pages, and their time-out depends on the length alone.
std::string blockLine(unsigned timeout)
{
    return line("mern_iic_config(h1, 2, 19, block: speed 400, address 0x10, offset bytes 0, timeout %u, "
                "write cycle 0, page 0, flags 0xFFFB0001, busy wait 1000)\n",
                timeout);
}

struct ReadThroughF0Hub : SeepromEngine {
    ReadThroughF0Hub() : SeepromEngine(true) {}

    static std::string lines(unsigned length, unsigned timeout)
    {
        return line("\ntavo_malloc(%u)\n", length) + openLines + blockLine(timeout) + speedLine +
               "mern_iic_config(h1, 2, 16, 0x2)\nmern_iic_seek(h1, 256, 0)\n" +
               line("mern_iic_read(h1, %u)\nmern_iic_close(h1)\n", length);
    }
};

struct WriteThroughF0Hub : SeepromEngine {
    WriteThroughF0Hub() : SeepromEngine(false) {}

    static constexpr const char* writeLines = "mern_iic_seek(h1, 256, 0)\nmern_iic_write(h1, 4 bytes: 00 01 02 03)\n";
};

TEST_F(ReadThroughF0Hub, TakesTheDirectPath)
{
    for (const auto& [text, nodes] : chains) {
        for (const auto& [size, timeout] : {std::pair{32U, 1200U}, {255U, 1200U}, {256U, 1200U}, {512U, 2400U}}) {
            SCOPED_TRACE(text);
            again();
            platform.opens().configures(3).seeks().reads(counting(size)).closes();
            transfer(text, 256, size);
            EXPECT_EQ(lines(size, timeout), platform.calls());
            EXPECT_EQ(nullptr, errl);
            EXPECT_EQ(counting(size), bytesRead());
        }
    }
}

TEST_F(ReadThroughF0Hub, LengthZeroIsTheWholeLastDevice)
{
    platform.opens().configures(3).seeks().reads(counting(16384)).closes();
    transfer(chains[1].first, 256, 0);
    EXPECT_EQ(lines(16384, 76800), platform.calls());
    EXPECT_EQ(16384U, length);
}

TEST_F(ReadThroughF0Hub, ReportsASilentHubWithTheWholeChain)
{
    for (const auto& [text, nodes] : chains) {
        SCOPED_TRACE(text);
        again();
        platform.opens().configures(3).failsRead(6).capturesFfdc().closes();
        transfer(text, 0, 32);
        EXPECT_EQ(std::string("\ntavo_malloc(32)\n") + openLines + blockLine(1200) + speedLine +
                      "mern_iic_config(h1, 2, 16, 0x2)\nmern_iic_read(h1, 32)\n" +
                      newEntry(1, {13, 0x1311, 6, 32, 0, 0, 0x55}) + returnCode(1, 0x40001311) + callout(1) +
                      capture() + "mern_iic_close(h1)\n" + finishLines(0x40001311, 751, nodes),
                  platform.calls());
        EXPECT_EQ(0U, length);
    }
}

TEST_F(WriteThroughF0Hub, TakesTheDirectPath)
{
    for (const auto& [text, nodes] : chains) {
        SCOPED_TRACE(text);
        again();
        platform.opens().configures(2).seeks().writes().closes();
        transfer(text, 256, 4);
        EXPECT_EQ(std::string("\n") + openLines + blockLine(1200) + speedLine + writeLines +
                      "usleep(15000)\nmern_iic_close(h1)\n",
                  platform.calls());
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(4U, length);
    }
}

TEST_F(WriteThroughF0Hub, ReportsASilentHubWithTheWholeChain)
{
    for (const auto& [text, nodes] : chains) {
        SCOPED_TRACE(text);
        again();
        platform.opens().configures(2).seeks().failsWrite(6).capturesFfdc().closes();
        transfer(text, 256, 4);
        EXPECT_EQ(std::string("\n") + openLines + blockLine(1200) + speedLine + writeLines +
                      newEntry(1, {18, 0x1311, 6, 0, 0, 0, 0x55}) + returnCode(1, 0x40001311) + callout(1) + capture() +
                      "mern_iic_close(h1)\n" + finishLines(0x40001311, 1441, nodes),
                  platform.calls());
    }
}

} // namespace
