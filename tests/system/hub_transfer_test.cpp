/// SEEPROMs behind 922 hubs, from the exported functions down to the chips.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <map>
#include <new>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>

#include "tests/places.h"
#include "tests/system/library_machine.h"

namespace kest::test
{
namespace
{

using HubTransfer = LibraryMachine;

constexpr std::uint32_t hubWasReset = 0x41000000;

TEST_F(HubTransfer, EveryHubAndPortInBothOffsetFormats)
{
    for (const int hub : {0x80, 0x82, 0x88, 0x8A}) {
        for (const int port : {0, 7}) {
            for (const bool small : {false, true}) {
                const std::string name =
                    (small ? "card" : "riser") + std::to_string(hub) + "-" + std::to_string(port) + ".bin";
                const Bytes before = image(name);
                const Ending got = read(hubText(hub, port, small), 5, 100);
                EXPECT_TRUE(got.good()) << got << name;
                EXPECT_EQ(part(before, 5, 100), got.data) << name;
                const Bytes fresh = pattern(77, 200);
                const Ending written = write(hubText(hub, port, small), 13, fresh);
                EXPECT_TRUE(written.good()) << written << name;
                EXPECT_EQ(77U, written.length);
                settle();
                EXPECT_EQ(with(before, 13, fresh), image(name));
                EXPECT_TRUE(unlocked(static_cast<std::uint16_t>(hub)));
            }
        }
    }
}

TEST_F(HubTransfer, FromOneByteToTheWholeDevice)
{
    const Bytes before = image("riser128-7.bin");
    for (const unsigned int length : {1U, 2U, 63U, 64U, 65U, 255U, 256U, 257U, 4095U, 8191U, 8192U, 8193U, 16384U}) {
        const Ending got = read(hubText(0x80, 7), 0, length);
        EXPECT_TRUE(got.good()) << got;
        EXPECT_EQ(part(before, 0, length), got.data) << length;
    }
    // length 0: the whole device
    EXPECT_EQ(before, read(hubText(0x80, 7), 0, 0).data);
    Bytes now = before;
    for (const unsigned int length : {1U, 252U, 253U, 1000U, 16384U}) {
        const Bytes fresh = pattern(length, length);
        EXPECT_TRUE(write(hubText(0x80, 7), 0, fresh).good()) << length;
        settle();
        now = with(now, 0, fresh);
        EXPECT_EQ(now, image("riser128-7.bin")) << length;
    }
    EXPECT_EQ(image("card128-0.bin"), read(hubText(0x80, 0, true), 0, 0).data);
}

TEST_F(HubTransfer, PortsThatAreNotThere)
{
    const Bytes before = image("riser128-7.bin");
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
    for (const char* const kind : {"hub-hold-sda", "hub-hold-scl"}) {
        for (std::size_t page = 1; page <= 10; ++page) {
            const Bytes before = image("riser128-7.bin");
            const Bytes fresh = pattern(640, static_cast<unsigned>(page));
            const auto fault = machine->addFault(
                {.kind = kind, .bus = "planar", .address = 0x80, .way = "write", .nth = page, .count = 1});
            const Ending written = write(hubText(0x80, 7), 0x100, fresh);
            EXPECT_EQ(1U, struck(fault)) << kind << page;
            machine->clearFaults();
            settle();
            EXPECT_TRUE(written.good()) << kind << page << written;
            EXPECT_EQ(640U, written.length);
            EXPECT_EQ(with(before, 0x100, fresh), image("riser128-7.bin")) << kind << page;
            EXPECT_TRUE(unlocked(0x80));
        }
    }
}

TEST_F(HubTransfer, ReadThatRecoversHandsBackZerosNeverStaleMemory)
{
    const auto fault =
        machine->addFault({.kind = "hub-hold-sda", .bus = "planar", .address = 0x80, .way = "read", .count = 1});
    const Ending got = read(hubText(0x80, 7), 0, 64);
    EXPECT_EQ(1U, struck(fault));
    EXPECT_TRUE(got.good()) << got;
    EXPECT_EQ(Bytes(64, 0), got.data);
    machine->clearFaults();
    EXPECT_EQ(part(image("riser128-7.bin"), 0, 64), read(hubText(0x80, 7), 0, 64).data);
}

TEST_F(HubTransfer, StatusAtEachPageOfALongWriteIsRecoveredOrReported)
{
    const std::map<std::uint32_t, std::uint32_t> returnCodes{
        {1, 0x00101319},  {2, 0x4000131A},  {3, 0},           {4, 0},           {5, 0},
        {6, 0},           {7, 0x0010131C},  {8, 0x0010131D},  {9, 0x1000131E},  {10, 0x1000131E},
        {11, 0x1000131E}, {12, 0x1000131F}, {15, 0x1000131F}, {200, 0x1000131F}};
    for (const auto& [status, returnCode] : returnCodes) {
        for (std::size_t page = 1; page <= 10; ++page) {
            SCOPED_TRACE(std::to_string(status) + " at page " + std::to_string(page));
            const Bytes before = part(image("riser128-7.bin"), 0, 640);
            const Bytes fresh = pattern(640, status + static_cast<unsigned>(page));
            const auto fault = machine->addFault({.kind = "hub-status",
                                                  .bus = "planar",
                                                  .address = 0x80,
                                                  .way = "write",
                                                  .nth = page,
                                                  .count = 1,
                                                  .value = status});
            const Ending written = write(hubText(0x80, 7), 0, fresh);
            EXPECT_EQ(1U, struck(fault));
            machine->clearFaults();
            settle();
            EXPECT_EQ(returnCode, written.returnCode) << written;
            // The hub passes nothing on once a page has failed.
            EXPECT_EQ(returnCode == 0 ? fresh : with(before, 0, part(fresh, 0, 64 * (page - 1))),
                      part(image("riser128-7.bin"), 0, 640));
            EXPECT_TRUE(unlocked(0x80));
            EXPECT_TRUE(read(hubText(0x80, 7), 0, 1).good()) << "the next transfer works";
        }
    }
}

/// Writes of ten pages to a hub that falls silent during them; the data differ each time.
class SilentInAWrite : public LibraryMachine
{
protected:
    struct Result {
        Ending written;
        std::size_t pages; ///< pages that reached the device
    };
    /// @param nth  the first transaction that is not acknowledged: a page, or a probe whether the hub is ready again
    Result silentFrom(std::uint64_t nth)
    {
        const Bytes before = part(image(file), 0, length);
        const Bytes fresh = pattern(length, ++seed);
        const auto fault = machine->addFault(
            {.kind = "hub-silent", .bus = "planar", .address = 0x80, .way = "write", .nth = nth, .untilReset = true});
        Result got{.written = write(hubText(0x80, 7), 0, fresh), .pages = 0};
        const bool silent = struck(fault) != 0;
        settle();
        const Bytes now = part(image(file), 0, length);
        got.pages = static_cast<std::size_t>(std::ranges::mismatch(now, fresh).in1 - now.begin()) / pageBytes;
        EXPECT_EQ(with(before, 0, part(fresh, 0, got.pages * pageBytes)), now);
        EXPECT_EQ(silent, !got.written.good());
        EXPECT_TRUE(unlocked(0x80));
        // A write leaves the silent hub to the next transfer, which resets it.
        if (silent) {
            EXPECT_EQ(hubWasReset, read(hubText(0x80, 7), 0, 64).returnCode);
        }
        EXPECT_EQ(part(now, 0, 64), read(hubText(0x80, 7), 0, 64).data);
        machine->clearFaults();
        return got;
    }
    /// The first transaction after a page, counted from 1.
    std::uint64_t after(std::size_t page)
    {
        // a page takes the hub a few milliseconds, a probe some 20 us
        std::uint64_t low = 1, high = page * 1000;
        while (high - low > 1) {
            const std::uint64_t middle = (low + high) / 2;
            (silentFrom(middle).pages >= page ? high : low) = middle;
        }
        return high;
    }

