/// Device detection: its calls, the result of each detect state, and of each failing step.
#include "kest/detect.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "tests/platform/scripted.h"

using namespace scripted;
using namespace kest;

namespace
{

constexpr char deviceText[] = "/dev/i2c-1@A0,L,2C0256,A0";

class Detect : public PlatformTest
{
protected:
    /// Keeps the entry of the detection. @return its record, which is empty when the device is present
    EntryRecord detect(const char* address = deviceText, const kest_attributeValue* attributes = nullptr)
    {
        entry.reset(KEST_detectDevice(address, attributes));
        return entry ? platform.entry(entry.get()) : EntryRecord{};
    }

    std::vector<int> traceLines() const
    {
        std::vector<int> lines;
        for (const TraceRecord& record : platform.traceRecords()) {
            if (record.arguments.at(0) == "\"KEST_detectDevice\"") {
                lines.push_back(record.line);
            }
        }
        EXPECT_LE(2U, lines.size()) << "entry and exit";
        return lines.size() < 2 ? std::vector<int>{} : std::vector<int>(lines.begin() + 1, lines.end() - 1);
    }

    /// Arguments of the trace at a line, without the function's name.
    std::vector<std::string> traced(int line) const
    {
        for (const TraceRecord& record : platform.traceRecords()) {
            if (record.line == line && record.arguments.at(0) == "\"KEST_detectDevice\"") {
                return {record.arguments.begin() + 1, record.arguments.end()};
            }
        }
        ADD_FAILURE() << "no trace of line " << line;
        return {};
    }

    void restart()
    {
        entry.reset();
        platform.reset();
    }

    std::unique_ptr<ErrlEntry> entry;
};

TEST_F(Detect, PresentDeviceIsReportedByNull)
{
    const std::array<kest_attributeValue, 6> attributes{100, 1, 15, 1, 2, 1};
    platform.opens().configures(2).configuresReading(word(3)).closes();
    detect(deviceText, attributes.data());
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(R"(
MernInitialize(0x80000000)
mern_iic_open(node -1, "/dev/i2c-1@A0", 0x1002)
mern_iic_config(h1, 2, 19, block: speed 400, address 0x0, offset bytes 0, timeout 5000, write cycle 0, page 0, flags 0xFFFF0001, busy wait 20)
mern_iic_config(h1, 2, 2, 0x64)
mern_iic_config(h1, 1, 15, 4 bytes)
mern_iic_close(h1)
)",
              platform.calls());
    EXPECT_TRUE(traceLines().empty());
}

TEST_F(Detect, WithoutAttributesTheBusKeepsItsSpeed)
{
    platform.opens().configures(2).configuresReading(word(3)).closes();
    detect();
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(2U, platform.configs().at(1).item);
    EXPECT_EQ(word(0), platform.configs().at(1).value);
}

TEST_F(Detect, UsesNodeAndPathOfTheText)
{
    platform.opens().configures(2).configuresReading(word(3)).closes();
    detect("sim:planar@C0,5,whatever");
    EXPECT_EQ(nullptr, entry);
    EXPECT_NE(std::string::npos, platform.calls().find("mern_iic_open(node 5, \"sim:planar@C0\", 0x1002)"));
}

TEST_F(Detect, DetectStates)
{
    struct Row {
        std::uint32_t state;
        std::uint16_t reason;
        std::uint32_t returnCode;
        std::vector<Callout> callouts;
        std::vector<int> lines;
    };
    const std::vector<Callout> one{{1, 4}}, two{{1, 4}, {1, 6}};
    const Row rows[] = {{0, 0x130A, 0x80001311, one, {353}},
                        {1, 0x1309, 0x80001309, two, {396, 458}},
                        {2, 0x1309, 0x80001309, two, {400, 458}},
                        {4, 0x1309, 0x80001309, two, {404, 458}},
                        {7, 0x1309, 0x80001309, two, {404, 458}},
                        {0x03000000, 0x1309, 0x80001309, two, {404, 458}},
                        {0xFFFFFFFF, 0x1309, 0x80001309, two, {404, 458}}};
    for (const Row& row : rows) {
        restart();
        platform.opens().configures(2).configuresReading(word(row.state)).closes();
        const EntryRecord record = detect();
        ASSERT_NE(nullptr, entry) << row.state;
        EXPECT_EQ((std::vector<Src>{{.module = 8, .reason = row.reason, .word1 = row.state, .subsystem = 0x55}}),
                  record.srcs);
        EXPECT_EQ(row.returnCode, record.returnCode);
        EXPECT_EQ(row.callouts, record.callouts);
        EXPECT_EQ((std::vector<Bytes>{text(deviceText)}), record.details(7));
        EXPECT_EQ((std::vector<Bytes>{text("kestdetect")}), record.details(2));
        EXPECT_EQ(2U, record.userDetails.size());
        EXPECT_TRUE(record.softwareErrors.empty());
        EXPECT_TRUE(record.commits.empty());
        EXPECT_EQ(row.lines, traceLines()) << row.state;
        if (row.state != 0) {
            EXPECT_EQ((std::vector<std::string>{"\"/dev/i2c-1@A0,L,2C0256,A0\""}), traced(458));
        }
        // The entry is made at the end, after the close.
        EXPECT_LT(platform.calls().find("mern_iic_close"), platform.calls().find("entry1 ="));
    }
}

