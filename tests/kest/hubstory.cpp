#include "tests/kest/hubstory.h"

#include <cstring>
#include <set>

namespace hubstory
{
namespace
{

/// Hashes that are fixed for the hub's functions.
const std::set<std::uint32_t> fixedHashes{0x30DD11C9, 0x0B8F87C3, 0x9C262F5A, 0x4389D153, 0xC73070B1, 0xAE369C6A,
                                          0x9E864549, 0x27E236C0, 0xFACF14B6, 0xE6AD6503, 0x34B64FEC, 0x3E54A1DF};
/// Fixed source lines of messages that have no fixed hash.
const std::set<int> fixedLines{362, 392, 701, 1125, 1207};

const std::set<std::string> hubFunctions{"\"kest_922lockDeviceAddress\"",        "\"kest_922setHubConfig\"",
                                         "\"kest_922releaseDeviceAddressLock\"", "\"kest_read922HubErrStatus\"",
                                         "\"kest_read922HubPrevCmdStatus\"",     "\"kest_reset922HubSubBus\"",
                                         "\"kest_checkAndHandle922HubErr\"",     "\"kest_922HubSupport\"",
                                         "\"kest_922HubQueryErrStatus\"",        "\"kest_handle_hub_reset\"",
                                         "\"kest_922HubHandlePrimSecErrLogs\""};

constexpr std::uint32_t entryHash = 0xCAC3D793, exitHash = 0xCDED1A85;

} // namespace

Bytes blockBytes(const Block& block)
{
    Bytes bytes(44);
    const auto put16 = [&bytes](std::size_t at, unsigned value) {
        const auto narrow = static_cast<std::uint16_t>(value);
        std::memcpy(bytes.data() + at, &narrow, 2);
    };
    const auto put32 = [&bytes](std::size_t at, std::uint32_t value) { std::memcpy(bytes.data() + at, &value, 4); };
    put16(0, 400);
    put16(2, block.address);
    put16(4, block.offsetBytes);
    put32(12, block.timeout);
    put16(20, block.writeCycle);
    put32(24, block.page);
    put32(32, block.flags);
    put32(40, 1000);
    return bytes;
}

std::string hubTraces(const Platform& platform)
{
    std::string out = "\n";
    for (const TraceRecord& record : platform.traceRecords()) {
        if (record.hash == entryHash || record.hash == exitHash || record.arguments.empty() ||
            !hubFunctions.contains(record.arguments.front())) {
            continue;
        }
        if (fixedHashes.contains(record.hash)) {
            out += line("%d 0x%08X", record.line, record.hash);
        } else if (fixedLines.contains(record.line)) {
            out += line("%d", record.line);
        }
        out += record.format;
        for (const std::string& argument : record.arguments) {
            out += " " + argument;
        }
        out += "\n";
    }
    return out;
}

Story& Story::does(const Call& call)
{
    text += call.line;
    switch (call.operation) {
    case Operation::open:
        platform.opens();
        break;
    case Operation::config:
        platform.configures();
        break;
    case Operation::readBlock:
        platform.configuresReading(call.data);
        break;
    case Operation::seek:
        platform.seeks();
        break;
    case Operation::read:
        platform.reads(call.data);
        break;
    case Operation::write:
        platform.writes();
        break;
    case Operation::close:
        platform.closes();
        break;
    }
    return *this;
}

Story& Story::does(const std::vector<Call>& calls)
{
    for (const Call& call : calls) {
        does(call);
    }
    return *this;
}

Story& Story::fails(const Call& call, int error, int entry)
{
    switch (call.operation) {
    case Operation::open:
        platform.failsOpen(error);
        break;
    case Operation::config:
    case Operation::readBlock:
        platform.failsConfig(error);
        break;
    case Operation::seek:
        platform.failsSeek(error);
        break;
    case Operation::read:
        platform.failsRead(error);
        break;
    case Operation::write:
        platform.failsWrite(error);
        break;
    case Operation::close:
        platform.failsClose(error);
        break;
    }
    platform.capturesFfdc();
    const Failure failed = failure(call.reported, error);
    codes[entry] = failed.returnCode;
    text += call.line + failureLines(entry, failed);
    return *this;
}

Story& Story::pulsesPin(unsigned expander)
{
    const Call block = setBlock(
        {.address = expander, .offsetBytes = 0, .timeout = 20000, .writeCycle = 0, .page = 0, .flags = 0xFFFF0001});
    const Call target{Operation::config, line("mern_iic_config(h1, 2, 3, 0x%X)\n", expander), configReported(3)};
    // selectors of sixteen pins, two bits each: pin 15 goes to 00 (low), then to 01 (released)
    does({block, target, writeCall({0x16}), readCall({0x55, 0x55, 0x55, 0x55}), target,
          writeCall({0x16, 0x55, 0x55, 0x55, 0x15})});
    return does({block, target, writeCall({0x16}), readCall({0x55, 0x55, 0x55, 0x15}), target,
                 writeCall({0x16, 0x55, 0x55, 0x55, 0x55})});
}

Story& Story::resetsHub(int entry, unsigned expander)
{
    says(line("entry%d.CollectTrace(\"IIC\", 4096)\n", entry));
    pulsesPin(expander);
    says(line("entry%d.CollectTrace(\"kest\", 250)\n", entry));
    return setsReturnCode(entry, 0x41000000);
}

LayerCall configReported(std::uint32_t item, std::uint32_t direction)
{
    return {12, 0x130D, 0x130E, false, item, direction, item};
}

Call readCall(const Bytes& data)
{
    const auto size = static_cast<std::uint32_t>(data.size());
    return {Operation::read, line("mern_iic_read(h1, %u)\n", size), {13, 0x130D, 0x1312, true, size, 0, size}, data};
}

Call writeCall(const Bytes& data)
{
    std::string bytes;
    for (const std::uint8_t byte : data) {
        bytes += line(" %02x", byte);
    }
    return {Operation::write,
            line("mern_iic_write(h1, %zu byte%s:", data.size(), data.size() == 1 ? "" : "s") + bytes + ")\n",
            {18, 0x130D, 0x1314, true, 0, 0, 0}};
}

Call seekCall(std::uint32_t position)
{
    // the layer takes the low 32 bits; a long of 32 bits shows the high half as negative
    const long shown = static_cast<long>(position);
    return {Operation::seek,
            line("mern_iic_seek(h1, %ld, 0)\n", shown),
            {14, 0x130D, 0x1313, false, position, position, 0}};
}

Call setBlock(const Block& block)
{
    return {
        Operation::config,
        line("mern_iic_config(h1, 2, 19, block: speed 400, address 0x%X, offset bytes %u, timeout %u, write cycle %u, "
             "page %u, flags 0x%X, busy wait 1000)\n",
             block.address, block.offsetBytes, block.timeout, block.writeCycle, block.page, block.flags),
        configReported(19)};
}

Call readBlock(const Block& block)
{
    return {Operation::readBlock, "mern_iic_config(h1, 1, 19, 44 bytes)\n", configReported(19, 1), blockBytes(block)};
}

std::vector<Call> statusRead(const Block& block, std::uint8_t status)
{
    Block plain = block;
    plain.offsetBytes = plain.writeCycle = plain.page = 0;
    return {readBlock(block), setBlock(plain), readCall({status})};
}

} // namespace hubstory
