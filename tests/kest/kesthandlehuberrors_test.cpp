#include "kesthandlehuberrors.h"

#include <cstring>
#include <memory>

#include "tests/kest/hubstory.h"

using namespace kest;
using namespace hubstory;

namespace
{

constexpr const char* unit = "kesthandlehuberrors";
const Block theBlock = {};
// source lines of the steps of a status read
constexpr unsigned statusLines[] = {786, 811, 830};

class HubErrors : public HubTest
{
protected:
    void again()
    {
        HubTest::again();
        size = 4;
        subBusReset = 0;
    }

    void check(int direction)
    {
        Bytes block = blockBytes(theBlock);
        kest_checkAndHandle922HubErr(handle, errl, &size, direction, &subBusReset, devicePath, 0x80, block.data(),
                                     buffer, 0x03A00123);
    }

    /// A status read that fails at one of its steps, and what it adds to entry `entry`.
    static void failStatusRead(Story& story, std::size_t failing, int error, int entry = 1)
    {
        const auto calls = statusRead(theBlock, 0);
        story.does({calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(failing)})
            .fails(calls[failing], error, entry);
        const std::uint32_t failed = story.codes[entry];
        story.setsReturnCode(entry, failed | 0x00100000).says(softwareError(entry, failed, 29, statusLines[failing]));
    }

    Call repeat(int direction) const
    {
        return direction == 1 ? writeCall({1, 2, 3, 4}) : readCall({0, 0xB1, 0xB2, 0xB3});
    }

    /// The recovery's calls up to the repeated transfer.
    std::vector<Call> recovery() const
    {
        std::vector<Call> calls{writeCall({0x20, 0x06})};
        for (const Call& call : statusRead(theBlock, 0)) {
            calls.push_back(call);
        }
        calls.push_back(setBlock(theBlock));
        calls.push_back(seekCall(0x03A00123));
        return calls;
    }

