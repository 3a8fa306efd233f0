#include "kesthubsupport.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "tests/kest/hubstory.h"

using namespace kest;
using namespace hubstory;

namespace
{

constexpr const char* unit = "kesthubsupport";
constexpr kest_attributeValue defaults[6] = {400, 1, 15, 1, 2, 1};

/// A hub with one SEEPROM behind it.
class HubSupport : public HubTest
{
protected:
    static Call lockCall(unsigned item, unsigned timeout, unsigned address = 0x80)
    {
        return {Operation::config,
                line("mern_iic_config(h1, 2, %u, kind 0, address 0x%X, timeout %u)\n", item, address, timeout),
                configReported(item)};
    }
    static Call speedCall(unsigned speed = 0x190)
    {
        return {Operation::config, line("mern_iic_config(h1, 2, 2, 0x%X)\n", speed), configReported(2)};
    }
    static Call dmaCall() { return {Operation::config, "mern_iic_config(h1, 2, 16, 0x2)\n"}; }

    kest_deviceAddress seeprom{0xA0, KEST_DEV_SEEPROM_256K, 0, nullptr};
    kest_deviceAddress hub{0x80, KEST_DEV_922HUB, 3, &seeprom};
    kest_922AddressLock lock{0xFFFF, 0xFFFF, 0xFFFFFFFF};
    kest_iicConfigBlock block{};
};

// --- lock, configuration, release ---

TEST_F(HubSupport, LockNamesTheHubAndTheTimeout)
{
    struct {
        unsigned length;
        bool isRead;
        unsigned timeout;
    } const cases[] = {{1, true, 1200},    {255, true, 1200}, {255, false, 1200},     {256, true, 1200},
                       {511, false, 1200}, {512, true, 2400}, {32768, false, 153600}, {0, false, 1200}};
    for (const auto& one : cases) {
        again();
        Story story{platform};
        story.does(lockCall(17, one.timeout));
        kest_922lockDeviceAddress(handle, &hub, one.length, one.isRead, &lock, defaults, errl);
        EXPECT_EQ(story.text, platform.calls());
        EXPECT_EQ("\n", hubTraces(platform));
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(0, lock.kind);
        EXPECT_EQ(0x80, lock.address);
        EXPECT_EQ(one.timeout, lock.timeoutMs);
    }
}

TEST_F(HubSupport, LockFailureIsNoted)
{
    for (const int error : stepErrors) {
        again();
        Story story{platform};
        story.fails(lockCall(17, 1200), error).notes(1, 22, 986);
        kest_922lockDeviceAddress(handle, &hub, 32, true, &lock, defaults, errl);
        EXPECT_EQ(story.text, platform.calls()) << error;
        EXPECT_EQ("\n985 0x9C262F5A %s \"kest_922lockDeviceAddress\"\n", hubTraces(platform));
        EXPECT_EQ(1U, platform.entry(1).srcs.size());
        EXPECT_EQ(1U, platform.entry(1).callouts.size());
    }
}

TEST_F(HubSupport, ReleaseUsesWhatTheLockLeft)
{
    Story story{platform};
    story.does(lockCall(18, 4242));
    lock = {0, 0x11, 4242};
    kest_922releaseDeviceAddressLock(handle, &hub, 99999, &lock, nullptr, errl);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(0x80, lock.address);
    EXPECT_EQ(nullptr, errl);
}

TEST_F(HubSupport, ReleaseOfARecordNeverLockedCarriesWhatIsThere)
{
    platform.configures();
    lock = {7, 0x11, 0x01020304};
    kest_922releaseDeviceAddressLock(handle, &hub, 0, &lock, defaults, errl);
    kest_922AddressLock sent{};
    std::memcpy(&sent, platform.configs().at(0).value.data(), sizeof sent);
    EXPECT_EQ(7, sent.kind);
    EXPECT_EQ(0x80, sent.address);
    EXPECT_EQ(0x01020304U, sent.timeoutMs);
}

TEST_F(HubSupport, ReleaseFailureIsNoted)
{
    for (const int error : stepErrors) {
        again();
        lock = {0, 0, 1200};
        Story story{platform};
        story.fails(lockCall(18, 1200), error).notes(1, 23, 1052);
        kest_922releaseDeviceAddressLock(handle, &hub, 32, &lock, defaults, errl);
        EXPECT_EQ(story.text, platform.calls()) << error;
        EXPECT_EQ("\n1051 0x4389D153 %s \"kest_922releaseDeviceAddressLock\"\n", hubTraces(platform));
    }
}

TEST_F(HubSupport, ConfigurationOfAWriteHasNoDmaOption)
{
    Story story{platform};
    story.does({setBlock({}), speedCall()});
    kest_922setHubConfig(handle, &hub, 32, &block, defaults, false, errl, 2);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(0x80, block.address);
}

TEST_F(HubSupport, ConfigurationOfAReadSetsTheDmaOption)
{
    Story story{platform};
    story.does({setBlock({}), speedCall(), dmaCall()});
    kest_922setHubConfig(handle, &hub, 32, &block, defaults, true, errl, 2);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(nullptr, errl);
}

TEST_F(HubSupport, ConfigurationFollowsTheDeviceMode)
{
    const unsigned offsetBytes[] = {0, 3, 4};
    for (int mode = 0; mode <= 2; ++mode) {
        again();
        Story story{platform};
        story.does({setBlock({.offsetBytes = offsetBytes[mode]}), speedCall()});
        kest_922setHubConfig(handle, &hub, 32, &block, defaults, false, errl, mode);
        EXPECT_EQ(story.text, platform.calls()) << mode;
    }
}

TEST_F(HubSupport, ConfigurationTakesSpeedAndCycleFromTheAttributes)
{
    const kest_attributeValue attributes[6] = {100, 1, 0x10003, 1, 2, 3};
    Story story{platform};
    story.does({setBlock({.timeout = 2400, .writeCycle = 3, .flags = 0xFFFD0002}), speedCall(0x64)});
    kest_922setHubConfig(handle, &hub, 512, &block, attributes, false, errl, 2);
    EXPECT_EQ(story.text, platform.calls());
}

TEST_F(HubSupport, AFailedDmaOptionIsOnlyReported)
{
    for (const int result : {-1, 1}) {
        for (const int error : stepErrors) {
            again();
            Story story{platform};
            story.does({setBlock({}), speedCall()}).says(dmaCall().line);
            platform.failsConfig(error, result);
            StandardError captured;
            kest_922setHubConfig(handle, &hub, 32, &block, defaults, true, errl, 2);
            EXPECT_EQ("DMA workaround error\n", captured.text());
            EXPECT_EQ(story.text, platform.calls());
            EXPECT_EQ("\n", hubTraces(platform));
            EXPECT_EQ(nullptr, errl);
            EXPECT_EQ(0, platform.entryCount());
        }
    }
}

TEST_F(HubSupport, ConfigurationFailuresStopIt)
{
    for (const int error : stepErrors) {
        for (const bool isRead : {false, true}) {
            again();
            Story atBlock{platform};
            atBlock.fails(setBlock({}), error).notes(1, 20, 864);
            kest_922setHubConfig(handle, &hub, 32, &block, defaults, isRead, errl, 2);
            EXPECT_EQ(atBlock.text, platform.calls()) << error;
            EXPECT_EQ("\n863 0x30DD11C9 %s \"kest_922setHubConfig\"\n", hubTraces(platform));

            again();
            Story atSpeed{platform};
            atSpeed.does(setBlock({})).fails(speedCall(), error).notes(1, 20, 882);
            kest_922setHubConfig(handle, &hub, 32, &block, defaults, isRead, errl, 2);
            EXPECT_EQ(atSpeed.text, platform.calls()) << error;
            EXPECT_EQ("\n881 0x0B8F87C3 %s \"kest_922setHubConfig\"\n", hubTraces(platform));
        }
    }
}

// --- error status before a transfer ---

const Block queryBlock{
    .address = 0x80, .offsetBytes = 0, .timeout = 20000, .writeCycle = 0, .page = 0, .flags = 0xFFFF0001};

ExpectedSrc querySrc(std::uint32_t status = 0)
{
    return {.module = 33, .reason = 0x132A, .word1 = status, .subsystem = 0x55, .sourceId = unit};
}

TEST_F(HubSupport, AnyStatusThatIsReadLetsTheQueryPass)
{
    for (int status = 0; status < 256; ++status) {
        again();
        Story story{platform};
        story.does({setBlock(queryBlock), readCall({static_cast<std::uint8_t>(status)})});
        kest_922HubQueryErrStatus(handle, 0x80, errl, devicePath);
        EXPECT_EQ(story.text, platform.calls()) << status;
        EXPECT_EQ("\n", hubTraces(platform));
        EXPECT_EQ(nullptr, errl);
    }
}

TEST_F(HubSupport, TheQuerysBlockIsZeroWhereNothingIsSet)
{
    platform.configures().reads({0});
    kest_922HubQueryErrStatus(handle, 0x8A, errl, devicePath);
    Block expectedBlock = queryBlock;
    expectedBlock.address = 0x8A;
    EXPECT_EQ(blockBytes(expectedBlock), platform.configs().at(0).value);
}

TEST_F(HubSupport, AQueryThatCannotConfigure)
{
    for (const int error : stepErrors) {
        again();
        Story story{platform};
        // not even an entry of a silent hub resets the hub here
        story.fails(setBlock(queryBlock), error);
        story.says(addedSrc(1, querySrc())).says(callout(1)).notes(1, 33, 1283);
        kest_922HubQueryErrStatus(handle, 0x80, errl, devicePath);
        EXPECT_EQ(story.text, platform.calls()) << error;
        EXPECT_EQ("\n1207 %s \"kest_922HubQueryErrStatus\"\n", hubTraces(platform));
    }
}

TEST_F(HubSupport, AQueryThatCannotRead)
{
    for (const int error : stepErrors) {
        again();
        Story story{platform};
        story.does(setBlock(queryBlock)).fails(readCall({0}), error);
        if (error == 6) {
            story.resetsHub(1);
        }
        story.says(addedSrc(1, querySrc())).says(callout(1)).notes(1, 33, 1283);
        kest_922HubQueryErrStatus(handle, 0x80, errl, devicePath);
        EXPECT_EQ(story.text, platform.calls()) << error;
    }
}

TEST_F(HubSupport, AStatusThatComesWithAFailureMarksTheReturnCode)
{
    struct {
        std::uint8_t status;
        int error;
        std::uint32_t returnCode;
    } const cases[] = {{15, 5, 0x00101312},  {14, 5, 0x10001312}, {255, 61, 0x10001312}, {1, 22, 0x90001312},
                       {15, 22, 0x80101312}, {15, 6, 0x41100000}, {3, 6, 0x51000000}};
    for (const auto& one : cases) {
        again();
        platform.healthy();
        bool first = true;
        platform.readHandler = [&](std::uint8_t* buffer, unsigned size) {
            buffer[0] = first ? one.status : std::uint8_t{0x55};
            errno = one.error;
            return std::exchange(first, false) ? 0 : static_cast<int>(size);
        };
        kest_922HubQueryErrStatus(handle, 0x80, errl, devicePath);
        EXPECT_EQ(one.returnCode, platform.entry(1).returnCode) << int{one.status} << ' ' << one.error;
        EXPECT_EQ((Src{.module = 33, .reason = 0x132A, .word1 = one.status, .subsystem = 0x55}),
                  platform.entry(1).srcs.at(1));
    }
}

// --- reset of the hub ---

std::string resetPathOf(const std::string& path, unsigned char hubAddress)
{
    std::string out(path.size() + 16, '#');
    kest_build922HubResetPath(path.c_str(), out.data(), hubAddress);
    return out.c_str();
}

TEST_F(HubSupport, ResetPathsNameTheExpander)
{
    EXPECT_EQ("a,b,9552,0xC0", resetPathOf("a,b,922,80,3,2c0256,a0", 0x80));
    EXPECT_EQ("a,b,9552,0xC0", resetPathOf("a,b", 0x88));
    EXPECT_EQ("1,2,9552,0xC2", resetPathOf("1,2", 0x82));
    EXPECT_EQ("a,b,9552,0xC2", resetPathOf("a,b,", 0x8A));
    for (int address = 0; address < 256; ++address) {
        if (address != 0x80 && address != 0x82 && address != 0x88 && address != 0x8A) {
            EXPECT_EQ("a,b,9552,", resetPathOf("a,b", static_cast<unsigned char>(address))) << address;
        }
    }
}

TEST_F(HubSupport, AResetPathNeedsNoMoreRoomThanItsText)
{
    // the shortest links that can follow the two tokens
    for (const std::string path : {"a,b,922,1,1,75,1", "sim:planar,L,922,80,3,2c0256,a0"}) {
        std::string out(path.size() + 17, '#');
        kest_build922HubResetPath(path.c_str(), out.data(), 0x80);
        EXPECT_EQ(path.substr(0, path.find(",922")) + ",9552,0xC0", out.c_str());
        EXPECT_EQ(0U, out.find_first_not_of('\0', std::strlen(out.c_str())) - (path.size() + 1)) << "all is zeroed";
        EXPECT_EQ(std::string(16, '#'), out.substr(path.size() + 1)) << "and no more";
    }
}

TEST_F(HubSupport, ResetPathsOfShortTextsEndThere)
{
    EXPECT_EQ("", resetPathOf("", 0x80));
    EXPECT_EQ("", resetPathOf(",,", 0x80));
    EXPECT_EQ("a,", resetPathOf("a", 0x80));
    EXPECT_EQ("a,", resetPathOf("a,", 0x80));
    EXPECT_EQ("a,b,9552,0xC0", resetPathOf(",a,,b", 0x80));
}

TEST_F(HubSupport, AResetPullsThePinLowAndReleasesIt)
{
    for (const auto& [address, expander] : {std::pair{0x80U, 0xC0U}, {0x82U, 0xC2U}, {0x88U, 0xC0U}, {0x8AU, 0xC2U}}) {
        again();
        errl = platform.makeEntry({.returnCode = 0x40001311, .srcs = {{.word1 = 6}}});
        Story story{platform};
        story.pulsesPin(expander).says("entry1.CollectTrace(\"kest\", 250)\n").setsReturnCode(1, 0x41000000);
        kest_handle_hub_reset(errl, devicePath, handle, address);
        EXPECT_EQ(story.text, platform.calls()) << address;
        EXPECT_EQ(
            line("\n %%s,%%s,%%s \"kest_handle_hub_reset\" \"%s\" \"sim:planar,L,9552,0x%X\"\n", devicePath, expander),
            hubTraces(platform));
        EXPECT_EQ(1U, platform.entry(1).srcs.size());
    }
}

TEST_F(HubSupport, AResetThatFailsJoinsTheEntry)
{
    // each layer call of the two register changes in turn
    for (const int error : stepErrors) {
        for (int failing = 1; failing <= 12; ++failing) {
            again();
            errl = platform.makeEntry({.returnCode = 0x4711, .srcs = {{.word1 = 6}}});
            platform.healthy().failCall(failing, error);
            kest_handle_hub_reset(errl, devicePath, handle, 0x80);
            ASSERT_TRUE(platform.faultWasMet());
            const EntryRecord& reset = platform.entry(2);
            EXPECT_EQ(2U, platform.entry(1).srcs.size()) << failing;
            EXPECT_EQ(reset.srcs.at(0), platform.entry(1).srcs.at(1)) << failing;
            EXPECT_EQ(reset.returnCode, platform.entry(1).returnCode) << failing;
            EXPECT_NE(0x4711U, platform.entry(1).returnCode);
            EXPECT_TRUE(reset.deleted && reset.commits.empty()) << failing;
            EXPECT_EQ((std::vector<CollectedTrace>{{"kest", 250}}), platform.entry(1).traces) << failing;
            EXPECT_EQ(line("\n %%s,%%d,%%s,%%s \"kest_handle_hub_reset\" %d \"%s\" \"sim:planar,L,9552,0xC0\"\n",
                           failing <= 6 ? 0 : 1, devicePath),
                      hubTraces(platform))
                << failing;
        }
    }
}

TEST_F(HubSupport, AFailedResetReportsInThisOrder)
{
    errl = platform.makeEntry({.srcs = {{.word1 = 6}}});
    platform.healthy().failCall(1, 5);
    kest_handle_hub_reset(errl, devicePath, handle, 0x80);
    std::string tail = platform.calls();
    tail = tail.substr(tail.find("entry1.") - 1);
    EXPECT_EQ(R"(
entry1.CollectTrace("kest", 250)
entry1.addSRC(0x1300, SRC 0 of entry2)
entry1.setRC(0x130E)
delete entry2
)",
              tail);
}

