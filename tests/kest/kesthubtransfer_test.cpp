/// Whole transfers through a 922 hub.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "kesthubsupport.h"
#include "kestmisc.h"
#include "tests/kest/hubstory.h"

using namespace kest;
using namespace hubstory;

namespace
{

constexpr kest_attributeValue defaults[6] = {400, 1, 15, 1, 2, 1};
constexpr std::uint32_t position = 0x03A00123;

/// The lines that the steps note, in the order of the steps.
struct Sites {
    unsigned open, lock, query, config, seek, transfer, check;
};
constexpr Sites writeSites{519, 543, 567, 587, 604, 690, 726};
constexpr Sites readSites{280, 306, 330, 349, 369, 456, 495};

class HubTransfer : public EntryTest
{
protected:
    HubTransfer() { EXPECT_EQ(nullptr, kest_miscConvertTokensToAddress(&device, devicePath)); }
    ~HubTransfer() override { kest_miscReleaseDeviceInfo(device); }

    void again()
    {
        kest_miscReleaseDeviceInfo(device);
        EntryTest::again();
        EXPECT_EQ(nullptr, kest_miscConvertTokensToAddress(&device, devicePath));
        length = 4;
        std::memcpy(buffer, "\1\2\3\4\5\6\7\x8", 8);
    }

    void transfer(int operation, unsigned offset = 0x70123, const kest_attributeValue* attributes = defaults)
    {
        void* data = buffer;
        kest_922HubSupport(&device, &length, operation, &data, offset, attributes, errl, devicePath);
        EXPECT_EQ(buffer, data);
        EXPECT_EQ(0, platform.openHandles());
        EXPECT_EQ(0, platform.heldLocks());
    }

    static const Sites& sitesOf(int operation) { return operation == 1 ? writeSites : readSites; }

    // the steps as the log shows them
    static Call openCall()
    {
        return {Operation::open, "MernInitialize(0x80000000)\nmern_iic_open(node -1, \"sim:planar\", 0x1002)\n"};
    }
    static Call lockCall()
    {
        return {Operation::config, "mern_iic_config(h1, 2, 17, kind 0, address 0x80, timeout 1200)\n",
                configReported(17)};
    }
    static std::vector<Call> queryCalls()
    {
        return {setBlock({.offsetBytes = 0, .timeout = 20000, .writeCycle = 0, .page = 0, .flags = 0xFFFF0001}),
                readCall({0})};
    }
    static std::vector<Call> configCalls(int operation)
    {
        std::vector<Call> calls{setBlock({}),
                                {Operation::config, "mern_iic_config(h1, 2, 2, 0x190)\n", configReported(2)}};
        if (operation == 0) {
            calls.push_back({Operation::config, "mern_iic_config(h1, 2, 16, 0x2)\n"});
        }
        return calls;
    }
    static Call unlockCall()
    {
        return {Operation::config, "mern_iic_config(h1, 2, 18, kind 0, address 0x80, timeout 1200)\n",
                configReported(18)};
    }
    /// Four bytes; a read begins with the hub's status.
    static Call dataCall(int operation)
    {
        return operation == 1 ? writeCall({1, 2, 3, 4}) : readCall({0, 0xB1, 0xB2, 0xB3, 0xB4});
    }

    /// Everything up to the transfer of the data.
    Story& prepares(Story& story, int operation)
    {
        return story.does({openCall(), lockCall()})
            .does(queryCalls())
            .does(configCalls(operation))
            .does(seekCall(position));
    }
    /// The same, and the transfer itself.
    Story& transfers(Story& story, int operation)
    {
        prepares(story, operation).does(dataCall(operation));
        return operation == 1 ? story.says("usleep(15000)\n") : story;
    }
    static Story& ends(Story& story) { return story.does({unlockCall(), closeCall()}); }

