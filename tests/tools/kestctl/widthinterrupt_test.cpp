/// Signals while the offset width of a part is proved or tried out.
#include <csignal>
#include <gmock/gmock.h>

#include "tests/host/usedconfiguration.h"
#include "tests/tools/heldpages.h"
#include "tests/tools/widthguard_support.h"

namespace kest::test
{
namespace
{

using testing::StartsWith;

/// Signals at a moment that the test knows: this process uses the machine, too.
class KestctlWidthInterrupt : public KestctlWidthGuard
{
protected:
    /// How a write ends that gets ^C while it waits to write its first byte.
    RunResult interruptedInTrial(int times = 1) const
    {
        const UsedConfiguration used{machine() / "kest.toml"};
        HeldPages pages("sim:f", 0xA0);
        Program program("kestctl", write, configured());
        EXPECT_TRUE(pages.awaitWriter());
        EXPECT_TRUE(deliver(program, SIGINT));
        if (times == 2) {
            // ends the program whatever it does
            program.sendSignal(SIGINT);
            RunResult ended = program.finish();
            pages.letGo();
            return ended;
        }
        pages.letGo();
        return program.finish();
    }
    /// How it ends when ^C comes before the first read of the proof.
    RunResult interruptedInProof() const
    {
        const UsedConfiguration used{machine() / "kest.toml"};
        says({"detect", asLarge});
        HeldMachine held(machine());
        Program program("kestctl", write, configured());
        EXPECT_TRUE(held.awaitUser());
        EXPECT_TRUE(deliver(program, SIGINT));
        held.letGo();
        return program.finish();
    }
};

TEST_F(KestctlWidthInterrupt, DuringATrialLeavesAllAsItWas)
{
    large();
    const RunResult ended = interruptedInTrial();
    EXPECT_EQ(130, ended.exit);
    EXPECT_EQ("kestctl: sim:f,L,2C0256,A0: write: interrupted; the byte of a trial is put back, nothing else was "
              "written\n",
              ended.errors);
    EXPECT_EQ(std::string(32768, '\xFF'), content());
    EXPECT_EQ(0, undoFiles());
}

TEST_F(KestctlWidthInterrupt, WhileBytesOfAWrongTypeArePutBackSaysWhatThePartIs)
{
    // bytes of a ferroelectric part are put back already after the old ones were read
    const std::vector<std::pair<std::string, std::string>> rows{
        {"", "a byte written behind two offset bytes arrived as one behind one does"},
        {"kind = \"fram\"\n", "the part is no 24C256: a read behind two offset bytes changed it, as it does a "
                              "ferroelectric part with one"}};
    for (const auto& [keys, seen] : rows) {
        part(keys);
        const RunResult ended = interruptedInTrial();
        EXPECT_EQ(130, ended.exit) << keys;
        EXPECT_THAT(ended.errors, StartsWith("kestctl: sim:f,L,2C0256,A0: width proof: interrupted; " + seen +
                                             "; it holds its old bytes; "))
            << keys;
        EXPECT_EQ(blank, content()) << keys;
        EXPECT_EQ(0, undoFiles()) << keys;
    }
}

/// The time of 'set' is up while a byte is put back that its own reads changed.
TEST_F(KestctlWidthInterrupt, BehindTheReadsOfSetLeavesAllAsItWas)
{
    ferroelectric();
    const UsedConfiguration used{machine() / "kest.toml"};
    HeldPages pages("sim:f", 0xA0);
    Program set("kestctl",
                {"seeprom", "set", asLarge, "serial_number=S1", "--yes", "--width-unproved", "--timeout", "1h"},
                configured());
    ASSERT_TRUE(pages.awaitWriter());
    ASSERT_TRUE(deliver(set, SIGALRM));
    pages.letGo();
    const RunResult ended = set.finish();
    EXPECT_EQ(1, ended.exit);
    EXPECT_THAT(ended.errors, StartsWith("kestctl: sim:f,L,2C0256,A0: width proof: the time of --timeout is up; the "
                                         "part is no 24C256: a read behind two offset bytes changed it, as it does a "
                                         "ferroelectric part with one; it holds its old bytes; "));
    EXPECT_EQ(blank, content());
    EXPECT_EQ(0, undoFiles());
}

TEST_F(KestctlWidthInterrupt, ASecondOneNamesTheFileThatFitsAPartWithOneOffsetByte)
{
    // in the trial, and while the byte is put back that the read of the old ones changed
    for (const char* keys : {"", "kind = \"fram\"\n"}) {
        part(keys);
        const RunResult ended = interruptedInTrial(2);
        EXPECT_EQ(130, ended.exit) << keys;
        EXPECT_THAT(ended.errors, StartsWith("kestctl: sim:f,L,2C0256,A0: width proof: ended at once; whether a "));
        const std::string start = "'kestctl seeprom restore ";
        const std::size_t at = ended.errors.rfind(start) + start.size();
        ASSERT_LT(start.size(), at) << ended.errors;
        fill("\x11\x22" + std::string(254, '\xFF'));
        const std::string saved = ended.errors.substr(at, ended.errors.find('\'', at) - at);
        says({"seeprom", "restore", saved, "--yes"});
        EXPECT_EQ(blank, content()) << keys;
    }
}

TEST_F(KestctlWidthInterrupt, DuringAProofEndsBehindIt)
{
    for (const char* keys : {"", "kind = \"fram\"\n"}) {
        for (const std::string& bytes : {blank, variedBytes(256)}) {
            part(keys);
            fill(bytes);
            const RunResult ended = interruptedInProof();
            EXPECT_EQ(130, ended.exit) << keys;
            EXPECT_EQ("kestctl: sim:f,L,2C0256,A0: width proof: interrupted; nothing was written\n", ended.errors);
            EXPECT_EQ(bytes, content()) << keys;
            EXPECT_EQ(0, undoFiles()) << keys;
        }
    }
}

} // namespace
} // namespace kest::test
