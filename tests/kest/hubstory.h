/// Stories of a 922 hub: each step scripts the platform and notes the lines that the log must then have.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/kest/expected.h"
#include "tests/kest/results.h"
#include "tests/platform/scripted.h"

namespace hubstory
{

using namespace scripted;
using namespace expected;
using namespace results;

constexpr const char* devicePath = "sim:planar,L,922,80,3,2c0256,a0";

/// The errno of a hub that does not acknowledge.
constexpr int silent = 6;

/// errno values of the failing steps: not acknowledged (6), no data (61), timed out (62), and two others of either
/// class.
constexpr int stepErrors[] = {6, 61, 62, 5, 22};

enum class Operation {
    open,
    config,
    readBlock, ///< item 19, read
    seek,
    read,
    write,
    close
};

/// One layer call: its line, the bytes that it reads, and how its failure is reported.
struct Call {
    Operation operation;
    std::string line;
    LayerCall reported{};
    Bytes data{}; ///< of reads
};

LayerCall configReported(std::uint32_t item, std::uint32_t direction = 2);

Call readCall(const Bytes& data);

Call writeCall(const Bytes& data);

Call seekCall(std::uint32_t position);

inline Call closeCall() { return {Operation::close, "mern_iic_close(h1)\n", {19, 0x1316, 0x1317, false, 0, 0, 0}}; }

/// The fields of a block as the log shows them.
struct Block {
    unsigned address = 0x80, offsetBytes = 4, timeout = 1200, writeCycle = 15, page = 64, flags = 0xFFFD0001;
};

Call setBlock(const Block& block);

/// The block's 44 bytes as the layer returns them.
Bytes blockBytes(const Block& block);

Call readBlock(const Block& block);

/// The three calls of a status read.
std::vector<Call> statusRead(const Block& block, std::uint8_t status);

/// Traces of the hub's own functions except those of entry and exit. Hash and source line are shown where they are
/// fixed.
std::string hubTraces(const Platform& platform);

/// A test with an open device of its own.
class HubTest : public EntryTest
{
protected:
    void again()
    {
        EntryTest::again();
        handle = platform.openHandle();
    }

    mern_t handle = platform.openHandle();
};

/// Scripts the platform and collects the expected log.
class Story
{
public:
    explicit Story(Platform& thePlatform) : platform(thePlatform) {}

    Story& does(const Call& call);
    Story& does(const std::vector<Call>& calls);
    /// The call fails; its failure becomes entry `entry`, new.
    Story& fails(const Call& call, int error, int entry = 1);
    Story& says(const std::string& lines)
    {
        text += lines;
        return *this;
    }
    Story& setsReturnCode(int entry, std::uint32_t code)
    {
        codes[entry] = code;
        return says(returnCode(entry, code));
    }
    Story& notes(int entry, unsigned module, unsigned site)
    {
        return says(softwareError(entry, codes[entry], module, site));
    }
    Story& commitsSecondary(int entry) { return says(secondaryCommit(entry)); }
    /// The hub is reset through its expander, pin 15 low and then released, because `entry` says that the hub is
    /// silent.
    Story& resetsHub(int entry, unsigned expander = 0xC0);
    /// The two register changes alone.
    Story& pulsesPin(unsigned expander = 0xC0);

    Platform& platform;
    std::string text = "\n";
    std::map<int, std::uint32_t> codes; ///< return codes, by entry
};

} // namespace hubstory
