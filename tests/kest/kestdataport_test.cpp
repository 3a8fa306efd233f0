/// The data port's functions: what they parse, check and serve, and what they pass on.
#include "kestdataport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>

#include "kest/dataport.h"
#include "tests/platform/scripted.h"

using namespace scripted;
using namespace kest;

namespace
{

class DataPort : public PlatformTest
{
protected:
    static bool failed(ErrlEntry* entry)
    {
        const std::unique_ptr<ErrlEntry> owned{entry};
        return owned != nullptr;
    }

    static ErrlEntry* config(const std::string& text, std::uint32_t what, unsigned value = 0,
                             const kest_attributeValue* attributes = nullptr)
    {
        return KEST_dpConfig(text.c_str(), static_cast<kest_dpConfig>(what), value, attributes);
    }
    static ErrlEntry* write(const std::string& text, const kest_attributeValue* attributes = nullptr)
    {
        return KEST_dpWrite(text.c_str(), KEST_DP_SELECT_11, 1, 0, attributes, 77);
    }
    ErrlEntry* read(const std::string& text, const kest_attributeValue* attributes = nullptr)
    {
        return KEST_dpRead(text.c_str(), 0xFFFF, &value, attributes, 77);
    }
    ErrlEntry* resetPin(const std::string& text)
    {
        return kest_dp_922HUB_reset(text.c_str(), hubHandle, KEST_DP_SELECT_00, 0x8000, 0);
    }

    /// One of the four functions, by number.
    struct Function {
        const char* name;
        std::uint8_t module;
        std::function<ErrlEntry*(const std::string&)> call;
    };
    std::vector<Function> functions()
    {
        return {{"KEST_dpRead", 2, [this](const std::string& text) { return read(text); }},
                {"KEST_dpWrite", 3, [](const std::string& text) { return write(text); }},
                {"KEST_dpConfig", 4, [](const std::string& text) { return config(text, 6); }},
                {"kest_dp_922HUB_reset", 34, [this](const std::string& text) { return resetPin(text); }}};
    }

    /// Traces of one function, without those of its entry and exit.
    std::vector<TraceRecord> failureTraces(const std::string& name) const
    {
        std::vector<TraceRecord> own;
        for (const TraceRecord& record : platform.traceRecords()) {
            if (record.arguments.at(0) == '"' + name + '"') {
                own.push_back(record);
            }
        }
        EXPECT_LE(2U, own.size()) << "entry and exit";
        if (own.size() < 2) {
            return {};
        }
        return {own.begin() + 1, own.end() - 1};
    }

    void restart()
    {
        platform.reset();
        hubHandle = platform.openHandle();
        value = 0xCAFE;
    }