TEST_F(Detect, NullTextIsRefusedWithoutTouchingTheBus)
{
    const EntryRecord record = detect(nullptr);
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ("\n", platform.layerCalls());
    EXPECT_EQ((std::vector<Src>{{.module = 8, .reason = 0x132B}}), record.srcs);
    EXPECT_EQ(0x8000132BU, record.returnCode);
    EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
    EXPECT_TRUE(record.details(7).empty());
    EXPECT_EQ((std::vector<int>{188}), traceLines());
}

TEST_F(Detect, TextWithoutTwoFieldsIsRefusedWithTheTextAttached)
{
    const struct {
        const char* text;
        // up to the last token, which is what is traced
        const char* rest;
    } rows[] = {{"/dev/i2c-1", "\"/dev/i2c-1\""},
                {",", "\",\""},
                {"a", "\"a\""},
                {"a,", "\"a\""},
                {",a,", "\",a\""},
                {"", "\"\""}};
    for (const auto& [malformed, rest] : rows) {
        restart();
        const EntryRecord record = detect(malformed);
        ASSERT_NE(nullptr, entry) << malformed;
        EXPECT_EQ("\n", platform.layerCalls());
        EXPECT_EQ((std::vector<Src>{{.module = 8, .reason = 0x1315}}), record.srcs);
        EXPECT_EQ(0x80001315U, record.returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), record.callouts);
        EXPECT_EQ((std::vector<Bytes>{text(malformed)}), record.details(7));
        EXPECT_EQ((std::vector<int>{222}), traceLines());
        EXPECT_EQ(" %s,%s", platform.traceRecords().at(1).format);
        EXPECT_EQ((std::vector<std::string>{rest}), traced(222));
    }
}

/// Scripts the calls up to the failing one, and what follows it.
void failStep(Platform& platform, int step, int error)
{
    if (step == 0) {
        platform.failsOpen(error);
        return;
    }
    platform.opens().configures(step - 1).failsConfig(error).capturesFfdc();
}

TEST_F(Detect, EachFailingStepIsMarkedInTheLayersEntry)
{
    const struct {
        // open, block, speed, state
        int step;
        Src src;
        std::uint32_t returnCode;
        std::uint16_t site;
        std::vector<int> lines;
    } rows[] = {
        {0, {.module = 11, .reason = 0x130C, .word1 = 5, .subsystem = 0x55}, 0x0000130C, 269, {264, 493}},
        {1,
         {.module = 12, .reason = 0x130E, .word1 = 5, .word2 = 2, .word3 = 19, .subsystem = 0x55},
         0x0000130E,
         296,
         {291, 493}},
        {2,
         {.module = 12, .reason = 0x130E, .word1 = 5, .word2 = 2, .word3 = 2, .subsystem = 0x55},
         0x0000130E,
         319,
         {314, 493}},
        {3,
         {.module = 12, .reason = 0x130E, .word1 = 5, .word2 = 1, .word3 = 15, .subsystem = 0x55},
         0x0000130E,
         338,
         {333, 493}},
    };
    for (const auto& row : rows) {
        restart();
        failStep(platform, row.step, EIO);
        if (row.step > 0) {
            platform.closes();
        }
        const EntryRecord record = detect();
        ASSERT_NE(nullptr, entry) << row.step;
        EXPECT_EQ((std::vector<Src>{row.src}), record.srcs);
        EXPECT_EQ(row.returnCode, record.returnCode);
        EXPECT_EQ((std::vector<SoftwareError>{{.returnCode = row.returnCode, .word1 = 8, .word2 = row.site}}),
                  record.softwareErrors);
        EXPECT_EQ(row.lines, traceLines());
        EXPECT_EQ((std::vector<std::string>{"\"/dev/i2c-1@A0,L,2C0256,A0\""}), traced(493));
        EXPECT_EQ(row.step > 0, platform.calls().find("mern_iic_close") != std::string::npos)
            << "no close after a failed open";
        EXPECT_EQ(0, platform.commits());
    }
}

