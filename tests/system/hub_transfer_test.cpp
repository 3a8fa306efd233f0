/// SEEPROMs behind 922 hubs, from the exported functions down to the chips.
#include <csignal>
#include <sys/wait.h>

#include "tests/system/library_machine.h"

namespace kest::test
{
namespace
{

using HubTransfer = LibraryMachine;

constexpr std::uint32_t hubWasReset = 0x41000000;

TEST_F(HubTransfer, EveryHubAndPortInBothOffsetFormats)
{
    for (const int hub : {0x80, 0x82, 0x88, 0x8A})
        for (const int port : {0, 7})
            for (const bool small : {false, true}) {
                const std::string name =
                    (small ? "card" : "riser") + std::to_string(hub) + "-" + std::to_string(port) + ".bin";
                const bytes  before = image(name);
                const ending got    = read(hubText(hub, port, small), 5, 100);
                EXPECT_TRUE(got.good()) << got << name;
                EXPECT_EQ(part(before, 5, 100), got.data) << name;
                const bytes  fresh   = pattern(77, 200);
                const ending written = write(hubText(hub, port, small), 13, fresh);
                EXPECT_TRUE(written.good()) << written << name;
                EXPECT_EQ(77U, written.length);
                settle();
                EXPECT_EQ(with(before, 13, fresh), image(name));
                EXPECT_TRUE(unlocked(static_cast<std::uint16_t>(hub)));
            }
}

TEST_F(HubTransfer, FromOneByteToTheWholeDevice)
{
    const bytes before = image("riser128-7.bin");
    for (const unsigned int length : {1U, 2U, 63U, 64U, 65U, 255U, 256U, 257U, 4095U, 8191U, 8192U, 8193U, 16384U}) {
        const ending got = read(hubText(0x80, 7), 0, length);
        EXPECT_TRUE(got.good()) << got;
        EXPECT_EQ(part(before, 0, length), got.data) << length;
    }
    EXPECT_EQ(before, read(hubText(0x80, 7), 0, 0).data); // length 0: the whole device
    bytes now = before;
    for (const unsigned int length : {1U, 252U, 253U, 1000U, 16384U}) {
        const bytes fresh = pattern(length, length);
        EXPECT_TRUE(write(hubText(0x80, 7), 0, fresh).good()) << length;
        settle();
        now = with(now, 0, fresh);
        EXPECT_EQ(now, image("riser128-7.bin")) << length;
    }
    EXPECT_EQ(image("card128-0.bin"), read(hubText(0x80, 0, true), 0, 0).data);
}

TEST_F(HubTransfer, PortsThatAreNotThere)
{
    const bytes before = image("riser128-7.bin");
    for (const int port : {8, 0xFF}) {
        EXPECT_EQ(0x0010131CU, read(hubText(0x80, port), 0, 4).returnCode) << port;
        EXPECT_EQ(0x0010131CU, write(hubText(0x80, port), 0, {1, 2, 3}).returnCode) << port;
    }
    // port 0x20 is the first byte of a command
    EXPECT_EQ(0x00101319U, read(hubText(0x80, 0x20), 0, 4).returnCode);
    EXPECT_EQ(0x00101319U, write(hubText(0x80, 0x20), 0, {1, 2, 3}).returnCode);
    settle();
    EXPECT_EQ(before, image("riser128-7.bin"));
    EXPECT_EQ(part(before, 0, 4), read(hubText(0x80, 7), 0, 4).data);
    EXPECT_TRUE(unlocked(0x80));
}

TEST_F(HubTransfer, DeviceThatDoesNotAnswerBehindTheHub)
{
    EXPECT_EQ(0x4000131AU, read("sim:planar,L,922,80,5,2C0128,A2", 0, 4).returnCode);
    EXPECT_EQ(0x4000131AU, write("sim:planar,L,922,80,5,2C0128,A2", 0, {1, 2}).returnCode);
    EXPECT_TRUE(unlocked(0x80));
}

TEST_F(HubTransfer, HeldSubBusIsResetAndTheWriteRepeated)
{
    for (const char* const kind : {"hub-hold-sda", "hub-hold-scl"})
        for (std::uint64_t page = 1; page <= 10; ++page) {
            const bytes before = image("riser128-7.bin");
            const bytes fresh  = pattern(640, static_cast<unsigned>(page));
            machine->addFault(
                {.kind = kind, .bus = "planar", .address = 0x80, .way = "write", .nth = page, .count = 1});
            const ending written = write(hubText(0x80, 7), 0x100, fresh);
            machine->clearFaults();
            settle();
            EXPECT_TRUE(written.good()) << kind << page << written;
            EXPECT_EQ(640U, written.length);
            EXPECT_EQ(with(before, 0x100, fresh), image("riser128-7.bin")) << kind << page;
            EXPECT_TRUE(unlocked(0x80));
        }
}

TEST_F(HubTransfer, ReadThatRecoversHandsBackZerosNeverStaleMemory)
{
    machine->addFault({.kind = "hub-hold-sda", .bus = "planar", .address = 0x80, .way = "read", .count = 1});
    const ending got = read(hubText(0x80, 7), 0, 64);
    EXPECT_TRUE(got.good()) << got;
    EXPECT_EQ(bytes(64, 0), got.data);
    machine->clearFaults();
    EXPECT_EQ(part(image("riser128-7.bin"), 0, 64), read(hubText(0x80, 7), 0, 64).data);
}

TEST_F(HubTransfer, StatusAtEachPageOfALongWriteIsRecoveredOrReported)
{
    for (const std::uint32_t status : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U, 11U, 12U, 15U, 200U})
        for (std::uint64_t page = 1; page <= 10; ++page) {
            const bytes fresh = pattern(640, status + static_cast<unsigned>(page));
            machine->addFault({.kind    = "hub-status",
                               .bus     = "planar",
                               .address = 0x80,
                               .way     = "write",
                               .nth     = page,
                               .count   = 1,
                               .value   = status});
            const ending written = write(hubText(0x80, 7), 0, fresh);
            machine->clearFaults();
            settle();
            const bytes now = part(image("riser128-7.bin"), 0, 640);
            if (status >= 3 && status <= 6) {
                EXPECT_TRUE(written.good()) << status << " at " << page << written;
            }
            if (written.good()) {
                EXPECT_EQ(fresh, now) << status << " at " << page;
            } else {
                EXPECT_NE(0U, written.returnCode);
            }
            EXPECT_TRUE(unlocked(0x80));
            EXPECT_TRUE(read(hubText(0x80, 7), 0, 1).good()) << "the next transfer works";
        }
}

TEST_F(HubTransfer, SilenceAtEachPageOfALongWriteIsReported)
{
    for (std::uint64_t page = 1; page <= 10; ++page) {
        const bytes fresh = pattern(640, 50 + static_cast<unsigned>(page));
        machine->addFault(
            {.kind = "hub-silent", .bus = "planar", .address = 0x80, .way = "write", .nth = page, .untilReset = true});
        const ending written = write(hubText(0x80, 7), 0, fresh);
        machine->clearFaults();
        settle();
        if (written.good()) {
            EXPECT_EQ(fresh, part(image("riser128-7.bin"), 0, 640)) << page;
        }
        EXPECT_TRUE(unlocked(0x80));
        const ending again = write(hubText(0x80, 7), 0, fresh);
        EXPECT_TRUE(again.good() || write(hubText(0x80, 7), 0, fresh).good()) << page << again;
        settle();
        EXPECT_EQ(fresh, part(image("riser128-7.bin"), 0, 640)) << page;
    }
}

TEST_F(HubTransfer, SilentHubIsResetThroughItsExpanderAndTheNextTransferWorks)
{
    for (const int hub : {0x80, 0x82, 0x88, 0x8A}) {
        machine->addFault(
            {.kind = "hub-silent", .bus = "planar", .address = static_cast<std::uint8_t>(hub), .untilReset = true});
        const ending failed = read(hubText(hub, 0), 0, 16);
        EXPECT_EQ(hubWasReset, failed.returnCode) << hub;
        EXPECT_EQ(6U, failed.word4);
        EXPECT_TRUE(unlocked(static_cast<std::uint16_t>(hub)));
        const ending next = read(hubText(hub, 0), 0, 16);
        EXPECT_TRUE(next.good()) << hub << next;
        EXPECT_EQ(part(image("riser" + std::to_string(hub) + "-0.bin"), 0, 16), next.data);
    }
}

TEST_F(HubTransfer, HubThatStaysDeadFailsEachTimeAndNothingElseDoes)
{
    machine->addFault({.kind = "hub-silent", .bus = "planar", .address = 0x82});
    const bytes before = image("riser130-0.bin");
    for (int time = 0; time < 3; ++time) {
        EXPECT_EQ(hubWasReset, read(hubText(0x82, 0), 0, 16).returnCode);
        EXPECT_EQ(hubWasReset, write(hubText(0x82, 0), 0, {1, 2, 3}).returnCode);
        EXPECT_TRUE(unlocked(0x82));
        EXPECT_TRUE(read(hubText(0x80, 0), 0, 16).good());
        EXPECT_TRUE(read("sim:planar,L,2C0256,A0", 0, 16).good());
    }
    EXPECT_EQ(before, image("riser130-0.bin"));
}

TEST_F(HubTransfer, HeldMainBusIsFreedByADirectTransfersRetryNeverByAHub)
{
    machine->addFault({.kind = "hold-sda", .bus = "planar", .address = 0x80, .count = 1});
    EXPECT_FALSE(read(hubText(0x80, 0), 0, 16).good());
    EXPECT_EQ(sim::outcome::sdaHeld, wires->lines());
    EXPECT_FALSE(read(hubText(0x82, 0), 0, 16).good());
    EXPECT_EQ(sim::outcome::sdaHeld, wires->lines());
    const ending direct = read("sim:planar,L,2C0256,A0", 100, 16);
    EXPECT_TRUE(direct.good()) << direct;
    EXPECT_EQ(part(pattern(32768, 1), 100, 16), direct.data);
    EXPECT_EQ(sim::outcome::done, wires->lines());
    EXPECT_TRUE(read(hubText(0x80, 0), 0, 16).good());
}

/// Reads and writes its own part of one chip again and again, and checks every byte. @return 0 when all was right
int hammer(const std::string& text, unsigned int offset, int rounds,
           ending (*readIt)(const std::string&, unsigned int, unsigned int),
           ending (*writeIt)(const std::string&, unsigned int, const bytes&))
{
    for (int round = 0; round < rounds; ++round) {
        const bytes fresh = pattern(150, offset + static_cast<unsigned>(round));
        if (!writeIt(text, offset, fresh).good())
            return 1;
        const ending got = readIt(text, offset, 150);
        if (!got.good())
            return 2;
        if (got.data != fresh)
            return 3;
    }
    return 0;
}

TEST_F(HubTransfer, ProcessesOnTwoHubsMixNothing)
{
    struct worker {
        std::string  text;
        unsigned int offset;
    };
    const std::vector<worker> workers{
        {hubText(0x80, 0), 0}, {hubText(0x80, 0), 1000}, {hubText(0x80, 7), 3}, {hubText(0x88, 7), 77}};
    std::vector<pid_t> children;
    for (const worker& job : workers) {
        const pid_t child = fork();
        if (child == 0)
            _exit(hammer(job.text, job.offset, 8, &HubTransfer::read, &HubTransfer::write));
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(0, WEXITSTATUS(status)) << "1: a write failed, 2: a read failed, 3: wrong bytes";
    }
    for (const auto hub : {std::uint16_t{0x80}, std::uint16_t{0x88}})
        EXPECT_TRUE(unlocked(hub));
}

TEST_F(HubTransfer, WriterKilledWhileTheHubIsBusyCausesNoReset)
{
    for (int round = 0; round < 10; ++round) {
        std::array<int, 2> begun{};
        ASSERT_EQ(0, pipe(begun.data()));
        const pid_t child = fork();
        if (child == 0) {
            const char mark = 'x';
            static_cast<void>(!::write(begun[1], &mark, 1));
            for (unsigned int seed = 0;; ++seed)
                write(hubText(0x80, 0), 0, pattern(1000, seed));
        }
        char mark = 0;
        ASSERT_EQ(1, ::read(begun[0], &mark, 1));
        // long enough for the child to be in the middle of something; where exactly is up to chance
        const std::uint64_t from = wires->busTimeNs();
        while (wires->busTimeNs() - from < 3'000'000U * static_cast<unsigned>(round + 1))
            continue;
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        close(begun[0]);
        close(begun[1]);
        const ending next = read(hubText(0x80, 7), 0, 16);
        EXPECT_NE(hubWasReset, next.returnCode);
        EXPECT_TRUE(next.good()) << next;
    }
}

} // namespace
} // namespace kest::test