    kest_deviceInfo device{};
    unsigned length = 4;
    std::uint8_t buffer[16]{1, 2, 3, 4, 5, 6, 7, 8};
};

TEST_F(HubTransfer, AWrite)
{
    Story story{platform};
    ends(transfers(story, 1).does(statusRead({}, 0)));
    transfer(1);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ("\n", hubTraces(platform));
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(4U, length);
    EXPECT_EQ(0, std::memcmp("\1\2\3\4\5\6\7\x8", buffer, 8));
}

TEST_F(HubTransfer, ARead)
{
    Story story{platform};
    ends(transfers(story, 0).does(statusRead({}, 0)));
    transfer(0);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ("\n", hubTraces(platform));
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(4U, length);
    // the status is in no buffer of the caller
    EXPECT_EQ(0, std::memcmp("\xB1\xB2\xB3\xB4\5\6\7\x8", buffer, 8));
}

TEST_F(HubTransfer, AnyOtherOperationDoesNothing)
{
    for (const int operation : {2, -1, 3, 0x7FFFFFFF}) {
        again();
        transfer(operation);
        EXPECT_EQ("\n", platform.calls());
        EXPECT_EQ("\n", hubTraces(platform));
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(4U, length);
    }
}

TEST_F(HubTransfer, EveryFunctionTracesEntryAndExit)
{
    platform.healthy();
    platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
        std::memset(bytes, 0, size);
        return static_cast<int>(size);
    };
    transfer(1);
    const std::vector<std::string> scopes = platform.lines(kindScope);
    EXPECT_EQ("trace(0xCAC3D793, \" %s\", \"kest_922HubSupport\")", scopes.front());
    EXPECT_EQ("trace(0xCDED1A85, \" %s\", \"kest_922HubSupport\")", scopes.back());
    for (const char* function :
         {"kest_922lockDeviceAddress", "kest_922HubQueryErrStatus", "kest_922setHubConfig",
          "kest_checkAndHandle922HubErr", "kest_read922HubPrevCmdStatus", "kest_922releaseDeviceAddressLock"}) {
        EXPECT_EQ(1, std::ranges::count(scopes, line("trace(0xCAC3D793, \" %%s\", \"%s\")", function))) << function;
        EXPECT_EQ(1, std::ranges::count(scopes, line("trace(0xCDED1A85, \" %%s\", \"%s\")", function))) << function;
    }
}

TEST_F(HubTransfer, AWriteWaitsForTheWriteCycleOfTheAttributes)
{
    for (const kest_attributeValue cycle : {0U, 1U, 20U, 4000U}) {
        again();
        const kest_attributeValue attributes[6] = {400, 1, cycle, 1, 2, 1};
        platform.healthy();
        platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
            std::memset(bytes, 0, size);
            return static_cast<int>(size);
        };
        transfer(1, 0, attributes);
        EXPECT_EQ((std::vector<unsigned>{cycle * 1000}), platform.sleeps());
    }
}

TEST_F(HubTransfer, TheSeekValueNamesPortDeviceAndOffset)
{
    struct {
        const char* text;
        unsigned offset;
        std::uint32_t position;
        unsigned offsetBytes, page;
    } const cases[] = {
        {"p,L,922,80,3,2c0032,a0", 0x123, 0x03A00123, 4, 32},
        {"p,L,922,82,0,2c0064,a2", 0, 0x00A20000, 4, 32},
        {"p,L,922,88,7,2c0128,ae", 0xFFFF, 0x07AEFFFF, 4, 64},
        {"p,L,922,8a,8,2c0256,a0", 0xABCD1234, 0x08A01234, 4, 64},
        {"p,L,922,80,ff,2c0512,fe", 0x10000, 0xFFFE0000, 4, 128},
        {"p,L,922,80,3,1c0002,a0", 0x7F, 0x0003A07F, 3, 8},
        {"p,L,922,80,ff,1c0002,ae", 0x1FF, 0x00FFAEFF, 3, 8},
        {"p,L,922,80,3,172,a0", 0x123, 0, 0, 0},
        {"p,L,922,80,3,9552,c0", 0x123, 0, 0, 0},
        {"p,L,922,80,3,75,90", 1, 0, 0, 0},
    };
    for (const auto& one : cases) {
        for (const int operation : {0, 1}) {
            again();
            kest_miscReleaseDeviceInfo(device);
            ASSERT_EQ(nullptr, kest_miscConvertTokensToAddress(&device, one.text));
            platform.healthy();
            platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
                std::memset(bytes, 0, size);
                return static_cast<int>(size);
            };
            transfer(operation, one.offset);
            const std::vector<std::string> calls = platform.lines(kindLayer);
            EXPECT_TRUE(std::ranges::count(calls, line("mern_iic_seek(h1, %ld, 0)", static_cast<long>(one.position))))
                << one.text << platform.layerCalls();
            const Call block =
                setBlock({.address = device.addressList->address, .offsetBytes = one.offsetBytes, .page = one.page});
            EXPECT_TRUE(std::ranges::count(calls, block.line.substr(0, block.line.size() - 1)))
                << one.text << platform.layerCalls();
        }
    }
}

TEST_F(HubTransfer, ThePositionGoesToTheRepeatToo)
{
    Story story{platform};
    transfers(story, 1).does(statusRead({}, 3)).does(writeCall({0x20, 0x06})).does(statusRead({}, 0));
    story.does({setBlock({}), seekCall(position), dataCall(1)}).does(statusRead({}, 0));
    ends(story);
    transfer(1);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(4U, length);
}