TEST_F(Detect, FailedCloseNeverReachesTheCaller)
{
    platform.opens().configures(2).configuresReading(word(3)).failsClose(EIO).capturesFfdc();
    detect();
    EXPECT_EQ(nullptr, entry);
    ASSERT_EQ(1, platform.entryCount());
    const EntryRecord& late = platform.entry(1);
    EXPECT_EQ(19, late.srcs.at(0).module);
    EXPECT_EQ((CollectedTrace{"kest", 250}), late.traces.back());
    EXPECT_EQ((std::vector<Commit>{{0x1300, 0x4000}}), late.commits);
    EXPECT_TRUE(late.deleted);
    EXPECT_EQ((std::vector<int>{474}), traceLines());
    bool traced = false;
    for (const TraceRecord& record : platform.traceRecords()) {
        if (record.line == 474) {
            traced = true;
            EXPECT_EQ(" %s,%x", record.format);
            char plid[16];
            std::snprintf(plid, sizeof plid, "0x%X", late.plid);
            EXPECT_EQ(plid, record.arguments.at(1));
        }
    }
    EXPECT_TRUE(traced);
}

TEST_F(Detect, FailedCloseBesideAnotherFailureIsCommitted)
{
    // the fourth: the device is absent
    for (int step = 1; step <= 4; ++step) {
        restart();
        if (step < 4) {
            failStep(platform, step, EIO);
        } else {
            platform.opens().configures(2).configuresReading(word(0));
        }
        platform.failsClose(EBADF).capturesFfdc();
        const EntryRecord record = detect();
        ASSERT_NE(nullptr, entry);
        EXPECT_EQ(step < 4 ? 12 : 8, record.srcs.at(0).module);
        EXPECT_EQ(1U, record.srcs.size());
        EXPECT_TRUE(record.commits.empty());
        const EntryRecord& late = platform.entry(step < 4 ? 2 : 1);
        EXPECT_EQ(19, late.srcs.at(0).module);
        EXPECT_EQ((std::vector<Commit>{{0x1300, 0x4000}}), late.commits);
        EXPECT_EQ(1, platform.commits());
    }
}

TEST_F(Detect, SwallowedFailureOfTheStateNeverReadsAsPresent)
{
    platform.opens().configures(2).failsConfig(EDEADLK).capturesFfdc().closes();
    const EntryRecord record = detect();
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(0x130A, record.srcs.at(0).reason);
    // made by the layer
    EXPECT_EQ(1, platform.commits());
}

TEST_F(Detect, SwallowedFailureBeforeTheStateDoesNotEndIt)
{
    // block, speed
    for (int step = 1; step <= 2; ++step) {
        restart();
        failStep(platform, step, EDEADLK);
        platform.configures(2 - step).configuresReading(word(3)).closes();
        detect();
        EXPECT_EQ(nullptr, entry);
        EXPECT_EQ(1, platform.commits());
    }
}

TEST_F(Detect, WithoutMemoryForTheEntryEverythingReadsAsPresent)
{
    for (const std::uint32_t state : {0U, 1U, 2U, 7U}) {
        restart();
        platform.opens().configures(2).configuresReading(word(state)).closes();
        platform.failEntryAllocation();
        detect();
        EXPECT_EQ(nullptr, entry) << state;
    }
}

TEST_F(Detect, UnknownNodeIsTheOpensFailure)
{
    const EntryRecord record = detect("/dev/i2c-1,8");
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(0x1318, record.srcs.at(0).reason);
    EXPECT_EQ((std::vector<SoftwareError>{{.returnCode = 0x80001318, .word1 = 8, .word2 = 269}}),
              record.softwareErrors);
    EXPECT_EQ(std::string::npos, platform.layerCalls().find("mern_iic_open"));
}

TEST_F(Detect, EveryLayerCallFailingOnceClosesTheDevice)
{
    for (const bool persistent : {false, true}) {
        for (int failing = 1;; ++failing) {
            restart();
            platform.healthy().failCall(failing, ETIME, persistent);
            detect();
            if (!platform.faultWasMet()) {
                EXPECT_EQ(nullptr, entry);
                // open, block, speed, state, close
                EXPECT_EQ(6, failing);
                break;
            }
            EXPECT_TRUE(entry || platform.commits() > 0) << platform.failedCall();
            EXPECT_EQ(0, platform.openHandles() + platform.liveBuffers()) << platform.failedCall();
        }
    }
}

} // namespace