    static constexpr std::size_t pageBytes = 64, length = 640;
    const std::string file = "riser128-7.bin";
    unsigned int seed = 0;
};

TEST_F(SilentInAWrite, IsReportedAtEachPageAndAfterIt)
{
    for (std::size_t page = 1; page <= 10; ++page) {
        SCOPED_TRACE(page);
        const std::uint64_t next = after(page);
        // the wait for the hub is in vain
        const Result asked = silentFrom(next);
        EXPECT_EQ(page, asked.pages);
        EXPECT_EQ(0x00001314U, asked.written.returnCode);
        EXPECT_EQ(62U, asked.written.word4);
        // The page itself. Silence after an earlier page looks like the write cycle of that page.
        const Result sent = silentFrom(next - 1);
        EXPECT_EQ(page - 1, sent.pages);
        EXPECT_EQ(page == 1 ? 0x40001311U : 0x00001314U, sent.written.returnCode);
        EXPECT_EQ(page == 1 ? 6U : 62U, sent.written.word4);
    }
}

TEST_F(HubTransfer, FirstByteThatIsNoStatusFailsTheRead)
{
    // 0xA5, by default; the statuses of a held sub-bus and of a reset, which the hub itself does not know of; the last
    for (const std::uint32_t first : {0U, 3U, 15U, 255U}) {
        for (const unsigned int length : {1U, 64U, 16384U}) {
            const auto fault = machine->addFault(
                {.kind = "hub-bad-first-byte", .bus = "planar", .address = 0x80, .count = 1, .value = first});
            const Ending got = read(hubText(0x80, 7), 0, length);
            EXPECT_EQ(1U, struck(fault));
            machine->clearFaults();
            EXPECT_EQ(0x00001312U, got.returnCode) << first;
            EXPECT_EQ(61U, got.word4);
            // what was asked of the hub, status byte included
            EXPECT_EQ(length + 1, got.length);
            EXPECT_EQ(Bytes{}, got.data);
            EXPECT_TRUE(unlocked(0x80));
            EXPECT_EQ(part(image("riser128-7.bin"), 0, length), read(hubText(0x80, 7), 0, length).data);
        }
    }
}

TEST_F(HubTransfer, SilentHubIsResetThroughItsExpanderAndTheNextTransferWorks)
{
    for (const int hub : {0x80, 0x82, 0x88, 0x8A}) {
        machine->addFault(
            {.kind = "hub-silent", .bus = "planar", .address = static_cast<std::uint8_t>(hub), .untilReset = true});
        const Ending failed = read(hubText(hub, 0), 0, 16);
        EXPECT_EQ(hubWasReset, failed.returnCode) << hub;
        EXPECT_EQ(6U, failed.word4);
        EXPECT_TRUE(unlocked(static_cast<std::uint16_t>(hub)));
        const Ending next = read(hubText(hub, 0), 0, 16);
        EXPECT_TRUE(next.good()) << hub << next;
        EXPECT_EQ(part(image("riser" + std::to_string(hub) + "-0.bin"), 0, 16), next.data);
    }
}

TEST_F(HubTransfer, HubThatStaysDeadFailsEachTimeAndNothingElseDoes)
{
    machine->addFault({.kind = "hub-silent", .bus = "planar", .address = 0x82});
    const Bytes before = image("riser130-0.bin");
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
    const Ending direct = read("sim:planar,L,2C0256,A0", 100, 16);
    EXPECT_TRUE(direct.good()) << direct;
    EXPECT_EQ(part(pattern(32768, 1), 100, 16), direct.data);
    EXPECT_EQ(sim::outcome::done, wires->lines());
    EXPECT_TRUE(read(hubText(0x80, 0), 0, 16).good());
}

/// Reads and writes its own part of one chip again and again, and checks every byte. @return 0 when all was right
int hammer(const std::string& text, unsigned int offset, int rounds,
           Ending (*readIt)(const std::string&, unsigned int, unsigned int),
           Ending (*writeIt)(const std::string&, unsigned int, const Bytes&))
{
    for (int round = 0; round < rounds; ++round) {
        const Bytes fresh = pattern(150, offset + static_cast<unsigned>(round));
        if (!writeIt(text, offset, fresh).good()) {
            return 1;
        }
        const Ending got = readIt(text, offset, 150);
        if (!got.good()) {
            return 2;
        }
        if (got.data != fresh) {
            return 3;
        }
    }
    return 0;
}

TEST_F(HubTransfer, ProcessesOnTwoHubsMixNothing)
{
    struct Worker {
        std::string text;
        unsigned int offset;
    };
    const std::vector<Worker> workers{
        {hubText(0x80, 0), 0}, {hubText(0x80, 0), 1000}, {hubText(0x80, 7), 3}, {hubText(0x88, 7), 77}};
    std::vector<pid_t> children;
    for (const Worker& job : workers) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(hammer(job.text, job.offset, 8, &HubTransfer::read, &HubTransfer::write));
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(0, WEXITSTATUS(status)) << "1: a write failed, 2: a read failed, 3: wrong bytes";
    }
    for (const auto hub : {std::uint16_t{0x80}, std::uint16_t{0x88}}) {
        EXPECT_TRUE(unlocked(hub));
    }
}

/// What the user of one hub met while the other hub on the same expander was reset.
struct Neighbour {
    std::atomic<bool> enough;
    std::atomic<int> good, failed, wrong;