TEST_F(HubTransfer, AReadThatIsRepeatedTakesTheReducedSize)
{
    // the repeat asks for one byte less than the read, and its data do not reach the caller
    Story story{platform};
    transfers(story, 0).does(statusRead({}, 3)).does(writeCall({0x20, 0x06})).does(statusRead({}, 0));
    story.does({setBlock({}), seekCall(position), readCall({0, 9, 9, 9})}).does(statusRead({}, 0));
    ends(story);
    transfer(0);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(4U, length);
    EXPECT_EQ(0, std::memcmp("\xB1\xB2\xB3\xB4", buffer, 4));
}

// --- failing steps ---

TEST_F(HubTransfer, AnOpenThatFails)
{
    for (const int operation : {0, 1}) {
        for (const int error : {6, 61, 62, 5, 2, 19}) {
            again();
            platform.failsOpen(error);
            transfer(operation);
            EXPECT_EQ(R"(
MernInitialize(0x80000000)
mern_iic_open(node -1, "sim:planar", 0x1002)
)",
                      platform.layerCalls());
            ASSERT_NE(nullptr, errl);
            EXPECT_EQ((std::vector<SoftwareError>{{.returnCode = platform.entry(1).returnCode.value_or(0),
                                                   .word1 = 20,
                                                   .word2 = operation == 1 ? std::uint16_t{519} : std::uint16_t{280}}}),
                      platform.entry(1).softwareErrors);
            EXPECT_EQ(1U, platform.entry(1).srcs.size());
            EXPECT_EQ(line("\n %%s,%%s \"kest_922HubSupport\" \"%s\"\n", devicePath), hubTraces(platform));
            EXPECT_EQ(4U, length);
        }
    }
}

TEST_F(HubTransfer, ALockThatFailsIsNotReleased)
{
    for (const int operation : {0, 1}) {
        for (const int error : stepErrors) {
            again();
            Story story{platform};
            story.does(openCall()).fails(lockCall(), error).notes(1, 22, 986).does(closeCall());
            story.notes(1, 20, sitesOf(operation).lock);
            transfer(operation);
            EXPECT_EQ(story.text, platform.calls()) << error;
            EXPECT_EQ("\n985 0x9C262F5A %s \"kest_922lockDeviceAddress\"\n %s \"kest_922HubSupport\"\n",
                      hubTraces(platform));
            EXPECT_EQ(4U, length);
        }
    }
}

TEST_F(HubTransfer, AStatusQueryThatFails)
{
    const ExpectedSrc querySrc{
        .module = 33, .reason = 0x132A, .word1 = 0, .subsystem = 0x55, .sourceId = "kesthubsupport"};
    for (const int operation : {0, 1}) {
        for (const int error : stepErrors) {
            for (const bool atRead : {false, true}) {
                again();
                Story story{platform};
                story.does({openCall(), lockCall()});
                if (atRead) {
                    story.does(queryCalls().at(0)).fails(queryCalls().at(1), error);
                    if (error == silent) {
                        story.resetsHub(1);
                    }
                } else {
                    story.fails(queryCalls().at(0), error);
                }
                story.says(addedSrc(1, querySrc)).says(callout(1)).notes(1, 33, 1283);
                ends(story).notes(1, 20, sitesOf(operation).query);
                transfer(operation);
                EXPECT_EQ(story.text, platform.calls()) << error;
                EXPECT_EQ(2U, platform.entry(1).srcs.size());
                EXPECT_EQ(4U, length);
            }
        }
    }
}

TEST_F(HubTransfer, AHubThatReportsAnErrorBeforehandIsStillUsed)
{
    for (const int operation : {0, 1}) {
        for (int status = 1; status < 256; ++status) {
            again();
            Story story{platform};
            story.does({openCall(), lockCall(), queryCalls().at(0), readCall({static_cast<std::uint8_t>(status)})})
                .does(configCalls(operation))
                .does({seekCall(position), dataCall(operation)});
            if (operation == 1) {
                story.says("usleep(15000)\n");
            }
            ends(story.does(statusRead({}, 0)));
            transfer(operation);
            EXPECT_EQ(story.text, platform.calls()) << status;
            EXPECT_EQ(nullptr, errl);
        }
    }
}

TEST_F(HubTransfer, AConfigurationThatFails)
{
    for (const int operation : {0, 1}) {
        for (const int error : stepErrors) {
            for (const bool atSpeed : {false, true}) {
                again();
                Story story{platform};
                story.does({openCall(), lockCall()}).does(queryCalls());
                if (atSpeed) {
                    story.does(configCalls(operation).at(0));
                }
                story.fails(configCalls(operation).at(atSpeed ? 1 : 0), error).notes(1, 20, atSpeed ? 882 : 864);
                ends(story).notes(1, 20, sitesOf(operation).config);
                transfer(operation);
                EXPECT_EQ(story.text, platform.calls()) << error;
                EXPECT_EQ(4U, length);
            }
        }
    }
}