TEST_F(HubSupport, AResetWithoutAnExpanderFails)
{
    errl = platform.makeEntry({.srcs = {{.word1 = 6}}});
    // "...,9552," names no address
    kest_handle_hub_reset(errl, devicePath, handle, 0x84);
    EXPECT_EQ("\n", platform.layerCalls());
    EXPECT_EQ(0x1315, platform.entry(1).srcs.at(1).reason);
    EXPECT_EQ(0x80001315U, platform.entry(1).returnCode);
}

TEST_F(HubSupport, AResetOfALongPathHasTheRoomItNeeds)
{
    errl = platform.makeEntry({.srcs = {{.word1 = 6}}});
    const std::string path = std::string(5000, 'p') + "," + std::string(5000, 'n');
    Story story{platform};
    story.pulsesPin().says("entry1.CollectTrace(\"kest\", 250)\n").setsReturnCode(1, 0x41000000);
    kest_handle_hub_reset(errl, path.c_str(), handle, 0x80);
    EXPECT_EQ(story.text, platform.calls());
}

TEST_F(HubSupport, AResetWithoutMemoryForThePathIsDescribed)
{
    errl = platform.makeEntry({.srcs = {{.word1 = 6}}});
    platform.failAllocation();
    kest_handle_hub_reset(errl, devicePath, handle, 0x80);
    EXPECT_EQ("\n", platform.layerCalls());
    EXPECT_EQ(0x132B, platform.entry(1).srcs.at(1).reason);
    EXPECT_EQ(0x8000132BU, platform.entry(1).returnCode);
}

