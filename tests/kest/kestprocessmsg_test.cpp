#include "kest/message.h"

#include <cstring>
#include <string>
#include <vector>

#include "kestseeprom.h"
#include "tests/kest/edge.h"
#include "tests/kest/expected.h"
#include "tests/kest/results.h"
#include "tests/platform/scripted.h"

using namespace scripted;
using namespace expected;
using namespace results;
using namespace kest;

namespace
{

constexpr std::uint16_t readType = 0x8001, writeType = 0x8002, refusedType = 0x8003, locationType = 0x8004;

Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// Head of a read or write request.
Bytes head(std::uint32_t offset, std::uint32_t length) { return join({word(offset), word(0x4711), word(length)}); }

Bytes terminated(const std::string& location) { return join({text(location), {0}}); }

ExpectedSrc messageSrc(unsigned reason, std::uint32_t word1, std::uint32_t word2 = 0, std::uint32_t word3 = 0)
{
    return {0xFF, reason, word1, word2, word3, 0, 0x81, "kestprocessmsg"};
}

std::string refusal(const ExpectedSrc& src)
{
    return newEntry(1, src) + returnCode(1, 0x80000000u | src.reason) + callout(1);
}

struct KestProcessMsg : EntryTest {
    Message reply{"reply", 0xFFFF, 0xFFFF};

    KestProcessMsg() { kest_forgetMode(); }
    ~KestProcessMsg() override { kest_forgetMode(); }

    void again()
    {
        EntryTest::again();
        kest_forgetMode();
        reply.payload.clear();
    }

    void process(std::uint16_t type, const Bytes& payload)
    {
        Message request("request", 0x1234, type, payload);
        reply.replyFlags = 0xFF;
        errl = kestProcessMsg(nullptr, &request, &reply);
        EXPECT_EQ(0x1234, reply.identifier);
        EXPECT_EQ(type, reply.type);
        EXPECT_EQ(payload, request.payload);
    }

    /// A request that is refused without any other call.
    void refuses(std::uint16_t type, const Bytes& payload, const ExpectedSrc& src, const std::string& trace)
    {
        SCOPED_TRACE(line("type %X, %u bytes", type, static_cast<unsigned>(payload.size())));
        again();
        process(type, payload);
        EXPECT_EQ("\n" + refusal(src), platform.calls());
        EXPECT_NE(nullptr, errl);
        EXPECT_EQ(0, reply.replyFlags);
        EXPECT_TRUE(reply.payload.empty());
        EXPECT_NE(std::string::npos, platform.traces().find(trace)) << platform.traces();
    }