TEST_F(HubTransfer, ADmaOptionThatFailsDoesNotStopARead)
{
    Story story{platform};
    story.does({openCall(), lockCall()}).does(queryCalls());
    story.does({configCalls(0).at(0), configCalls(0).at(1)}).says(configCalls(0).at(2).line);
    platform.failsConfig(38);
    story.does({seekCall(position), dataCall(0)}).does(statusRead({}, 0));
    ends(story);
    StandardError captured;
    transfer(0);
    EXPECT_EQ("DMA workaround error\n", captured.text());
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(nullptr, errl);
}

TEST_F(HubTransfer, ASeekThatFails)
{
    for (const int operation : {0, 1}) {
        for (const int error : stepErrors) {
            again();
            Story story{platform};
            story.does({openCall(), lockCall()}).does(queryCalls()).does(configCalls(operation));
            story.fails(seekCall(position), error);
            ends(story).notes(1, 20, sitesOf(operation).seek);
            transfer(operation);
            EXPECT_EQ(story.text, platform.calls()) << error;
            EXPECT_EQ("\n %s \"kest_922HubSupport\"\n", hubTraces(platform));
            EXPECT_EQ(4U, length);
        }
    }
}

TEST_F(HubTransfer, AWriteThatFails)
{
    for (const int error : stepErrors) {
        again();
        Story story{platform};
        // a silent hub is not reset here, and there is no wait
        prepares(story, 1).fails(dataCall(1), error);
        ends(story).notes(1, 20, 690);
        transfer(1);
        EXPECT_EQ(story.text, platform.calls()) << error;
        EXPECT_EQ("\n %s \"kest_922HubSupport\"\n", hubTraces(platform));
        EXPECT_EQ(0U, length);
    }
}

TEST_F(HubTransfer, AWriteThatEndsShortReturnsWhatItWrote)
{
    Story story{platform};
    prepares(story, 1).says(dataCall(1).line);
    platform.writesShort(3, 62).capturesFfdc();
    story.says(failureLines(1, {{18, 0x1314, 62, 3, 3, 0, 0x55}, 0x1314, false})).codes[1] = 0x1314;
    ends(story).notes(1, 20, 690);
    transfer(1);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(3U, length);
}

TEST_F(HubTransfer, AReadThatFailsOtherwiseThanWithoutData)
{
    for (const int error : stepErrors) {
        if (error == 61) {
            continue;
        }
        again();
        Story story{platform};
        prepares(story, 0).fails(dataCall(0), error);
        if (error == silent) {
            story.resetsHub(1);
        }
        ends(story).notes(1, 20, 456);
        transfer(0);
        EXPECT_EQ(story.text, platform.calls()) << error;
        EXPECT_EQ(0U, length);
        EXPECT_EQ(error == silent ? 0x41000000U : story.codes[1], platform.entry(1).returnCode);
        EXPECT_EQ(0, std::memcmp("\1\2\3\4", buffer, 4));
        EXPECT_TRUE(hubTraces(platform).starts_with("\n392 %s \"kest_922HubSupport\"\n")) << hubTraces(platform);
    }
}

TEST_F(HubTransfer, ReadingShortIsAFailure)
{
    Story story{platform};
    prepares(story, 0).says(dataCall(0).line);
    platform.readsShort(hex("00 b1 b2"), 5).capturesFfdc();
    story.says(failureLines(1, {{13, 0x1312, 5, 3, 5, 0, 0x55}, 0x1312, false})).codes[1] = 0x1312;
    ends(story).notes(1, 20, 456);
    transfer(0);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(3U, length);
    EXPECT_EQ(0, std::memcmp("\1\2\3\4", buffer, 4));
}

// --- a read without data, after which the hub is asked for the reason ---

class HubReadWithoutData : public HubTransfer
{
protected:
    /// Up to the failed read; its entry is 1.
    Story& begins(Story& story) { return prepares(story, 0).fails(dataCall(0), 61); }
    /// The recovery with a repeat of the whole length.
    static Story& recovers(Story& story)
    {
        return story.does(writeCall({0x20, 0x06}))
            .does(statusRead({}, 0))
            .does({setBlock({}), seekCall(position), dataCall(0)});
    }
};