// --- merging two entries ---

TEST_F(HubSupport, MergingDropsTheSecondaryAfterASubBusReset)
{
    ErrlEntry* primary = platform.makeEntry();
    ErrlEntry* secondary = platform.makeEntry();
    ErrlEntry* const before = primary;
    kest_922HubHandlePrimSecErrLogs(primary, secondary, 1);
    EXPECT_EQ(before, primary);
    EXPECT_EQ(nullptr, secondary);
    EXPECT_EQ("\ndelete entry2\n", platform.calls());
    EXPECT_EQ("\n", hubTraces(platform));
    delete primary;
}

TEST_F(HubSupport, MergingAddsTheSecondaryOtherwise)
{
    ErrlEntry* primary = platform.makeEntry();
    ErrlEntry* secondary = platform.makeEntry({.returnCode = 0x00101319, .creator = 0x1300});
    ErrlEntry* const before = primary;
    kest_922HubHandlePrimSecErrLogs(primary, secondary, 0);
    EXPECT_EQ(before, primary);
    EXPECT_EQ(nullptr, secondary);
    EXPECT_EQ(R"(
entry1.addSRC(0x1300, SRC 0 of entry2)
entry1.setRC(0x101319)
delete entry2
)",
              platform.calls());
    EXPECT_EQ("\n", hubTraces(platform));
    delete primary;
}

TEST_F(HubSupport, MergingDropsThePrimaryWhenTheRepeatWorked)
{
    ErrlEntry* primary = platform.makeEntry();
    ErrlEntry* secondary = nullptr;
    kest_922HubHandlePrimSecErrLogs(primary, secondary, 1);
    EXPECT_EQ(nullptr, primary);
    EXPECT_EQ(nullptr, secondary);
    EXPECT_EQ("\ndelete entry1\n", platform.calls());
    EXPECT_EQ("\n", hubTraces(platform));
}

TEST_F(HubSupport, MergingKeepsThePrimaryWhenNothingElseHappened)
{
    ErrlEntry* primary = platform.makeEntry();
    ErrlEntry* secondary = nullptr;
    ErrlEntry* const before = primary;
    kest_922HubHandlePrimSecErrLogs(primary, secondary, 0);
    EXPECT_EQ(before, primary);
    EXPECT_EQ("\n", platform.calls());
    EXPECT_EQ("\n1125 %s \"kest_922HubHandlePrimSecErrLogs\"\n", hubTraces(platform));
    EXPECT_EQ(2U, platform.lines(kindScope).size());
    delete primary;
}

} // namespace