    unsigned value = 0xCAFE;
    // h1
    mern_t hubHandle = platform.openHandle();
};

TEST_F(DataPort, EachFunctionServesItsTypesAndIsSilentOnOthers)
{
    const struct {
        const char* type;
        // first register byte of config 0; null when the bus is not used
        const char* direction;
        // config 6, which no LED driver has
        bool read, write, config;
    } rows[] = {
        {"75", nullptr, true, false, false},      {"92", nullptr, true, false, false},
        {"9551", nullptr, true, true, true},      {"9552", nullptr, true, true, true},
        {"9554", "03", true, true, true},         {"9555", "06", true, true, true},
        {"D10", nullptr, false, false, false},    {"172", nullptr, false, false, false},
        {"1C0002", nullptr, false, false, false}, {"2C0032", nullptr, false, false, false},
        {"2C0064", nullptr, false, false, false}, {"2C0128", nullptr, false, false, false},
        {"2C0256", nullptr, false, false, false}, {"2C0512", nullptr, false, false, false},
    };
    for (const auto& row : rows) {
        const std::string text = "/dev/i2c-1,L," + std::string(row.type) + ",C0";
        SCOPED_TRACE(text);
        restart();
        platform.healthy();
        EXPECT_FALSE(failed(read(text)));
        EXPECT_EQ(row.read, platform.layerCalls() != "\n");
        EXPECT_EQ(row.read, value != 0xCAFE) << "not changed when it is not served";

        restart();
        platform.healthy();
        EXPECT_FALSE(failed(write(text)));
        EXPECT_EQ(row.write, platform.layerCalls() != "\n");

        restart();
        platform.healthy();
        const bool expander = row.direction != nullptr;
        EXPECT_EQ(row.config && !expander, failed(config(text, 6))) << "no such register on an LED driver";
        EXPECT_EQ(row.config, platform.layerCalls() != "\n");

        restart();
        platform.healthy();
        EXPECT_FALSE(failed(config(text, 0)));
        EXPECT_EQ(expander ? hex(row.direction) : Bytes{},
                  platform.written().empty() ? Bytes{} : platform.written()[0]);
    }
}

TEST_F(DataPort, ConfigGoesToDirectionsUpTo1AndToRawRegistersAbove)
{
    const struct {
        std::vector<Bytes> written;
        std::uint32_t config;
        std::uint16_t reason;
    } rows[] = {{{hex("06"), hex("06 FF 5A")}, 0, 0},
                {{hex("06"), hex("06 00 5A")}, 1, 0},
                {{}, 2, 0x132D},
                {{}, 5, 0x132D},
                {{hex("04 FF")}, 6, 0},
                {{hex("05 FF")}, 7, 0},
                {{}, 8, 0x132D},
                {{}, 0x80000000, 0x132D},
                {{}, 0xFFFFFFFF, 0x132D}};
    for (const auto& row : rows) {
        restart();
        platform.healthy();
        const std::unique_ptr<ErrlEntry> entry{config("/dev/i2c-1,L,9555,40", row.config, 0xFF)};
        EXPECT_EQ(row.written, platform.written()) << row.config;
        EXPECT_EQ(row.reason, entry ? platform.entry(entry.get()).srcs.at(0).reason : 0) << row.config;
        EXPECT_EQ(0, platform.openHandles());
    }
}

TEST_F(DataPort, WriteHandsOperationBitsAndMaskOn)
{
    // the outputs read 5A 5A
    platform.healthy();
    EXPECT_FALSE(failed(KEST_dpWrite("/dev/i2c-1,L,9555,40", KEST_DP_COPY, 0x1234, 0xFF00, nullptr, 1)));
    EXPECT_EQ((std::vector<Bytes>{hex("02"), hex("02 5A 12")}), platform.written());
}

TEST_F(DataPort, ReadHandsTheMaskOn)
{
    platform.healthy();
    EXPECT_FALSE(failed(KEST_dpRead("/dev/i2c-1,L,9555,40", 0x0FF0, &value, nullptr, 1)));
    EXPECT_EQ(0x0A50U, value);
}

TEST_F(DataPort, ServesTheDeviceBehindAHubByTheLastNodesType)
{
    platform.healthy();
    EXPECT_FALSE(failed(read("/dev/i2c-1,3,922,80,5,9554,C2")));
    EXPECT_EQ(0x5AU, value);
    EXPECT_NE(std::string::npos, platform.layerCalls().find("mern_iic_open(node 3, "));
    EXPECT_NE(std::string::npos, platform.layerCalls().find("address 0x80, offset bytes 0, timeout 1200"));
    EXPECT_NE(std::string::npos, platform.layerCalls().find("17, kind 2, address 0xC2, timeout 500, big-endian"));
    EXPECT_NE(std::string::npos, platform.layerCalls().find("(h2, 2, 3, 0xC2)"));
}

TEST_F(DataPort, TakesTheCallersAttributesOrTheDefaults)
{
    const std::array<kest_attributeValue, 6> own{100, 1, 15, 1, 2, 3};
    const std::array<kest_attributeValue, 6> defaults{400, 1, 15, 1, 2, 1};
    const std::function<ErrlEntry*(const kest_attributeValue*)> calls[] = {
        [this](const kest_attributeValue* attributes) { return read("/dev/i2c-1,L,75,90", attributes); },
        [](const kest_attributeValue* attributes) { return write("/dev/i2c-1,L,9551,C0", attributes); },
        [](const kest_attributeValue* attributes) { return config("/dev/i2c-1,L,9554,40", 0, 0, attributes); }};
    for (const auto& call : calls) {
        std::string logs[3];
        for (int i = 0; i < 3; ++i) {
            restart();
            platform.healthy();
            EXPECT_FALSE(failed(call(i == 0 ? nullptr : i == 1 ? defaults.data() : own.data())));
            logs[i] = platform.layerCalls();
        }
        EXPECT_EQ(logs[1], logs[0]);
        EXPECT_NE(std::string::npos, logs[0].find("(h2, 2, 2, 0x190)"));
        EXPECT_NE(std::string::npos, logs[0].find("0001, busy wait"));
        EXPECT_NE(std::string::npos, logs[2].find("(h2, 2, 2, 0x64)"));
        EXPECT_NE(std::string::npos, logs[2].find("0002, busy wait"));
    }
}

// --- texts that cannot be converted ---

TEST_F(DataPort, TextThatCannotBeConvertedIsReportedWithTheTextAttached)
{
    for (const Function& function : functions()) {
        restart();
        const std::unique_ptr<ErrlEntry> entry{function.call("a,b,123,5")};
        ASSERT_NE(nullptr, entry) << function.name;
        EXPECT_EQ("\n", platform.layerCalls());
        EXPECT_EQ(0xCAFEU, value);
        const EntryRecord& record = platform.entry(1);
        EXPECT_EQ((std::vector<Src>{{.module = function.module, .reason = 0x1315}}), record.srcs);
        EXPECT_EQ(0x80001315U, record.returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
        EXPECT_EQ((std::vector<Bytes>{text("a,b,123,5")}), record.details(7));
        EXPECT_EQ((std::vector<Bytes>{text("kestdataport")}), record.details(2));
        EXPECT_EQ(2U, record.userDetails.size());
        EXPECT_TRUE(record.softwareErrors.empty());
        EXPECT_TRUE(record.commits.empty());
        const auto traces = failureTraces(function.name);
        ASSERT_EQ(1U, traces.size());
        EXPECT_EQ(" %s,%s", traces[0].format);
        // up to the last token read
        EXPECT_EQ("\"a,b,123\"", traces[0].arguments.at(1));
    }
}

TEST_F(DataPort, EveryMalformedTextIsRefused)
{
    for (const char* malformed : {"", ",", "a", "a,b", "a,b,", "a,b,9551", "a,b,922,80", "a,b,F0,80", "a,b,9553,C0",
                                  "a,b,nonsense,C0", "a,b,9552,C0,9552", "a,b,0,0"}) {
        for (const Function& function : functions()) {
            restart();
            const std::unique_ptr<ErrlEntry> entry{function.call(malformed)};
            ASSERT_NE(nullptr, entry) << function.name << ": " << malformed;
            EXPECT_EQ(0x80001315U, platform.entry(1).returnCode) << function.name << ": " << malformed;
            EXPECT_EQ("\n", platform.layerCalls());
        }
    }
}

TEST_F(DataPort, NullTextIsRefusedLikeOneThatCannotBeConverted)
{
    const std::unique_ptr<ErrlEntry> entries[] = {
        std::unique_ptr<ErrlEntry>{KEST_dpRead(nullptr, 0, &value, nullptr, 0)},
        std::unique_ptr<ErrlEntry>{KEST_dpWrite(nullptr, KEST_DP_SELECT_00, 0, 0, nullptr, 0)},
        std::unique_ptr<ErrlEntry>{KEST_dpConfig(nullptr, KEST_DP_CONFIG_INPUT, 0, nullptr)}};
    for (const auto& entry : entries) {
        ASSERT_NE(nullptr, entry);
        EXPECT_EQ(0x80001315U, platform.entry(entry.get()).returnCode);
        EXPECT_TRUE(platform.entry(entry.get()).details(7).empty());
    }
    EXPECT_EQ("\n", platform.layerCalls());
}

// --- chains that fail their check ---

/// What every function reports about `text`, whose chain fails its check.
void expectChainReported(const EntryRecord& record, std::size_t index, std::uint8_t module, std::uint32_t code)
{
    ASSERT_LT(index, record.srcs.size());
    EXPECT_EQ((Src{.module = module, .reason = 0x1302, .word1 = code}), record.srcs[index]);
    EXPECT_EQ(0x80001302U, record.returnCode);
    EXPECT_EQ(1U, record.details(1).size());
}

TEST_F(DataPort, ReadAndWriteLeaveADeviceAloneWhoseChainIsNotValid)
{
    const struct {
        const char* text;
        std::uint32_t code;
        // as the log shows it
        const char* list;
    } rows[] = {
        {"/dev/i2c-1,L,9551,C0,9552,C2", 0xAC0005, "list 0xC0/0x9551/0 0xC2/0x9552/0"},
        {"/dev/i2c-1,L,9551,C0,922,80,1,9552,C2", 0xAC0004, "list 0xC0/0x9551/0 0x80/0x922/1 0xC2/0x9552/0"},
        {"/dev/i2c-1,L,922,80,1,922,82,2,9552,C2", 0xAC0006, "list 0x80/0x922/1 0x82/0x922/2 0xC2/0x9552/0"},
        {"/dev/i2c-1,L,922,80,1", 0xAC0007, "list 0x80/0x922/1"},
        {"/dev/i2c-1,L,F0,10,1,922,80,1,922,80,1,9552,C2", 0xAC0002,
         "list 0x10/0xF0/1 0x80/0x922/1 0x80/0x922/1 0xC2/0x9552/0"},
    };
    for (const auto& row : rows) {
        for (const Function& function : functions()) {
            if (function.module != 2 && function.module != 3) {
                continue;
            }
            SCOPED_TRACE(std::string(function.name) + " " + row.text);
            restart();
            const std::unique_ptr<ErrlEntry> entry{function.call(row.text)};
            ASSERT_NE(nullptr, entry);
            EXPECT_EQ("\n", platform.layerCalls());
            EXPECT_EQ(0xCAFEU, value);
            const EntryRecord& record = platform.entry(1);
            EXPECT_EQ(1U, record.srcs.size());
            expectChainReported(record, 0, function.module, row.code);
            EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
            EXPECT_NE(std::string::npos,
                      platform.calls().find("entry1.addUsrDtls(" + std::string(row.list) + ", 0x1300, 1, 1)"))
                << platform.calls();
            const auto traces = failureTraces(function.name);
            ASSERT_EQ(1U, traces.size());
            EXPECT_EQ(" %s", traces[0].format);
        }
    }
}

TEST_F(DataPort, ConfigServesAChainThatIsNotValidAndReportsIt)
{
    platform.healthy();
    const std::unique_ptr<ErrlEntry> entry{config("/dev/i2c-1,L,9551,C0,9555,C2", 6, 0x55)};
    ASSERT_NE(nullptr, entry);
    expectChainReported(platform.entry(1), 0, 4, 0xAC0005);
    EXPECT_EQ((std::vector<Bytes>{hex("04 55")}), platform.written());
    // the type is the last node's, the device the first's
    EXPECT_NE(std::string::npos, platform.layerCalls().find("(h2, 2, 3, 0xC0)"));
    EXPECT_EQ(0, platform.openHandles());
}

TEST_F(DataPort, ConfigOfAChainThatEndsInAHubIsNotServed)
{
    const std::unique_ptr<ErrlEntry> entry{config("/dev/i2c-1,L,922,80,1", 0, 0)};
    ASSERT_NE(nullptr, entry);
    expectChainReported(platform.entry(1), 0, 4, 0xAC0007);
    EXPECT_EQ("\n", platform.layerCalls());
}

TEST_F(DataPort, ConfigPutsTheChainsFaultBehindTheRoutinesFailure)
{
    platform.opens().failsConfig(EIO).capturesFfdc().closes();
    const std::unique_ptr<ErrlEntry> entry{config("/dev/i2c-1,L,9551,C0,9555,C2", 6, 0x55)};
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(1, platform.entryCount());
    const EntryRecord& record = platform.entry(1);
    ASSERT_EQ(2U, record.srcs.size());
    EXPECT_EQ((Src{.module = 12, .reason = 0x130E, .word1 = 5, .word2 = 2, .word3 = 19, .subsystem = 0x55}),
              record.srcs[0]);
    expectChainReported(record, 1, 4, 0xAC0005);
    EXPECT_EQ((std::vector<Callout>{{1, 4}, {1, 4}}), record.callouts);
    ASSERT_EQ(1U, record.softwareErrors.size());
    EXPECT_EQ(36, record.softwareErrors[0].word1);
    const auto traces = failureTraces("KEST_dpConfig");
    ASSERT_EQ(2U, traces.size());
    EXPECT_EQ(" %s,%s", traces[1].format);
    EXPECT_EQ("\"/dev/i2c-1,L,9551,C0,9555,C2\"", traces[1].arguments.at(1));
}

TEST_F(DataPort, ChainThatCannotBeFlattenedIsReportedWithoutIt)
{
    bool met = false;
    for (int n = 1; n < 20 && !met; ++n) {
        restart();
        platform.failAllocation(n);
        const std::unique_ptr<ErrlEntry> entry{read("/dev/i2c-1,L,9551,C0,9552,C2")};
        met = entry && platform.entry(1).returnCode == 0x80001302 && platform.entry(1).details(1).empty();
        if (met) {
            EXPECT_EQ(2U, failureTraces("KEST_dpRead").size());
        }
    }
    EXPECT_TRUE(met);
    restart();
}

// --- failures of the routines ---

TEST_F(DataPort, RoutinesFailureIsReturnedUnchangedAndTracedWithTheText)
{
    for (const Function& function : functions()) {
        if (function.module == 34) {
            continue;
        }
        restart();
        platform.opens().failsConfig(ENODEV).capturesFfdc().closes();
        const std::unique_ptr<ErrlEntry> entry{function.call("/dev/i2c-1,L,9554,40")};
        ASSERT_NE(nullptr, entry) << function.name;
        const EntryRecord& record = platform.entry(entry.get());
        EXPECT_EQ((std::vector<Src>{{.module = 12, .reason = 0x130E, .word1 = 19, .word2 = 2, .word3 = 19}}),
                  record.srcs);
        EXPECT_EQ(0x8000130EU, record.returnCode);
        EXPECT_EQ(1U, record.softwareErrors.size());
        const auto traces = failureTraces(function.name);
        ASSERT_EQ(1U, traces.size());
        EXPECT_EQ(" %s,%s", traces[0].format);
        EXPECT_EQ("\"/dev/i2c-1,L,9554,40\"", traces[0].arguments.at(1));
    }
}

TEST_F(DataPort, EveryLayerCallFailingOnceReleasesEverything)
{
    for (const Function& function : functions()) {
        for (const bool persistent : {false, true}) {
            for (int failing = 1;; ++failing) {
                restart();
                platform.healthy().failCall(failing, EIO, persistent);
                const std::unique_ptr<ErrlEntry> entry{function.call("/dev/i2c-1,L,9554,40")};
                if (!platform.faultWasMet()) {
                    EXPECT_EQ(nullptr, entry);
                    EXPECT_LT(4, failing) << function.name;
                    break;
                }
                EXPECT_NE(nullptr, entry) << function.name << ": " << platform.failedCall();
                EXPECT_EQ(0, platform.openHandles() + platform.heldLocks() + platform.liveBuffers() +
                                 platform.liveAllocations())
                    << function.name << ": " << platform.failedCall();
                EXPECT_EQ(1, platform.liveEntries());
            }
        }
    }
}

TEST_F(DataPort, EveryAllocationFailingOnceIsReportedOrHarmless)
{
    for (const Function& function : functions()) {
        const std::string text = "/dev/i2c-1,L,9554,40";
        restart();
        platform.healthy();
        ASSERT_FALSE(failed(function.call(text)));
        const std::string whole = platform.layerCalls();
        for (int n = 1; n < 16; ++n) {
            restart();
            platform.healthy().failAllocation(n);
            const std::unique_ptr<ErrlEntry> entry{function.call(text)};
            if (!entry) {
                EXPECT_EQ(whole, platform.layerCalls()) << function.name << " allocation " << n;
            }
            EXPECT_EQ(0, platform.openHandles() + platform.heldLocks() + platform.liveAllocations())
                << function.name << " allocation " << n;
        }
    }
    // from now on no allocation fails
    restart();
}

// --- the reset pin of a hub ---

TEST_F(DataPort, ResetPinIsDrivenOnTheOpenHandle)
{
    // the selectors read 5A 5A 5A 5A
    platform.healthy();
    EXPECT_FALSE(failed(kest_dp_922HUB_reset("/dev/i2c-1,L,9552,0xC2", hubHandle, KEST_DP_SELECT_01, 0x8000, 0)));
    EXPECT_EQ(R"(
mern_iic_config(h1, 2, 19, block: speed 400, address 0xC2, offset bytes 0, timeout 20000, write cycle 0, page 0, flags 0xFFFF0001, busy wait 1000)
mern_iic_config(h1, 2, 3, 0xC2)
mern_iic_write(h1, 1 byte: 16)
mern_iic_read(h1, 4)
mern_iic_config(h1, 2, 3, 0xC2)
mern_iic_write(h1, 5 bytes: 16 5a 5a 5a 5a)
)",
              platform.calls());
}

TEST_F(DataPort, ResetPinIsA9552sWhateverTheChainHolds)
{
    // the second is not even valid
    for (const char* text : {"/dev/i2c-1,L,9554,C0", "/dev/i2c-1,L,9551,C0,9555,C2"}) {
        restart();
        platform.healthy();
        EXPECT_FALSE(failed(resetPin(text)));
        EXPECT_EQ((std::vector<Bytes>{hex("16"), hex("16 5A 5A 5A 1A")}), platform.written());
        EXPECT_NE(std::string::npos, platform.layerCalls().find("(h1, 2, 3, 0xC0)"));
    }
}

TEST_F(DataPort, ResetPinsFailureIsNotedWithModule17)
{
    platform.configures(2).failsWrite(ENXIO).capturesFfdc();
    const std::unique_ptr<ErrlEntry> entry{resetPin("/dev/i2c-1,L,9552,0xC0")};
    ASSERT_NE(nullptr, entry);
    const EntryRecord& record = platform.entry(1);
    ASSERT_EQ(1U, record.srcs.size());
    EXPECT_EQ(0x1311, record.srcs[0].reason);
    EXPECT_EQ(0x40001311U, record.returnCode);
    // from the operation, the routine and the entry point
    ASSERT_EQ(3U, record.softwareErrors.size());
    EXPECT_EQ(38, record.softwareErrors[0].word1);
    EXPECT_EQ(37, record.softwareErrors[1].word1);
    EXPECT_EQ((SoftwareError{.returnCode = 0x40001311, .word1 = 17, .word2 = 0}), record.softwareErrors[2]);
    const auto traces = failureTraces("kest_dp_922HUB_reset");
    ASSERT_EQ(1U, traces.size());
    EXPECT_EQ("\"/dev/i2c-1,L,9552,0xC0\"", traces[0].arguments.at(1));
}

TEST_F(DataPort, EachFunctionTracesItsEntryAndExit)
{
    for (const Function& function : functions()) {
        restart();
        platform.healthy();
        EXPECT_FALSE(failed(function.call("/dev/i2c-1,L,9554,40")));
        EXPECT_TRUE(failureTraces(function.name).empty());
        EXPECT_EQ('"' + std::string(function.name) + '"', platform.traceRecords().front().arguments.at(0));
        EXPECT_EQ('"' + std::string(function.name) + '"', platform.traceRecords().back().arguments.at(0));
    }
}

} // namespace