    Platform& inFileMode() { return platform.registryAnswers(text("FileMode")); }
};

constexpr char readsRegistry[] = "\nUtilReg::read(\"tavo/ReadMode\", 16, false, null)\n";

std::string persisted(std::uint32_t length, std::uint32_t offset)
{
    return line("tavo_read_data_persistancy(\"qorn/P3_Root\", 0, null, null, length %u, offset %u)\n", length, offset);
}

// --- types and fixed heads ---

TEST_F(KestProcessMsg, RefusesUnknownTypes)
{
    const std::vector<std::uint16_t> types{0x0000, 0x0001, 0x0004, 0x7FFF, 0x8000,
                                           0x8005, 0x8006, 0x8101, 0x9001, 0xFFFF};
    for (const std::uint16_t type : types) {
        refuses(type, join({head(0, 4), terminated("x")}), messageSrc(0x1322, 204, type),
                line("\" %%s,%%4x\", \"kestProcessMsg\", 0x%X)", type));
    }
}

TEST_F(KestProcessMsg, RefusesItsThirdTypeWhateverThePayload)
{
    for (const std::size_t size : {0u, 1u, 8u, 13u, 300u}) {
        refuses(refusedType, counting(size), messageSrc(0x13FF, 234), "\" %s\", \"kestProcessMsg\")");
    }
}

TEST_F(KestProcessMsg, RefusesPayloadsWithoutTheirFixedHead)
{
    for (const std::uint16_t type : {readType, writeType, locationType}) {
        const std::size_t needed = type == locationType ? 8 : 13;
        for (std::size_t size = 0; size < needed; ++size) {
            const auto bytes = static_cast<std::uint32_t>(size);
            refuses(type, Bytes(size), messageSrc(0x1324, type, bytes),
                    line("\" %%s,%%d\", \"kestProcessMsg\", %u)", bytes));
        }
    }
}

// --- reading ---

TEST_F(KestProcessMsg, AnswersARead)
{
    inFileMode().readsCopy(hex("de ad 00 ef"));
    process(readType, join({head(0x100, 4), terminated("sim:planar,L,2C0256,A0")}));
    EXPECT_EQ(readsRegistry + persisted(4, 256) + "reply.setData(4 bytes: de ad 00 ef)\ntavo_util_free(copy1)\n",
              platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(0x42, reply.replyFlags);
    EXPECT_EQ(hex("de ad 00 ef"), reply.payload);
}

TEST_F(KestProcessMsg, AnswersAReadOfTheHardware)
{
    platform.registryAnswers(text("HWareMode")).opens().configures(3).reads(counting(4)).closes();
    process(readType, join({head(0, 4), terminated("sim:planar,L,2C0256,A0")}));
    EXPECT_EQ(counting(4), reply.payload);
    EXPECT_EQ("\ntavo_malloc(4)\ntavo_util_free(memory1)\n", platform.log(kindMemory));
}

TEST_F(KestProcessMsg, RepliesWithTheLengthThatWasRead)
{
    inFileMode().readsCopy(hex("01 02"));
    process(readType, join({head(0, 16), terminated("x")}));
    EXPECT_EQ(hex("01 02"), reply.payload);
}

TEST_F(KestProcessMsg, PassesAFailedReadUpWithoutAnAnswer)
{
    inFileMode().readsCopy({});
    process(readType, join({head(0, 4), terminated("x")}));
    EXPECT_EQ(0x40001306u, platform.entry(1).returnCode);
    EXPECT_EQ(1u, platform.entry(1).srcs.size());
    EXPECT_EQ(0, reply.replyFlags);
    EXPECT_EQ("\n", platform.log(kindMessage));
}

TEST_F(KestProcessMsg, FreesTheBufferOfAFailedRead)
{
    platform.registryAnswers(text("HWareMode")).opens().configures(3).failsRead(6).capturesFfdc().closes();
    process(readType, join({head(0, 4), terminated("sim:planar,L,2C0256,A0")}));
    EXPECT_EQ(0x40001311u, platform.entry(1).returnCode);
    // messages carry no device number
    EXPECT_TRUE(platform.entry(1).fruCallouts.empty());
    EXPECT_EQ("\ntavo_malloc(4)\ntavo_util_free(memory1)\n", platform.log(kindMemory));
    EXPECT_EQ("\n", platform.log(kindMessage));
    EXPECT_EQ(0, reply.replyFlags);
}

TEST_F(KestProcessMsg, ReadsWithAnEmptyLocation)
{
    const Bytes payload = join({head(0, 4), {0}});
    ASSERT_EQ(13u, payload.size());
    inFileMode().readsCopy(counting(4));
    process(readType, payload);
    EXPECT_EQ(0x42, reply.replyFlags);
}

// --- location texts ---

TEST_F(KestProcessMsg, NeedsTheLocationsTerminator)
{
    for (const std::uint16_t type : {readType, writeType}) {
        for (const std::size_t n : {1u, 5u, 22u, 255u}) {
            const std::string location(n, 'x');
            const auto size = static_cast<std::uint32_t>(n + 12);
            refuses(type, join({head(0, 0), text(location)}), messageSrc(0x1325, type, size, size + 1),
                    line("\" %%s,%%d,%%d\", \"kestProcessMsg\", %u, %u)", size, size + 1));
        }
        refuses(type, join({head(0, 0), text(std::string(256, 'x'))}), messageSrc(0x1325, type, 268, 269),
                "\" %s,%d,%d\", \"kestProcessMsg\", 268, 269)");
    }
}

/// A message whose payload ends at the end of readable memory.
class MessageAtTheEdge : public Message
{
public:
    MessageAtTheEdge(std::uint16_t type, const Bytes& payload)
        : Message("request", 0x1234, type, payload), m_edge(payload.data(), payload.size())
    {
    }
    char* dataPointer() const override { return m_edge.get(); }

private:
    BytesAtTheEdge m_edge;
};

TEST_F(KestProcessMsg, ReadsAPayloadToItsEndAndNoFurther)
{
    const struct {
        std::uint16_t type;
        Bytes payload;
    } rows[] = {{readType, join({head(0, 4), terminated("x")})},
                {readType, join({head(0, 4), terminated("")})},
                {readType, join({head(0, 4), terminated(std::string(255, 'x'))})},
                {readType, join({head(0, 4), text(std::string(255, 'x'))})}, // no terminator, and no room for one
                {writeType, join({head(0, 3), terminated("x"), hex("0a 0b 0c")})},
                {writeType, join({head(0, 0), terminated("x")})},
                {locationType, Bytes(8)},
                {readType, Bytes(12)},
                {refusedType, {}}};
    for (const auto& row : rows) {
        again();
        platform.healthy();
        if (row.type == locationType) {
            platform.answersLocation("U1");
        }
        MessageAtTheEdge request(row.type, row.payload);
        errl = kestProcessMsg(nullptr, &request, &reply);
        EXPECT_EQ(row.type, reply.type);
    }
}

TEST_F(KestProcessMsg, TakesALocationUpToItsTerminator)
{
    for (const std::size_t n : {1u, 5u, 22u, 255u}) {
        again();
        const std::string location = n < 13 ? std::string(n, 'x') : "sim:" + std::string(n - 16, 'x') + ",L,2C0256,A0";
        platform.registryAnswers(text("HWareMode"));
        if (n >= 13) {
            platform.failsOpen(2);
        }
        process(readType, join({head(0, 4), terminated(location), counting(3)}));
        if (n < 13) {
            EXPECT_EQ(std::vector<Bytes>{text(location)}, platform.entry(1).details(7));
        } else {
            EXPECT_NE(std::string::npos, platform.layerCalls().find("\"sim:" + std::string(n - 16, 'x') + "\""));
        }
    }
}

TEST_F(KestProcessMsg, LooksAt256CharactersOfALocation)
{
    // 256 characters fill the field; a terminator follows in one request, more text in the other
    for (const char* tail : {"", "A"}) {
        again();
        const std::string path = "sim:" + std::string(240, 'x');
        const std::string location = path + ",L,2C0256,A0";
        ASSERT_EQ(256u, location.size());
        platform.registryAnswers(text("HWareMode")).failsOpen(2);
        process(readType, join({head(0, 4), terminated(location + tail)}));
        EXPECT_NE(std::string::npos, platform.layerCalls().find("\"" + path + "\"")) << platform.layerCalls();
        EXPECT_NE(std::string::npos, platform.traces().find("\"" + location + "\", 0x0, 0x4, 0x4, 0x0)"));
    }
}

TEST_F(KestProcessMsg, CountsTheDataOfALongLocationFromItsEnd)
{
    // after 256 characters one byte is skipped as the terminator
    inFileMode().readsCopy({0}).writesCopy();
    process(writeType, join({head(0, 2), text(std::string(256, 'x')), hex("99 01 02")}));
    EXPECT_EQ(nullptr, errl);
    EXPECT_NE(std::string::npos, platform.calls().find("2 bytes: 01 02, offset 0)"));
    refuses(writeType, join({head(0, 2), text(std::string(256, 'x')), hex("99 01")}),
            messageSrc(0x1326, writeType, 270, 271), "270, 271)");
}

// --- writing ---

TEST_F(KestProcessMsg, AnswersAWrite)
{
    inFileMode().readsCopy({0}).writesCopy();
    process(writeType, join({head(0x20, 3), terminated("loc"), hex("0a 0b 0c")}));
    EXPECT_EQ("\ntavo_malloc(3)\n" + std::string(readsRegistry + 1) + persisted(1, 0) +
                  "tavo_util_free(copy1)\n"
                  "tavo_write_data_persistancy(\"qorn/P3_Root\", 0, null, 3 bytes: 0a 0b 0c, offset 32)\n"
                  "tavo_util_free(memory1)\n",
              platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(0x41, reply.replyFlags);
    EXPECT_TRUE(reply.payload.empty());
}

TEST_F(KestProcessMsg, AnswersAFailedWriteWithTheSameFlags)
{
    inFileMode().readsCopy({0}).failsCopyWrite();
    process(writeType, join({head(0x20, 3), terminated("loc"), hex("0a 0b 0c")}));
    EXPECT_EQ(0x80001308u, platform.entry(1).returnCode);
    EXPECT_EQ(0x41, reply.replyFlags);
    EXPECT_EQ("\ntavo_malloc(3)\ntavo_util_free(copy1)\ntavo_util_free(memory1)\n", platform.log(kindMemory));
}

TEST_F(KestProcessMsg, NeedsAllTheDataOfAWrite)
{
    for (const std::uint32_t length : {1u, 2u, 100u}) {
        const Bytes whole = join({head(0, length), terminated("loc"), counting(length)});
        refuses(writeType, Bytes(whole.begin(), whole.end() - 1),
                messageSrc(0x1326, writeType, length + 15, length + 16),
                line("\" %%s,%%d,%%d\", \"kestProcessMsg\", %u, %u)", length + 15, length + 16));
        again();
        inFileMode().readsCopy({0}).writesCopy();
        // more than enough
        process(writeType, join({whole, counting(5)}));
        EXPECT_EQ(nullptr, errl);
        EXPECT_NE(std::string::npos, platform.calls().find(line("null, %u byte", length)));
    }
}

TEST_F(KestProcessMsg, RefusesLengthsThatWrap)
{
    // with location "loc" 16 bytes precede the data; the low 32 bits are reported
    const struct {
        std::uint32_t length, reported;
    } rows[] = {{0xFFFFFFFF, 0x0000000F}, {0xFFFFFFF3, 0x00000003}, {0xFFFFFFF0, 0x00000000},
                {0xFFFFFFEF, 0xFFFFFFFF}, {0x80000000, 0x80000010}, {0x7FFFFFFF, 0x8000000F}};
    for (const auto& row : rows) {
        refuses(writeType, join({head(0, row.length), terminated("loc"), counting(4)}),
                messageSrc(0x1326, writeType, 20, row.reported), "\" %s,%d,%d\", \"kestProcessMsg\", 20, ");
    }
}

TEST_F(KestProcessMsg, WritesNothingWithABufferOfNothing)
{
    inFileMode().readsCopy({0}).writesCopy();
    process(writeType, join({head(0, 0), terminated("loc")}));
    EXPECT_EQ("\ntavo_malloc(0)\n" + std::string(readsRegistry + 1) + persisted(1, 0) +
                  "tavo_util_free(copy1)\n"
                  "tavo_write_data_persistancy(\"qorn/P3_Root\", 0, null, 0 bytes, offset 0)\n"
                  "tavo_util_free(memory1)\n",
              platform.calls());
    EXPECT_EQ(0x41, reply.replyFlags);
}

TEST_F(KestProcessMsg, WithoutMemoryWritesNothing)
{
    platform.failMalloc();
    process(writeType, join({head(0, 3), terminated("loc"), counting(3)}));
    EXPECT_EQ("\ntavo_malloc(3)\n" + refusal(messageSrc(0x132B, 3)), platform.calls());
    EXPECT_NE(std::string::npos, platform.traces().find("\" %s,%x\", \"kestProcessMsg\", 0x3)"));
    EXPECT_EQ(0, reply.replyFlags);
}

// --- location of a device ---

TEST_F(KestProcessMsg, AnswersALocation)
{
    platform.answersLocation("sim:planar,L,2C0256,A0");
    process(locationType, join({word(17), word(2), counting(5)}));
    EXPECT_EQ("\nTAVO_get_dev_addr_string(17, position 2, false)\n"
              "reply.setData(23 bytes: 73 69 6d 3a 70 6c 61 6e 61 72 2c 4c 2c 32 43 30 32 35 36 2c 41 30 00)\n"
              "tavo_util_free(location1)\n",
              platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(0x42, reply.replyFlags);
    EXPECT_EQ(terminated("sim:planar,L,2C0256,A0"), reply.payload);
}

TEST_F(KestProcessMsg, AnswersAnEmptyLocationWithItsTerminator)
{
    platform.answersLocation("");
    process(locationType, join({word(17), word(0)}));
    EXPECT_EQ(Bytes{0}, reply.payload);
}

TEST_F(KestProcessMsg, AddsToTheEntryOfADeviceWithoutLocation)
{
    platform.failsLocation();
    process(locationType, join({word(0xABCDEF01), word(0x80000002)}));
    EXPECT_EQ("\nTAVO_get_dev_addr_string(2882400001, position 2147483650, false)\n" +
                  addedSrc(1, messageSrc(0x1327, 0xABCDEF01, 0x80000002)) + returnCode(1, 0x80001327) + callout(1),
              platform.calls());
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(0, reply.replyFlags);
    EXPECT_NE(std::string::npos, platform.traces().find("\" %s,%X,%X\", \"kestProcessMsg\", 0xABCDEF01, 0x80000002)"));
}

TEST_F(KestProcessMsg, ReportsAReplyThatCannotHoldTheData)
{
    reply.refusesData = true;
    inFileMode().readsCopy(counting(4));
    process(readType, join({head(0, 4), terminated("x")}));
    EXPECT_EQ((Src{.module = 0xFF, .reason = 0x132B, .word1 = 4, .subsystem = 0x81}), platform.entry(1).srcs.at(0));
    EXPECT_EQ(0x8000132Bu, platform.entry(1).returnCode);
    EXPECT_EQ(0, reply.replyFlags);
    again();
    platform.answersLocation("abc");
    process(locationType, join({word(1), word(0)}));
    EXPECT_EQ((Src{.module = 0xFF, .reason = 0x132B, .word1 = 4, .subsystem = 0x81}), platform.entry(1).srcs.at(0));
    EXPECT_EQ(0, reply.replyFlags);
}

// --- traces ---

/// A binary record's header: count, tag, hash and line.
Bytes headerOf(std::uint16_t count, std::uint32_t lineNumber)
{
    const std::uint16_t tag = 0x4644;
    Bytes header(4);
    std::memcpy(header.data(), &count, 2);
    std::memcpy(header.data() + 2, &tag, 2);
    return join({header, word(0x080C87FA), word(lineNumber)});
}

TEST_F(KestProcessMsg, TracesTheHeadsOfRequestAndReply)
{
    for (const std::size_t size : {0u, 1u, 127u, 128u, 129u, 4000u}) {
        SCOPED_TRACE(size);
        again();
        const Bytes payload = counting(size, 3);
        process(refusedType, payload);
        std::vector<TraceRecord> binary, heads;
        for (const TraceRecord& record : platform.traceRecords()) {
            if (record.binary) {
                binary.push_back(record);
            } else if (record.format == " %s,%4x,%4x,%d") {
                heads.push_back(record);
            }
        }
        ASSERT_EQ(2u, binary.size());
        ASSERT_EQ(2u, heads.size());
        EXPECT_EQ((std::vector<std::string>{"\"kestProcessMsg\"", "0x1234", "0x8003", std::to_string(size)}),
                  heads[0].arguments);
        EXPECT_EQ((std::vector<std::string>{"\"kestProcessMsg\"", "0x1234", "0x8003", "0"}), heads[1].arguments);
        const std::size_t traced = size < 128 ? size : 128;
        EXPECT_EQ(Bytes(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(traced)), binary[0].data);
        EXPECT_EQ(headerOf(static_cast<std::uint16_t>(traced), static_cast<std::uint32_t>(binary[0].line)),
                  binary[0].header);
        EXPECT_TRUE(binary[1].data.empty());
        // each trace point has its own line
        EXPECT_NE(binary[0].line, binary[1].line);
    }
}

TEST_F(KestProcessMsg, TracesInOrder)
{
    platform.answersLocation("abc");
    process(locationType, join({word(1), word(0)}));
    const std::vector<std::string> lines = platform.lines();
    std::vector<std::string> kinds;
    for (const std::string& line : lines) {
        if (line.starts_with("trace2")) {
            kinds.emplace_back("binary");
        } else if (line.find("%4x,%4x,%d") != std::string::npos) {
            kinds.emplace_back("head");
        } else if (line.starts_with("trace")) {
            kinds.emplace_back("scope");
        } else {
            kinds.push_back(line.substr(0, line.find('(')));
        }
    }
    EXPECT_EQ((std::vector<std::string>{"scope", "head", "binary", "TAVO_get_dev_addr_string", "reply.setData", "head",
                                        "binary", "tavo_util_free", "scope"}),
              kinds);
}

TEST_F(KestProcessMsg, TracesTheFirstBytesOfTheReply)
{
    inFileMode().readsCopy(counting(200));
    process(readType, join({head(0, 200), terminated("x")}));
    const TraceRecord* last = nullptr;
    for (const TraceRecord& record : platform.traceRecords()) {
        last = record.binary ? &record : last;
    }
    ASSERT_NE(nullptr, last);
    EXPECT_EQ(counting(128), last->data);
    EXPECT_EQ(headerOf(128, static_cast<std::uint32_t>(last->line)), last->header);
}

TEST_F(KestProcessMsg, ReleasesEverythingWhateverFails)
{
    const std::vector<std::pair<std::uint16_t, Bytes>> requests{
        {readType, join({head(4, 8), terminated("sim:planar,L,2C0256,A0")})},
        {writeType, join({head(4, 8), terminated("sim:planar,L,2C0256,A0"), counting(8)})},
        {locationType, join({word(1), word(0)})}};
    for (const auto& [type, payload] : requests) {
        for (int failing = 1;; ++failing) {
            again();
            platform.healthy().failCall(failing, 5, false, kindLayer | kindService | kindRegistry | kindMemory);
            StandardError quiet;
            process(type, payload);
            const bool reported = errl != nullptr || platform.commits() > 0 || !quiet.text().empty();
            if (!platform.faultWasMet()) {
                break;
            }
            EXPECT_TRUE(reported) << platform.failedCall();
            delete errl;
            errl = nullptr;
            EXPECT_EQ(0, platform.openHandles() + platform.liveBuffers() + platform.liveEntries())
                << platform.failedCall();
        }
    }
}

} // namespace
