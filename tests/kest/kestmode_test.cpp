#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kestseeprom.h"
#include "tests/kest/expected.h"
#include "tests/platform/scripted.h"

using namespace scripted;
using namespace expected;
using namespace kest;

namespace
{

struct KestMode : PlatformTest {
    KestMode() { kest_forgetMode(); }
    ~KestMode() override { kest_forgetMode(); }
};

constexpr char readsRegistry[] = "\nUtilReg::read(\"tavo/ReadMode\", 16, false, null)\n";

TEST_F(KestMode, KnowsThreeValuesByTheirFirstCharacters)
{
    const struct {
        std::string value;
        unsigned mode;
    } rows[] = {{"FileMode", 1},         {"FileModeXXXXXXXX", 1}, {"FileMode and more", 1}, {"MixedMode", 2},
                {"MixedMode4711", 2},    {"HWareMode", 3},        {"HWareModeHWareMo", 3},  {"MixedModeMixedMo", 2},
                {"FileMode\xFF\x01", 1}, {"HWareMode ", 3}};
    for (const auto& row : rows) {
        platform.reset();
        kest_forgetMode();
        platform.registryAnswers(text(row.value));
        EXPECT_EQ(row.mode, kest_detectMode(1)) << row.value;
        EXPECT_EQ(readsRegistry, platform.calls());
        EXPECT_EQ("\n", platform.traces());
    }
}

TEST_F(KestMode, TakesAnUnknownValueForHardware)
{
    const std::vector<std::string> values{"",          "Mixed",     "FileMod",         "HWareMod",
                                          "filemode",  "MIXEDMODE", " FileMode",       "MixedModf",
                                          "HWareMOde", "3",         "XFileModeFileMod"};
    for (const std::string& value : values) {
        platform.reset();
        kest_forgetMode();
        platform.registryAnswers(text(value));
        EXPECT_EQ(3u, kest_detectMode(1)) << value;
        const EntryRecord& entry = platform.entry(1);
        EXPECT_EQ((std::vector<Src>{{.module = 5, .reason = 0x1304, .subsystem = 0x81}}), entry.srcs);
        EXPECT_EQ(0x80001304u, entry.returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), entry.callouts);
        Bytes whole = text(value);
        whole.resize(16);
        // all 16 bytes, the unset ones 0
        EXPECT_EQ(std::vector<Bytes>{whole}, entry.details(3));
        EXPECT_EQ((std::vector<Commit>{{0x1300, 0x2000}}), entry.commits);
        EXPECT_TRUE(entry.deleted);
        ASSERT_EQ(1u, platform.traceRecords().size() - platform.lines(kindScope).size());
        EXPECT_EQ(1u, platform.lines(kindTrace).size());
        EXPECT_NE(std::string::npos, platform.traces().find("\" %s\", \"kest_detectMode\")"));
    }
}

TEST_F(KestMode, LogsAnUnknownValueInOrder)
{
    platform.registryAnswers(text("Mixed"));
    EXPECT_EQ(3u, kest_detectMode(1));
    const std::vector<std::string> lines = platform.lines(kindEntry);
    ASSERT_EQ(9u, lines.size()) << platform.calls();
    EXPECT_EQ(newEntry(1, {5, 0x1304, 0, 0, 0, 0, 0x81, "kestmode"}) + returnCode(1, 0x80001304) + callout(1),
              lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\n" + lines[3] + "\n" + lines[4] + "\n" + lines[5] +
                  "\n");
    EXPECT_EQ("entry1.commit(0x1300, 0x2000)", lines[7]);
    EXPECT_EQ("delete entry1", lines[8]);
}

TEST_F(KestMode, TakesAnUnreadableRegistryForHardware)
{
    platform.failsRegistry();
    EXPECT_EQ(3u, kest_detectMode(1));
    EXPECT_EQ(readsRegistry + addedSrc(1, {5, 0x1303, 0, 0, 0, 0, 0x81, "kestmode"}) + returnCode(1, 0x80001303) +
                  callout(1) +
                  "entry1.addUsrDtls(\"tavo/ReadMode\", 0x1300, 1, 3)\n"
                  "entry1.commit(0x1300, 0x2000)\n"
                  "delete entry1\n",
              platform.calls());
    ASSERT_EQ(1u, platform.lines(kindTrace).size());
    EXPECT_NE(std::string::npos, platform.traces().find("\" %s,%s\", \"kest_detectMode\", \"tavo/ReadMode\")"));
    EXPECT_EQ(13u, platform.entry(1).details(3).at(0).size());
}

TEST_F(KestMode, AsksTheRegistryOnce)
{
    platform.registryAnswers(text("MixedMode"));
    EXPECT_EQ(2u, kest_detectMode(1));
    EXPECT_EQ(2u, kest_detectMode(1));
    EXPECT_EQ(2u, kest_detectMode(0));
    EXPECT_EQ(2u, kest_detectMode(3));
    EXPECT_EQ(2u, kest_detectMode(0xFFFFFFFF));
    EXPECT_EQ(readsRegistry, platform.calls());
}

TEST_F(KestMode, AsksAgainOnRequest)
{
    platform.registryAnswers(text("MixedMode")).registryAnswers(text("FileMode")).registryAnswers(text("HWareMode"));
    EXPECT_EQ(2u, kest_detectMode(2));
    EXPECT_EQ(1u, kest_detectMode(2));
    EXPECT_EQ(1u, kest_detectMode(1));
    EXPECT_EQ(3u, kest_detectMode(2));
    EXPECT_EQ(3u, platform.lines(kindRegistry).size());
}

TEST_F(KestMode, KeepsHardwareAfterAFailureUntilAskedAgain)
{
    platform.failsRegistry().registryAnswers(text("nonsense")).registryAnswers(text("FileMode"));
    EXPECT_EQ(3u, kest_detectMode(1));
    EXPECT_EQ(3u, kest_detectMode(1));
    EXPECT_EQ(3u, kest_detectMode(2));
    EXPECT_EQ(3u, kest_detectMode(1));
    EXPECT_EQ(1u, kest_detectMode(2));
    EXPECT_EQ(1u, kest_detectMode(1));
}

TEST_F(KestMode, NeverReturnsUnknownWhileOthersAskAgain)
{
    // the registry says HWareMode
    platform.healthy();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (kest_attributeValue value : {1u, 2u, 1u, 2u}) {
        threads.emplace_back([value, &wrong] {
            for (int round = 0; round < 500; ++round) {
                wrong += kest_detectMode(value) != 3;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong);
}

} // namespace