    unsigned int size = 4;
    unsigned char subBusReset = 0;
    std::uint8_t buffer[16] = {1, 2, 3, 4};
};

// --- the single commands ---

TEST_F(HubErrors, PreviousStatusIsReadPlainly)
{
    for (int status = 0; status < 256; ++status) {
        again();
        Story story{platform};
        story.does(statusRead(theBlock, static_cast<std::uint8_t>(status)));
        unsigned int answer = 0x12345678;
        kest_read922HubPrevCmdStatus(handle, &answer, errl);
        EXPECT_EQ(static_cast<unsigned>(status), answer);
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(story.text, platform.calls());
        EXPECT_EQ("\n", hubTraces(platform));
    }
}

TEST_F(HubErrors, PreviousStatusClearsThreeWordsOfTheBlockAlone)
{
    Bytes block = counting(44, 100);
    platform.configuresReading(block).configures().reads({0});
    unsigned int answer = 1;
    kest_read922HubPrevCmdStatus(handle, &answer, errl);
    for (const std::size_t word : {4U, 20U, 24U}) {
        std::memset(block.data() + word, 0, 4);
    }
    EXPECT_EQ(block, platform.configs().at(1).value);
}

TEST_F(HubErrors, PreviousStatusFailingAtEachStep)
{
    for (const int error : stepErrors) {
        for (std::size_t failing = 0; failing < 3; ++failing) {
            again();
            Story story{platform};
            failStatusRead(story, failing, error);
            unsigned int answer = 77;
            kest_read922HubPrevCmdStatus(handle, &answer, errl);
            EXPECT_EQ(story.text, platform.calls()) << error << " at " << failing;
            EXPECT_NE(nullptr, errl);
            EXPECT_EQ(line("\n %%s \"kest_read922HubPrevCmdStatus\"\n"), hubTraces(platform));
            EXPECT_EQ(77U, answer);
        }
    }
}

TEST_F(HubErrors, AStatusReadThatEndsInADeadlockIsNoSuccess)
{
    Story story{platform};
    const auto calls = statusRead(theBlock, 0);
    story.does({calls[0], calls[1]}).fails(calls[2], 35);
    unsigned int answer = 77;
    kest_read922HubPrevCmdStatus(handle, &answer, errl);
    EXPECT_EQ(story.text, platform.calls());
    // committed below
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(255U, answer);
}

TEST_F(HubErrors, ErrorStatusIsCommandedAndRead)
{
    for (int status = 0; status < 256; ++status) {
        again();
        Story story{platform};
        story.does({writeCall({0x20, 0x07}), readCall({static_cast<std::uint8_t>(status)})});
        unsigned int answer = 0x12345678;
        kest_read922HubErrStatus(handle, &answer, errl);
        EXPECT_EQ(static_cast<unsigned>(status), answer);
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(story.text, platform.calls());
    }
}

TEST_F(HubErrors, ErrorStatusFailingAtEachStep)
{
    for (const int error : stepErrors) {
        again();
        Story command{platform};
        command.fails(writeCall({0x20, 0x07}), error).notes(1, 30, 910);
        unsigned int answer = 77;
        kest_read922HubErrStatus(handle, &answer, errl);
        EXPECT_EQ(command.text, platform.calls()) << error;
        EXPECT_EQ(77U, answer);

        again();
        Story read{platform};
        read.does(writeCall({0x20, 0x07})).fails(readCall({0}), error).notes(1, 30, 926);
        answer = 77;
        kest_read922HubErrStatus(handle, &answer, errl);
        EXPECT_EQ(read.text, platform.calls()) << error;
        EXPECT_EQ(0U, answer);
    }
}

TEST_F(HubErrors, SubBusResetEndsWithTheHubsStatus)
{
    for (int status = 0; status < 256; ++status) {
        again();
        Story story{platform};
        story.does(writeCall({0x20, 0x06})).does(statusRead(theBlock, static_cast<std::uint8_t>(status)));
        if (status != 0) {
            story
                .says(newEntry(1, {.module = 28,
                                   .reason = 0x1321,
                                   .word1 = static_cast<std::uint32_t>(status),
                                   .subsystem = 0x55,
                                   .sourceId = unit}))
                .setsReturnCode(1, 0x131F)
                .says(callout(1));
        }
        kest_reset922HubSubBus(handle, errl);
        EXPECT_EQ(story.text, platform.calls());
        EXPECT_EQ(status == 0 ? "\n" : line("\n701 %%s,%%x \"kest_reset922HubSubBus\" 0x%X\n", status),
                  hubTraces(platform));
    }
}

TEST_F(HubErrors, SubBusResetFailingAtEachStep)
{
    for (const int error : stepErrors) {
        again();
        Story command{platform};
        command.fails(writeCall({0x20, 0x06}), error).notes(1, 28, 680);
        kest_reset922HubSubBus(handle, errl);
        EXPECT_EQ(command.text, platform.calls()) << error;

        for (std::size_t failing = 0; failing < 3; ++failing) {
            again();
            Story story{platform};
            story.does(writeCall({0x20, 0x06}));
            failStatusRead(story, failing, error);
            story.notes(1, 28, 693);
            kest_reset922HubSubBus(handle, errl);
            EXPECT_EQ(story.text, platform.calls()) << error << " at " << failing;
        }
    }
}

// --- the check ---

struct StatusRow {
    unsigned first, last;
    unsigned traceLine;
    std::uint32_t hash;
    unsigned reason, subsystem;
    std::uint32_t returnCode;
};
constexpr StatusRow statusRows[] = {
    {1, 1, 180, 0xC73070B1, 0x1319, 0x81, 0x00101319},  {2, 2, 212, 0xAE369C6A, 0x131A, 0x55, 0x4000131A},
    {7, 7, 457, 0x27E236C0, 0x131C, 0x81, 0x0010131C},  {8, 8, 491, 0xFACF14B6, 0x131D, 0x81, 0x0010131D},
    {9, 11, 529, 0xE6AD6503, 0x131E, 0x55, 0x1000131E}, {12, 255, 559, 0x34B64FEC, 0x131F, 0x81, 0x1000131F},
};

TEST_F(HubErrors, AStatusOf0LeavesEverythingAsItIs)
{
    for (const int direction : {0, 1}) {
        again();
        Story story{platform};
        story.does(statusRead(theBlock, 0));
        check(direction);
        EXPECT_EQ(story.text, platform.calls());
        EXPECT_EQ("\n", hubTraces(platform));
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(0, subBusReset);
        EXPECT_EQ(4U, size);
    }
}

TEST_F(HubErrors, EveryStatusThatEndsTheTransfer)
{
    int seen = 0;
    for (const StatusRow& row : statusRows) {
        for (unsigned status = row.first; status <= row.last; ++status) {
            for (const int direction : {0, 1}) {
                again();
                Story story{platform};
                story.does(statusRead(theBlock, static_cast<std::uint8_t>(status)))
                    .says(newEntry(1, {.module = 27,
                                       .reason = row.reason,
                                       .word1 = status,
                                       .subsystem = row.subsystem,
                                       .sourceId = unit}))
                    .setsReturnCode(1, row.returnCode)
                    .says(callout(1));
                check(direction);
                EXPECT_EQ(story.text, platform.calls()) << status;
                EXPECT_EQ(line("\n%u 0x%08X %%s,%%x \"kest_checkAndHandle922HubErr\" 0x%X\n", row.traceLine, row.hash,
                               status),
                          hubTraces(platform));
                EXPECT_EQ(0, subBusReset);
                EXPECT_EQ(4U, size);
                ++seen;
            }
        }
    }
    // all but 0 and 3 to 6
    EXPECT_EQ(2 * (256 - 5), seen);
}

TEST_F(HubErrors, AStatusThatCannotBeRead)
{
    for (const int error : stepErrors) {
        for (const int direction : {0, 1}) {
            for (std::size_t failing = 0; failing < 3; ++failing) {
                again();
                Story story{platform};
                failStatusRead(story, failing, error);
                if (error == silent) {
                    story.resetsHub(1);
                }
                story.notes(1, 27, 164);
                check(direction);
                EXPECT_EQ(story.text, platform.calls()) << error << " at " << failing;
                EXPECT_EQ(0, subBusReset);
                EXPECT_EQ(error == silent ? 0x41000000U : story.codes[1], platform.entry(1).returnCode);
            }
        }
    }
}

TEST_F(HubErrors, ASubBusErrorIsRecoveredAndTheTransferRepeated)
{
    for (unsigned status = 3; status <= 6; ++status) {
        for (const int direction : {0, 1}) {
            again();
            Story story{platform};
            story.does(statusRead(theBlock, static_cast<std::uint8_t>(status)))
                .does(recovery())
                .does(repeat(direction))
                .does(statusRead(theBlock, 0));
            check(direction);
            EXPECT_EQ(story.text, platform.calls()) << status;
            EXPECT_EQ(line("\n260 0x3E54A1DF %%s,%%x \"kest_checkAndHandle922HubErr\" 0x%X\n", status),
                      hubTraces(platform));
            EXPECT_EQ(nullptr, errl);
            EXPECT_EQ(1, subBusReset);
            EXPECT_EQ(4U, size);
            EXPECT_EQ(direction == 0 ? 0xB1 : 2, buffer[1]);
            buffer[1] = 2;
            buffer[0] = 1;
            buffer[2] = 3;
            buffer[3] = 4;
        }
    }
}

TEST_F(HubErrors, ARepeatThatTheHubRefuses)
{
    for (unsigned status = 1; status <= 255; ++status) {
        for (const std::uint32_t direction : {0U, 1U}) {
            again();
            std::memcpy(buffer, "\1\2\3\4", 4);
            Story story{platform};
            story.does(statusRead(theBlock, 3))
                .does(recovery())
                .does(repeat(static_cast<int>(direction)))
                .does(statusRead(theBlock, static_cast<std::uint8_t>(status)))
                .says(newEntry(1, {.module = 27,
                                   .reason = 0x131B,
                                   .word1 = status,
                                   .word2 = direction,
                                   .subsystem = 0x55,
                                   .sourceId = unit}))
                .setsReturnCode(1, 0x1000131B)
                .says(callout(1));
            check(static_cast<int>(direction));
            EXPECT_EQ(story.text, platform.calls()) << status;
            EXPECT_EQ(line("\n260 0x3E54A1DF %%s,%%x \"kest_checkAndHandle922HubErr\" 0x3\n"
                           "422 0x9E864549 %%s,%%x \"kest_checkAndHandle922HubErr\" 0x%X\n",
                           status),
                      hubTraces(platform));
            EXPECT_EQ(1, subBusReset);
        }
    }
}

TEST_F(HubErrors, ASubBusResetThatTheHubRefuses)
{
    // The status 6 is where other entries have an errno, so the hub counts as silent.
    for (unsigned status = 1; status <= 255; ++status) {
        again();
        Story story{platform};
        story.does(statusRead(theBlock, 5))
            .does(writeCall({0x20, 0x06}))
            .does(statusRead(theBlock, static_cast<std::uint8_t>(status)))
            .says(newEntry(1, {.module = 28, .reason = 0x1321, .word1 = status, .subsystem = 0x55, .sourceId = unit}))
            .setsReturnCode(1, 0x131F)
            .says(callout(1));
        if (status == silent) {
            story.resetsHub(1);
        }
        const std::uint32_t before = story.codes[1];
        story.setsReturnCode(1, 0x1000131F).says(softwareError(1, before, 27, 272));
        check(1);
        EXPECT_EQ(story.text, platform.calls()) << status;
        EXPECT_EQ(1, subBusReset);
    }
}

TEST_F(HubErrors, ASubBusResetThatFailsAtEachStep)
{
    for (const int error : stepErrors) {
        for (std::size_t failing = 0; failing < 4; ++failing) {
            again();
            Story story{platform};
            story.does(statusRead(theBlock, 4));
            if (failing == 0) {
                story.fails(writeCall({0x20, 0x06}), error).notes(1, 28, 680);
            } else {
                story.does(writeCall({0x20, 0x06}));
                failStatusRead(story, failing - 1, error);
                story.notes(1, 28, 693);
            }
            const std::uint32_t failed = story.codes[1];
            if (error == silent) {
                story.resetsHub(1);
            }
            const std::uint32_t code = story.codes[1];
            story.setsReturnCode(1, failed | 0x10000000).says(softwareError(1, code, 27, 272));
            check(0);
            EXPECT_EQ(story.text, platform.calls()) << error << " at " << failing;
            EXPECT_EQ(1, subBusReset);
        }
    }
}

TEST_F(HubErrors, ARecoveryThatFailsAtTheBlockOrTheSeek)
{
    for (const int error : stepErrors) {
        for (const bool atSeek : {false, true}) {
            for (const int direction : {0, 1}) {
                again();
                Story story{platform};
                auto calls = recovery();
                calls.pop_back();
                if (!atSeek) {
                    calls.pop_back();
                }
                story.does(statusRead(theBlock, 6)).does(calls);
                story.fails(atSeek ? seekCall(0x03A00123) : setBlock(theBlock), error);
                const std::uint32_t failed = story.codes[1];
                if (error == silent) {
                    story.resetsHub(1);
                }
                const std::uint32_t code = story.codes[1];
                story.setsReturnCode(1, failed | 0x10000000).says(softwareError(1, code, 27, atSeek ? 319 : 292));
                check(direction);
                EXPECT_EQ(story.text, platform.calls()) << error << (atSeek ? " seek" : " block");
                EXPECT_EQ(1, subBusReset);
                EXPECT_EQ(4U, size);
            }
        }
    }
}

TEST_F(HubErrors, ARepeatThatFailsOtherwiseThanWithoutData)
{
    for (const int error : stepErrors) {
        for (const int direction : {0, 1}) {
            if (error == 61) {
                continue;
            }
            again();
            Story story{platform};
            story.does(statusRead(theBlock, 6)).does(recovery()).fails(repeat(direction), error);
            const std::uint32_t failed = story.codes[1];
            if (error == silent) {
                story.resetsHub(1);
            }
            const std::uint32_t code = story.codes[1];
            story.setsReturnCode(1, failed | 0x10000000).says(softwareError(1, code, 27, 362));
            check(direction);
            EXPECT_EQ(story.text, platform.calls()) << error;
            EXPECT_EQ(line("\n260 0x3E54A1DF %%s,%%x \"kest_checkAndHandle922HubErr\" 0x6\n"
                           "362 %%s,%%d \"kest_checkAndHandle922HubErr\" %d\n",
                           direction) +
                          (error == silent
                               ? line(" %%s,%%s,%%s \"kest_handle_hub_reset\" \"%s\" \"sim:planar,L,9552,0xC0\"\n",
                                      devicePath)
                               : ""),
                      hubTraces(platform));
            EXPECT_EQ(1, subBusReset);
            EXPECT_EQ(0U, size);
        }
    }
}

TEST_F(HubErrors, ARepeatWithoutDataIsKeptThoughTheStatusIs0)
{
    for (const int direction : {0, 1}) {
        again();
        Story story{platform};
        story.does(statusRead(theBlock, 6)).does(recovery()).fails(repeat(direction), 61).does(statusRead(theBlock, 0));
        story.notes(1, 27, 0);
        check(direction);
        EXPECT_EQ(story.text, platform.calls());
        EXPECT_EQ(direction == 1 ? 0x1314U : 0x1312U, platform.entry(1).returnCode);
        EXPECT_EQ(1, subBusReset);
    }
}

TEST_F(HubErrors, ARepeatWithoutDataThatTheHubRefuses)
{
    for (unsigned status = 1; status <= 255; ++status) {
        for (const std::uint32_t direction : {0U, 1U}) {
            again();
            Story story{platform};
            story.does(statusRead(theBlock, 6))
                .does(recovery())
                .fails(repeat(static_cast<int>(direction)), 61)
                .does(statusRead(theBlock, static_cast<std::uint8_t>(status)))
                .says(addedSrc(1, {.module = 27,
                                   .reason = 0x131B,
                                   .word1 = status,
                                   .word2 = direction,
                                   .subsystem = 0x55,
                                   .sourceId = unit}));
            const std::uint32_t failed = story.codes[1];
            story.setsReturnCode(1, 0x1000131B).says(callout(1)).says(softwareError(1, failed, 27, 422));
            check(static_cast<int>(direction));
            EXPECT_EQ(story.text, platform.calls()) << status;
        }
    }
}

TEST_F(HubErrors, ARepeatWhoseStatusCannotBeRead)
{
    for (const int error : stepErrors) {
        for (const int direction : {0, 1}) {
            for (std::size_t failing = 0; failing < 3; ++failing) {
                again();
                std::memcpy(buffer, "\1\2\3\4", 4);
                Story story{platform};
                story.does(statusRead(theBlock, 3)).does(recovery()).does(repeat(direction));
                failStatusRead(story, failing, error);
                // a new entry takes over the contents
                story.says("entry2 = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, 0, 0x43FF, 0x0, 0x0, 0x0, 0x0, 0x0, 0x81, 0)\n"
                           "entry2 = copy of entry1\n"
                           "delete entry1\n");
                const std::uint32_t failed = story.codes[2] = story.codes[1];
                if (error == silent) {
                    story.resetsHub(2);
                }
                const std::uint32_t code = story.codes[2];
                story.setsReturnCode(2, failed | 0x10000000).says(softwareError(2, code, 27, 384));
                check(direction);
                EXPECT_EQ(story.text, platform.calls()) << error << " at " << failing;
            }
        }
    }
}

TEST_F(HubErrors, ARepeatWithoutDataWhoseStatusCannotBeRead)
{
    for (const int error : stepErrors) {
        for (const int direction : {0, 1}) {
            for (std::size_t failing = 0; failing < 3; ++failing) {
                again();
                Story story{platform};
                story.does(statusRead(theBlock, 3)).does(recovery()).fails(repeat(direction), 61);
                failStatusRead(story, failing, error, 2);
                const std::uint32_t merged = story.codes[2];
                // the first SRC is still the one with errno 61, so the hub is not reset
                story.says("entry1.addSRC(0x1300, SRC 0 of entry2)\n")
                    .setsReturnCode(1, merged)
                    .says("delete entry2\n")
                    .setsReturnCode(1, merged | 0x10000000)
                    .says(softwareError(1, merged, 27, 384));
                check(direction);
                EXPECT_EQ(story.text, platform.calls()) << error << " at " << failing;
            }
        }
    }
}

TEST_F(HubErrors, ThePathAndTheHubDecideWhichExpanderResetsIt)
{
    Story story{platform};
    failStatusRead(story, 0, silent);
    story.resetsHub(1, 0xC2).notes(1, 27, 164);
    Bytes block = blockBytes(theBlock);
    kest_checkAndHandle922HubErr(handle, errl, &size, 1, &subBusReset, devicePath, 0x8A, block.data(), buffer, 0);
    EXPECT_EQ(story.text, platform.calls());
}

} // namespace