TEST_F(HubReadWithoutData, IsKeptWhenTheHubKnowsNothing)
{
    Story story{platform};
    begins(story).does(statusRead({}, 0));
    ends(story).notes(1, 20, 446);
    transfer(0);
    EXPECT_EQ(story.text, platform.calls());
    EXPECT_EQ(5U, length);
    EXPECT_NE(std::string::npos, hubTraces(platform).find("\n1125 %s \"kest_922HubHandlePrimSecErrLogs\"\n"));
}

TEST_F(HubReadWithoutData, TakesOverTheHubsStatus)
{
    struct {
        unsigned first, last, reason, subsystem;
        std::uint32_t returnCode;
    } const rows[] = {{1, 1, 0x1319, 0x81, 0x00101319},  {2, 2, 0x131A, 0x55, 0x4000131A},
                      {7, 7, 0x131C, 0x81, 0x0010131C},  {8, 8, 0x131D, 0x81, 0x0010131D},
                      {9, 11, 0x131E, 0x55, 0x1000131E}, {12, 255, 0x131F, 0x81, 0x1000131F}};
    for (const auto& row : rows) {
        for (unsigned status = row.first; status <= row.last; ++status) {
            again();
            Story story{platform};
            begins(story).does(statusRead({}, static_cast<std::uint8_t>(status)));
            story
                .says(newEntry(2, {.module = 27,
                                   .reason = row.reason,
                                   .word1 = status,
                                   .subsystem = row.subsystem,
                                   .sourceId = "kesthandlehuberrors"}))
                .setsReturnCode(2, row.returnCode)
                .says(callout(2))
                .says("entry1.addSRC(0x1300, SRC 0 of entry2)\n")
                .setsReturnCode(1, row.returnCode)
                .says("delete entry2\n");
            ends(story).notes(1, 20, 446);
            transfer(0);
            EXPECT_EQ(story.text, platform.calls()) << status;
            EXPECT_EQ(5U, length);
        }
    }
}

TEST_F(HubReadWithoutData, IsForgottenWhenTheRepeatWorks)
{
    for (unsigned status = 3; status <= 6; ++status) {
        again();
        Story story{platform};
        begins(story).does(statusRead({}, static_cast<std::uint8_t>(status)));
        recovers(story).does(statusRead({}, 0)).says("delete entry1\n");
        ends(story);
        transfer(0);
        EXPECT_EQ(story.text, platform.calls()) << status;
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(5U, length);
        // the data of the repeat do not reach the caller
        EXPECT_EQ(0, std::memcmp("\1\2\3\4\5", buffer, 5));
    }
}

TEST_F(HubReadWithoutData, DropsWhatFailsAfterASubBusReset)
{
    // the repeat is refused: its entry is deleted and the first one kept
    for (unsigned status = 1; status < 256; ++status) {
        again();
        Story story{platform};
        begins(story).does(statusRead({}, 3));
        recovers(story).does(statusRead({}, static_cast<std::uint8_t>(status)));
        story
            .says(newEntry(2, {.module = 27,
                               .reason = 0x131B,
                               .word1 = status,
                               .word2 = 0,
                               .subsystem = 0x55,
                               .sourceId = "kesthandlehuberrors"}))
            .setsReturnCode(2, 0x1000131B)
            .says(callout(2))
            .says("delete entry2\n");
        ends(story).notes(1, 20, 446);
        transfer(0);
        EXPECT_EQ(story.text, platform.calls()) << status;
        EXPECT_EQ(5U, length);
    }
}

TEST_F(HubReadWithoutData, TakesOverThatTheStatusCannotBeRead)
{
    constexpr unsigned sites[] = {786, 811, 830};
    for (const int error : stepErrors) {
        for (std::size_t failing = 0; failing < 3; ++failing) {
            again();
            Story story{platform};
            const auto calls = statusRead({}, 0);
            begins(story).does({calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(failing)});
            story.fails(calls[failing], error, 2);
            const std::uint32_t failed = story.codes[2];
            story.setsReturnCode(2, failed | 0x00100000).says(softwareError(2, failed, 29, sites[failing]));
            if (error == silent) {
                story.resetsHub(2);
            }
            story.notes(2, 27, 164)
                .says("entry1.addSRC(0x1300, SRC 0 of entry2)\n")
                .setsReturnCode(1, story.codes[2])
                .says("delete entry2\n");
            ends(story).notes(1, 20, 446);
            transfer(0);
            EXPECT_EQ(story.text, platform.calls()) << error << " at " << failing;
        }
    }
}