    /// Writes, reads back, and checks that each byte has a possible value: a failed write leaves old and new bytes.
    void work(const std::string& text, Ending (*readIt)(const std::string&, unsigned int, unsigned int),
              Ending (*writeIt)(const std::string&, unsigned int, const Bytes&), Bytes before)
    {
        for (unsigned int round = 0; !enough; ++round) {
            const Bytes fresh = pattern(before.size(), round);
            const Ending written = writeIt(text, 0, fresh);
            Ending got = readIt(text, 0, static_cast<unsigned int>(fresh.size()));
            for (; !got.good() && !enough; got = readIt(text, 0, static_cast<unsigned int>(fresh.size()))) {
                ++failed;
            }
            ++(written.good() ? good : failed);
            ++(got.good() ? good : failed);
            bool right = got.data.size() == fresh.size() || !got.good();
            for (std::size_t at = 0; right && at < got.data.size(); ++at) {
                right = got.data[at] == fresh[at] || (!written.good() && got.data[at] == before[at]);
            }
            wrong += right ? 0 : 1;
            before = got.data;
        }
    }
};

// a busy machine can also be the reason
constexpr auto patience = std::chrono::seconds(200);

TEST_F(HubTransfer, ResetOfAHubFailsItsNeighboursTransfersOrLetsThemBe)
{
    void* const shared = mmap(nullptr, sizeof(Neighbour), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, shared);
    auto* const other = new (shared) Neighbour{};
    const pid_t child = fork();
    if (child == 0) {
        other->work(hubText(0x88, 7), &HubTransfer::read, &HubTransfer::write, part(image("riser136-7.bin"), 0, 640));
        _exit(0);
    }
    const int enough = isEmulated() ? 8 : 20;
    const Bytes mine = part(image("riser128-7.bin"), 0, 64);
    int resets = 0;
    const auto latest = std::chrono::steady_clock::now() + patience;
    while ((resets < enough || other->failed < enough || other->good < 5 * enough) &&
           std::chrono::steady_clock::now() < latest) {
        machine->addFault({.kind = "hub-silent", .bus = "planar", .address = 0x80, .untilReset = true});
        // the neighbour's own reset can wake this hub
        const Ending got = read(hubText(0x80, 7), 0, 64);
        resets += got.returnCode == hubWasReset ? 1 : 0;
        if (got.good()) {
            EXPECT_EQ(mine, got.data);
        }
        machine->clearFaults();
        const int before = other->good;
        while (other->good < before + 2 && std::chrono::steady_clock::now() < latest) {
            std::this_thread::yield();
        }
    }
    other->enough = true;
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_LE(enough, resets);
    EXPECT_LE(enough, other->failed) << "transfers that a reset struck";
    EXPECT_LE(5 * enough, other->good);
    EXPECT_EQ(0, other->wrong) << "successful reads with bytes that were never written";
    for (const auto hub : {std::uint16_t{0x80}, std::uint16_t{0x88}}) {
        EXPECT_TRUE(unlocked(hub));
    }
    settle();
    EXPECT_EQ(part(image("riser136-7.bin"), 0, 640), read(hubText(0x88, 7), 0, 640).data);
    munmap(shared, sizeof(Neighbour));
}

class KilledWriter : public LibraryMachine
{
protected:
    bool hubIsBusy()
    {
        const auto all = machine->registers();
        const auto busy = std::ranges::find_if(all, [](const sim::machine::registerValue& value) {
            return value.chip.ends_with("0x80 HUB922") && value.name == "busy";
        });
        EXPECT_NE(all.end(), busy);
        return busy != all.end() && busy->value == 1;
    }
    /// Starts a writer and kills it after so much bus time.
    void killAfter(std::uint64_t busTimeNs)
    {
        const std::uint64_t from = wires->busTimeNs();
        const pid_t child = fork();
        if (child == 0) {
            for (unsigned int seed = 0;; ++seed) {
                write(hubText(0x80, 0), 0, pattern(1000, seed));
            }
        }
        const auto latest = std::chrono::steady_clock::now() + patience / 4;
        while (wires->busTimeNs() - from < busTimeNs && std::chrono::steady_clock::now() < latest) {
            std::this_thread::yield();
        }
        EXPECT_LE(busTimeNs, wires->busTimeNs() - from) << "the writer does not write";
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status)) << status;
    }
};

TEST_F(KilledWriter, CausesNoResetOfABusyHub)
{
    // Chance decides where the writer is killed; most of the time the hub is busy.
    int busyRounds = 0;
    const auto latest = std::chrono::steady_clock::now() + patience;
    for (unsigned int round = 1; busyRounds < 5 && std::chrono::steady_clock::now() < latest; ++round) {
        killAfter(1'000'000U * (round % 40 + 1));
        busyRounds += hubIsBusy() ? 1 : 0;
        const Ending next = read(hubText(0x80, 7), 0, 16);
        EXPECT_TRUE(next.good()) << next;
        EXPECT_EQ(part(image("riser128-7.bin"), 0, 16), next.data);
        EXPECT_TRUE(unlocked(0x80));
    }
    EXPECT_LE(5, busyRounds);
}

} // namespace
} // namespace kest::test