TEST_F(HubReadWithoutData, EndsWithEitherAnEntryOrTheRepeatWhateverFails)
{
    // reported each time the option fails
    const StandardError dmaLines;
    // every layer call after the failed read fails once
    for (const int error : stepErrors) {
        int failing = 1;
        for (bool met = true; met; ++failing) {
            again();
            platform.healthy();
            int reads = 0;
            platform.readHandler = [&reads](std::uint8_t* bytes, unsigned size) {
                // the status of the query, the transfer, then the hub's statuses: first 3, then 0
                ++reads;
                std::memset(bytes, reads == 3 ? 3 : 0, size);
                errno = 61;
                return reads == 2 ? 0 : static_cast<int>(size);
            };
            platform.failCall(failing, error);
            transfer(0);
            met = platform.faultWasMet();
            const bool late = platform.failedCall().find(", 18, ") != std::string::npos ||
                              platform.failedCall().find("close") != std::string::npos ||
                              platform.failedCall().find("ffdc") != std::string::npos ||
                              platform.failedCall().find(", 16, ") != std::string::npos;
            EXPECT_EQ(met && !late, errl != nullptr) << failing << platform.failedCall();
        }
        EXPECT_LT(20, failing);
    }
}

// --- after the transfer ---

TEST_F(HubTransfer, AStatusThatEndsTheTransfer)
{
    struct {
        unsigned first, last, traceLine;
        std::uint32_t hash;
        unsigned reason, subsystem;
        std::uint32_t returnCode;
    } const rows[] = {
        {1, 1, 180, 0xC73070B1, 0x1319, 0x81, 0x00101319},  {2, 2, 212, 0xAE369C6A, 0x131A, 0x55, 0x4000131A},
        {7, 7, 457, 0x27E236C0, 0x131C, 0x81, 0x0010131C},  {8, 8, 491, 0xFACF14B6, 0x131D, 0x81, 0x0010131D},
        {9, 11, 529, 0xE6AD6503, 0x131E, 0x55, 0x1000131E}, {12, 255, 559, 0x34B64FEC, 0x131F, 0x81, 0x1000131F},
    };
    for (const auto& row : rows) {
        for (unsigned status = row.first; status <= row.last; ++status) {
            for (const int operation : {0, 1}) {
                again();
                Story story{platform};
                transfers(story, operation).does(statusRead({}, static_cast<std::uint8_t>(status)));
                story
                    .says(newEntry(1, {.module = 27,
                                       .reason = row.reason,
                                       .word1 = status,
                                       .subsystem = row.subsystem,
                                       .sourceId = "kesthandlehuberrors"}))
                    .setsReturnCode(1, row.returnCode)
                    .says(callout(1));
                ends(story).notes(1, 20, sitesOf(operation).check);
                transfer(operation);
                EXPECT_EQ(story.text, platform.calls()) << status;
                EXPECT_EQ(
                    line("\n%u 0x%08X %%s,%%x \"kest_checkAndHandle922HubErr\" 0x%X\n %%s \"kest_922HubSupport\"\n",
                         row.traceLine, row.hash, status),
                    hubTraces(platform));
                EXPECT_EQ(4U, length);
            }
        }
    }
}

TEST_F(HubTransfer, AStatusThatCannotBeRead)
{
    constexpr unsigned sites[] = {786, 811, 830};
    for (const int operation : {0, 1}) {
        for (const int error : stepErrors) {
            for (std::size_t failing = 0; failing < 3; ++failing) {
                again();
                Story story{platform};
                const auto calls = statusRead({}, 0);
                transfers(story, operation).does({calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(failing)});
                story.fails(calls[failing], error);
                const std::uint32_t failed = story.codes[1];
                story.setsReturnCode(1, failed | 0x00100000).says(softwareError(1, failed, 29, sites[failing]));
                if (error == silent) {
                    story.resetsHub(1);
                }
                story.notes(1, 27, 164);
                ends(story).notes(1, 20, sitesOf(operation).check);
                transfer(operation);
                EXPECT_EQ(story.text, platform.calls()) << error << " at " << failing;
                EXPECT_EQ(4U, length);
            }
        }
    }
}

TEST_F(HubTransfer, ASubBusErrorIsRecovered)
{
    for (const int operation : {0, 1}) {
        for (unsigned status = 3; status <= 6; ++status) {
            again();
            Story story{platform};
            transfers(story, operation).does(statusRead({}, static_cast<std::uint8_t>(status)));
            story.does(writeCall({0x20, 0x06})).does(statusRead({}, 0)).does({setBlock({}), seekCall(position)});
            story.does(operation == 1 ? dataCall(1) : readCall({0, 9, 9, 9})).does(statusRead({}, 0));
            ends(story);
            transfer(operation);
            EXPECT_EQ(story.text, platform.calls()) << status;
            EXPECT_EQ(nullptr, errl);
            EXPECT_EQ(4U, length);
            EXPECT_EQ(line("\n260 0x3E54A1DF %%s,%%x \"kest_checkAndHandle922HubErr\" 0x%X\n", status),
                      hubTraces(platform));
        }
    }
}

TEST_F(HubTransfer, AFailedRepeatReturnsItsLength)
{
    for (const int operation : {0, 1}) {
        again();
        Story story{platform};
        transfers(story, operation).does(statusRead({}, 3));
        story.does(writeCall({0x20, 0x06})).does(statusRead({}, 0)).does({setBlock({}), seekCall(position)});
        story.fails(operation == 1 ? dataCall(1) : readCall({0, 9, 9, 9}), 5);
        const std::uint32_t failed = story.codes[1];
        story.setsReturnCode(1, failed | 0x10000000).says(softwareError(1, failed, 27, 362));
        ends(story).notes(1, 20, sitesOf(operation).check);
        transfer(operation);
        EXPECT_EQ(story.text, platform.calls());
        EXPECT_EQ(0U, length);
    }
}

TEST_F(HubTransfer, AReleaseOrACloseThatFailsIsCommittedApart)
{
    for (const int operation : {0, 1}) {
        for (const int error : stepErrors) {
            again();
            Story story{platform};
            transfers(story, operation).does(statusRead({}, 0));
            story.fails(unlockCall(), error, 1).notes(1, 23, 1052).commitsSecondary(1);
            story.fails(closeCall(), error, 2).commitsSecondary(2);
            transfer(operation);
            EXPECT_EQ(story.text, platform.calls()) << error;
            EXPECT_EQ(nullptr, errl);
            EXPECT_EQ(2, platform.commits());
            EXPECT_EQ("\n1051 0x4389D153 %s \"kest_922releaseDeviceAddressLock\"\n"
                      " %s,%x \"kest_922HubSupport\" 0x50000001\n"
                      " %s,%x \"kest_922HubSupport\" 0x50000002\n",
                      hubTraces(platform));
        }
    }
}

TEST_F(HubTransfer, ALateFailureDoesNotReachTheCallersEntry)
{
    for (const int operation : {0, 1}) {
        again();
        Story story{platform};
        story.does({openCall(), lockCall()}).does(queryCalls()).does(configCalls(operation));
        story.fails(seekCall(position), 5);
        story.fails(unlockCall(), 5, 2).notes(2, 23, 1052).commitsSecondary(2);
        story.fails(closeCall(), 5, 3).commitsSecondary(3);
        story.notes(1, 20, sitesOf(operation).seek);
        transfer(operation);
        EXPECT_EQ(story.text, platform.calls());
        EXPECT_EQ(1U, platform.entry(1).srcs.size());
    }
}

// --- sizes and memory ---

TEST_F(HubTransfer, AReadWhoseSizeWrapsIsRefused)
{
    Story story{platform};
    // the time-out of a transfer of this length: 1,200 ms for each whole 256 bytes, in 32 bits
    const unsigned timeout = 0xFFFFFFU * 1200U;
    Call lock = lockCall();
    lock.line = line("mern_iic_config(h1, 2, 17, kind 0, address 0x80, timeout %u)\n", timeout);
    Call unlock = unlockCall();
    unlock.line = line("mern_iic_config(h1, 2, 18, kind 0, address 0x80, timeout %u)\n", timeout);
    story.does({openCall(), lock}).does(queryCalls());
    story.does({setBlock({.timeout = timeout}), configCalls(0).at(1), configCalls(0).at(2), seekCall(position), unlock,
                closeCall()});
    length = 0xFFFFFFFF;
    transfer(0);
    EXPECT_EQ(
        story.text +
            R"(entry1 = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, 20, 0x43FF, 0x132B, 0xFFFFFFFF, 0x0, 0x0, 0x0, 0x81, 0)
entry1.CollectTrace("IIC", 500)
entry1.CollectTrace("kest", 500)
entry1.addUsrDtls("kesthubsupport", 0x1300, 1, 2)
entry1.setRC(0x8000132B)
entry1.addProcedureCallout(1, 4)
)",
        platform.calls());
}

TEST_F(HubTransfer, WithoutMemoryForTheBufferNothingIsTransferred)
{
    for (const int operation : {0, 1}) {
        again();
        // opening a device allocates nothing, so the first allocation is the buffer
        platform.healthy().failAllocation();
        platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
            std::memset(bytes, 0, size);
            return static_cast<int>(size);
        };
        transfer(operation);
        ASSERT_NE(nullptr, errl);
        EXPECT_EQ((std::vector<Src>{{.module = 20, .reason = 0x132B, .word1 = 4}}), platform.entry(1).srcs);
        EXPECT_EQ(0x8000132BU, platform.entry(1).returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), platform.entry(1).callouts);
        EXPECT_TRUE(platform.written().empty());
        EXPECT_EQ(std::string::npos, platform.layerCalls().find("mern_iic_read(h1, 5)"));
        // a write allocates its buffer before it opens the device
        EXPECT_EQ(operation == 1, platform.layerCalls() == "\n");
    }
}

TEST_F(HubTransfer, OneByteAndNone)
{
    for (const unsigned bytes : {0U, 1U}) {
        for (const int operation : {0, 1}) {
            again();
            length = bytes;
            platform.healthy();
            platform.readHandler = [](std::uint8_t* out, unsigned size) {
                for (unsigned i = 0; i < size; ++i) {
                    out[i] = i == 0 ? 0 : 0xC7;
                }
                return static_cast<int>(size);
            };
            transfer(operation);
            EXPECT_EQ(nullptr, errl);
            EXPECT_EQ(bytes, length);
            EXPECT_EQ(operation == 0 && bytes == 1 ? 0xC7 : 1, buffer[0]);
            EXPECT_EQ(2, buffer[1]);
        }
    }
}

TEST_F(HubTransfer, ACountLeftByACommittedFailureIsKeptWithinTheBuffer)
{
    // the wrapper commits a deadlock and leaves no entry; the count is what the layer returned
    for (const int operation : {0, 1}) {
        again();
        platform.healthy();
        int reads = 0;
        platform.readHandler = [&reads](std::uint8_t* bytes, unsigned size) {
            std::memset(bytes, 0, size);
            errno = 35;
            return size == 5 && ++reads == 1 ? -1 : static_cast<int>(size);
        };
        platform.writeHandler = [](const std::uint8_t*, unsigned) {
            errno = 35;
            return -1;
        };
        transfer(operation);
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(1, platform.commits());
        EXPECT_EQ(4U, length);
        EXPECT_EQ(0, std::memcmp(operation == 0 ? "\0\0\0\0\5" : "\1\2\3\4\5", buffer, 5));
    }
}

TEST_F(HubTransfer, ACountLeftByACommittedRepeatIsNotReturned)
{
    for (const int operation : {0, 1}) {
        again();
        platform.healthy();
        int reads = 0;
        platform.readHandler = [&reads](std::uint8_t* bytes, unsigned size) {
            // the status before the transfer, the transfer of a read, and the status after it: a sub-bus error
            std::memset(bytes, ++reads == 3 ? 3 : 0, size);
            errno = 35;
            // the repeat
            return reads > 3 && size > 1 ? -1 : static_cast<int>(size);
        };
        int writes = 0;
        platform.writeHandler = [&](const std::uint8_t*, unsigned size) {
            // instead of the transfer of a read
            reads += ++writes == 1 && size == 4 ? 1 : 0;
            errno = 35;
            return size == 4 && writes > 1 ? -1 : static_cast<int>(size);
        };
        transfer(operation);
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(1, platform.commits());
        EXPECT_EQ(4U, length) << operation;
    }
}

TEST_F(HubTransfer, ARepeatMovesNoMoreThanTheBufferHolds)
{
    // the transfer itself ended in a deadlock, which was committed, and left a wrong count; the hub's status asks for a
    // repeat
    Story story{platform};
    prepares(story, 1);
    platform.writesShort(-1, 35).capturesFfdc();
    story.does(statusRead({}, 3)).does(writeCall({0x20, 0x06})).does(statusRead({}, 0));
    story.does({setBlock({}), seekCall(position), writeCall({1, 2, 3, 4})}).does(statusRead({}, 0));
    ends(story);
    transfer(1);
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ((std::vector<Bytes>{hex("01 02 03 04"), hex("20 06"), hex("01 02 03 04")}), platform.written());
    EXPECT_EQ(4U, length);
}

TEST_F(HubTransfer, EndsCleanWhateverFails)
{
    // reported each time the option fails
    const StandardError dmaLines;
    for (const int operation : {0, 1}) {
        for (const int error : stepErrors) {
            int failing = 1;
            for (bool met = true; met; ++failing) {
                again();
                platform.healthy();
                platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
                    std::memset(bytes, 0, size);
                    return static_cast<int>(size);
                };
                // and every later call
                platform.failCall(failing, error, true);
                transfer(operation);
                met = platform.faultWasMet();
                EXPECT_TRUE(!met || errl != nullptr || platform.commits() > 0 ||
                            platform.failedCall().find(", 16, ") != std::string::npos)
                    << platform.failedCall();
                EXPECT_EQ(0, platform.liveBuffers());
                EXPECT_EQ(errl == nullptr ? 0 : 1, platform.liveEntries());
            }
        }
    }
}

} // namespace
