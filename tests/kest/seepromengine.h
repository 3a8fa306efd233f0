/// What reading and writing SEEPROM hardware have in common: verbs for the tests, and the expectations that hold for
/// both.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "src/kest/kestseeprom.h"
#include "tests/kest/expected.h"
#include "tests/platform/scripted.h"

namespace seepromengine
{

using namespace scripted;
using namespace expected;
using namespace kest;

constexpr kest_attributeValue defaults[6] = {400, 1, 15, 1, 2, 1};

/// A device address. A text that fills the field stands there without terminator.
inline tavo_deviceaddress deviceAt(const std::string& location, std::uint32_t number = 0)
{
    tavo_deviceaddress address{};
    address.number = number;
    location.copy(address.location, sizeof address.location);
    return address;
}

struct EngineFacts {
    const char* name;
    unsigned module;
    unsigned hubMark, openMark, blockMark, speedMark, seekMark, retryMark, transferMark, closeMark;
};
constexpr EngineFacts readFacts{"kest_seepromHardwareRead", 15, 609, 633, 652, 670, 708, 744, 751, 770};
constexpr EngineFacts writeFacts{"kest_seepromHardwareWrite", 17, 1327, 1348, 1367, 1385, 1400, 1435, 1441, 1470};

/// One step of the transfer: the line it leaves, how it is scripted, and how its failure is told.
struct Step {
    std::string line;
    std::function<void(Platform&)> succeeds;
    std::function<void(Platform&, int)> fails; ///< none: it cannot leave an entry
    unsigned mark = 0;
    LayerCall call = {};
};

class SeepromEngine : public PlatformTest
{
protected:
    explicit SeepromEngine(bool read) : reads(read), facts(read ? readFacts : writeFacts) {}
    ~SeepromEngine() override { release(); }

    /// One transfer with the engine; the results are in `error`, `length` and `data`.
    void transfer(const std::string& location, unsigned offset, unsigned lengthWanted,
                  const kest_attributeValue* attributes = defaults)
    {
        const tavo_deviceaddress address = deviceAt(location, 0x11);
        length = lengthWanted;
        if (reads) {
            kest_seepromHardwareRead(error, address, offset, &length, &data, attributes);
        } else {
            written = counting(lengthWanted);
            kest_seepromHardwareWrite(error, address, offset, &length, written.data(), attributes);
        }
    }

    void release()
    {
        delete error;
        error = nullptr;
        void* buffer = data;
        tavo_util_free(&buffer);
        data = nullptr;
    }

    void again()
    {
        release();
        platform.reset();
    }

    Bytes bytesRead() const { return data == nullptr ? Bytes{} : Bytes(data, data + length); }

    std::string mallocLine(unsigned bytes) const { return reads ? line("tavo_malloc(%u)\n", bytes) : ""; }

    /// The steps of a transfer of 32 bytes at offset 256 of a 24C256.
    std::vector<Step> steps() const
    {
        std::vector<Step> all;
        all.push_back({"MernInitialize(0x80000000)\nmern_iic_open(node -1, \"sim:planar\", 0x1002)\n",
                       [](Platform& p) { p.opens(); }, [](Platform& p, int error) { p.failsOpen(error); },
                       facts.openMark});
        all.push_back({line("mern_iic_config(h1, 2, 19, block: speed 400, address 0xA0, offset bytes 2, timeout %d, "
                            "write cycle 15, "
                            "page 64, flags 0xFFFB0001, busy wait 1000)\n",
                            reads ? 2064 : 2124),
                       [](Platform& p) { p.configures(); },
                       [](Platform& p, int error) { p.failsConfig(error); },
                       facts.blockMark,
                       {12, 0x130D, 0x130E, false, 19, 2, 19}});
        all.push_back({"mern_iic_config(h1, 2, 2, 0x190)\n",
                       [](Platform& p) { p.configures(); },
                       [](Platform& p, int error) { p.failsConfig(error); },
                       facts.speedMark,
                       {12, 0x130D, 0x130E, false, 2, 2, 2}});
        if (reads) {
            all.push_back({"mern_iic_config(h1, 2, 16, 0x2)\n", [](Platform& p) { p.configures(); }, nullptr});
        }
        all.push_back({"mern_iic_seek(h1, 256, 0)\n",
                       [](Platform& p) { p.seeks(); },
                       [](Platform& p, int error) { p.failsSeek(error); },
                       facts.seekMark,
                       {14, 0x130D, 0x1313, false, 256, 256, 0}});
        if (reads) {
            all.push_back({"mern_iic_read(h1, 32)\n",
                           [](Platform& p) { p.reads(counting(32)); },
                           [](Platform& p, int error) { p.failsRead(error); },
                           facts.transferMark,
                           {13, 0x130D, 0x1312, true, 32, 0, 32}});
        } else {
            all.push_back(
                {"mern_iic_write(h1, 32 bytes: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 "
                 "18 19 1a 1b 1c 1d 1e 1f)\n",
                 [](Platform& p) { p.writes(); },
                 [](Platform& p, int error) { p.failsWrite(error); },
                 facts.transferMark,
                 {18, 0x130D, 0x1314, true, 0, 0, 0}});
        }
        return all;
    }

    /// The transfer that steps() tells of.
    void transferSteps() { transfer("sim:planar,L,2C0256,A0", 256, 32); }

    /// What happens to an entry that is there at the end.
    std::string finishLines(std::uint32_t code, unsigned mark, const char* chain = "0xA0/0x2C0256/0") const
    {
        return line("entry1.addUsrDtls(list %s, 0x1300, 1, 1)\n", chain) + softwareError(1, code, facts.module, mark);
    }

    std::string openFailureLines(int error) const
    {
        const auto word1 = static_cast<std::uint32_t>(error);
        std::string lines;
        if (error == 19) {
            lines = newEntry(1, {11, 0x130B, word1, 0, 0, 0, 0x81}) + returnCode(1, 0x8000130B) + callout(1);
        } else if (error == 2) {
            lines =
                newEntry(1, {11, 0x1311, word1, 0, 0, 0, 0x55}) + returnCode(1, 0x40001311) + callout(1) + callout(1);
        } else {
            const bool software = blamesSoftware(error);
            lines = newEntry(1, {11, 0x130C, word1, 0, 0, 0, software ? 0x81u : 0x55u}) +
                    returnCode(1, software ? 0x8000130C : 0x0000130C) + callout(1);
        }
        return lines + "entry1.addUsrDtls(\"sim:planar\", 0x1300, 1, 5)\n";
    }
    static std::uint32_t openFailureCode(int error)
    {
        return error == 19 ? 0x8000130B : error == 2 ? 0x40001311 : blamesSoftware(error) ? 0x8000130C : 0x0000130C;
    }

    /// Each step failing with each errno. Time-outs of the transfer itself are left to the tests of the retry.
    void everyStepTellsEveryErrno()
    {
        const std::vector<Step> all = steps();
        for (std::size_t failing = 0; failing < all.size(); ++failing) {
            for (int errorNumber = 0; errorNumber <= 133 && all[failing].fails; ++errorNumber) {
                const bool isOpen = failing == 0, isTransfer = failing + 1 == all.size();
                if (isTransfer && errorNumber == 62) {
                    continue;
                }
                SCOPED_TRACE(line("step %u errno %d", static_cast<unsigned>(failing), errorNumber));
                again();
                const Failure failed = failure(all[failing].call, errorNumber);
                const bool goesOn = !isOpen && failed.committed;
                std::string expect = "\n" + mallocLine(32);
                for (std::size_t at = 0; at < all.size() && (at <= failing || goesOn); ++at) {
                    expect += all[at].line;
                    if (at != failing) {
                        all[at].succeeds(platform);
                        continue;
                    }
                    all[at].fails(platform, errorNumber);
                    if (isOpen) {
                        expect += openFailureLines(errorNumber);
                    } else {
                        platform.capturesFfdc();
                        expect += failureLines(1, failed);
                    }
                    if (isTransfer && reads && errorNumber != 0 && errorNumber != 6 && !failed.committed) {
                        platform.configuresReading(word(3));
                        expect += "mern_iic_config(h1, 1, 15, 4 bytes)\n";
                    }
                }
                if (goesOn && !reads) {
                    expect += "usleep(15000)\n";
                }
                if (!isOpen) {
                    platform.closes();
                    expect += "mern_iic_close(h1)\n";
                }
                if (!goesOn) {
                    expect += finishLines(isOpen ? openFailureCode(errorNumber) : failed.returnCode, all[failing].mark);
                }
                transferSteps();
                EXPECT_EQ(expect, platform.calls());
                EXPECT_EQ(goesOn, error == nullptr);
                EXPECT_EQ(isTransfer ? 0u : 32u, length);
                release();
                platform.verify();
                if (HasFailure()) {
                    return;
                }
            }
        }
    }

    void scriptSteps()
    {
        for (const Step& step : steps()) {
            step.succeeds(platform);
        }
    }

    std::string stepLines() const
    {
        std::string lines;
        for (const Step& step : steps()) {
            lines += step.line;
        }
        return lines;
    }

    /// A location text that cannot be used: one entry, and no access.
    void refuses(const std::string& location, unsigned reason, std::uint32_t word1, const std::string& details)
    {
        SCOPED_TRACE(location);
        again();
        transfer(location, 0, 8);
        EXPECT_EQ("\n" + newEntry(1, {facts.module, reason, word1, 0, 0, 0, 0x81, "kestseeprom"}) +
                      returnCode(1, 0x80000000u | reason) + callout(1) + details,
                  platform.calls());
        EXPECT_NE(nullptr, error);
        EXPECT_EQ(reads ? 0u : 8u, length);
        EXPECT_EQ(nullptr, data);
    }

    void refusesTextsNotUnderstood()
    {
        const std::string entry = "entry1.addUsrDtls(";
        const std::string text = ", 0x1300, 1, 7)\n";
        refuses("sim:planar", 0x1315, 0, entry + "\"sim:planar\"" + text);
        refuses("sim:planar,L", 0x1315, 0, entry + "\"sim:planar,L\"" + text);
        refuses("sim:planar,L,123,A0", 0x1315, 0, entry + "\"sim:planar,L,123\"" + text);
        refuses("sim:planar,L,2C0256", 0x1315, 0, entry + "\"sim:planar,L,2C0256\"" + text);
        refuses("sim:planar,L,922,80", 0x1315, 0, entry + "\"sim:planar,L,922,80\"" + text);
        refuses("", 0x1315, 0, entry + "0 bytes" + text);
        EXPECT_EQ(1u, platform.lines(kindTrace).size());
        EXPECT_NE(std::string::npos, platform.traces().find(line("\" %%s,%%s\", \"%s\", \"\")", facts.name)));
    }

    /// There is nobody to hand the text to.
    void freesTheTextWithoutMemoryForTheEntry()
    {
        platform.failEntryAllocation();
        transfer("nonsense", 0, 8);
        EXPECT_EQ("\nno memory for an entry\n", platform.calls());
        EXPECT_EQ(nullptr, error);
        EXPECT_EQ(0, platform.liveAllocations());
    }

    /// The flat chain that was attached to its details is freed once.
    void freesTheChainWithoutMemoryForTheEntry()
    {
        platform.failEntryAllocation();
        transfer("p,L,922,80,3", 0, 8);
        EXPECT_EQ("\nno memory for an entry\n", platform.calls());
        EXPECT_EQ(nullptr, error);
        EXPECT_EQ(0, platform.liveAllocations());
    }

    void refusesInvalidChains()
    {
        const auto chain = [](const char* nodes) { return line("entry1.addUsrDtls(list %s, 0x1300, 1, 1)\n", nodes); };
        refuses("p,L,2C0256,A0,9552,C0,9552,C2,9552,C4", 0x1302, 0xAC0002,
                chain("0xA0/0x2C0256/0 0xC0/0x9552/0 0xC2/0x9552/0 0xC4/0x9552/0"));
        refuses("p,L,2C0256,A0,922,80,3", 0x1302, 0xAC0004, chain("0xA0/0x2C0256/0 0x80/0x922/3"));
        refuses("p,L,2C0256,A0,2C0256,A2", 0x1302, 0xAC0005, chain("0xA0/0x2C0256/0 0xA2/0x2C0256/0"));
        refuses("p,L,922,80,3,922,82,1,2C0256,A2", 0x1302, 0xAC0006,
                chain("0x80/0x922/3 0x82/0x922/1 0xA2/0x2C0256/0"));
        refuses("p,L,922,80,3", 0x1302, 0xAC0007, chain("0x80/0x922/3"));
        EXPECT_EQ(1u, platform.lines(kindTrace).size());
    }

    void refusesOtherDevices()
    {
        for (const char* type : {"9551", "9552", "9554", "9555", "D10", "75", "92"}) {
            const auto value = static_cast<std::uint32_t>(std::stoul(type, nullptr, 16));
            refuses(line("p,L,%s,C0", type), 0x1330, value, "");
            refuses(line("p,L,922,80,1,%s,C0", type), 0x1330, value, "");
            EXPECT_EQ(1u, platform.lines(kindTrace).size());
            EXPECT_NE(std::string::npos,
                      platform.traces().find(line("\" %%s,%%x\", \"%s\", 0x%X)", facts.name, value)));
        }
    }

    /// A failing close makes an entry of its own, which never comes to the caller.
    void closeFailuresStayBehind()
    {
        const struct {
            int error;
            unsigned subsystem;
            std::uint32_t returnCode;
        } rows[] = {{5, 0x55, 0x00001317}, {6, 0x55, 0x00001317}, {19, 0x81, 0x80001317}};
        for (const auto& row : rows) {
            again();
            scriptSteps();
            platform.failsClose(row.error).capturesFfdc();
            transferSteps();
            EXPECT_EQ("\n" + mallocLine(32) + stepLines() + (reads ? "" : "usleep(15000)\n") + "mern_iic_close(h1)\n" +
                          newEntry(1, {19, 0x1317, static_cast<std::uint32_t>(row.error), 0, 0, 0, row.subsystem}) +
                          returnCode(1, row.returnCode) + callout(1) + capture() + secondaryCommit(1),
                      platform.calls());
            EXPECT_EQ(nullptr, error);
            EXPECT_EQ(32u, length);
        }
    }

    void deadlockOfTheCloseIsCommittedByItself()
    {
        scriptSteps();
        platform.failsClose(35).capturesFfdc();
        transferSteps();
        EXPECT_EQ("\n" + mallocLine(32) + stepLines() + (reads ? "" : "usleep(15000)\n") + "mern_iic_close(h1)\n" +
                      failureLines(1, failure({19, 0x1316, 0x1317, false, 0, 0, 0}, 35)),
                  platform.calls());
        EXPECT_EQ(nullptr, error);
    }

    /// Beside another failure, a failing close keeps its own entry and takes the mark.
    void closeFailuresTakeTheMark()
    {
        const std::vector<Step> all = steps();
        for (std::size_t failing = 1; failing < all.size(); ++failing) {
            for (const int closeError : {5, 6, 19, 35}) {
                if (!all[failing].fails) {
                    continue;
                }
                again();
                std::string expect = "\n" + mallocLine(32);
                for (std::size_t at = 0; at <= failing; ++at) {
                    at == failing ? all[at].fails(platform, 6) : all[at].succeeds(platform);
                    expect += all[at].line;
                }
                const Failure first = failure(all[failing].call, 6);
                const Failure close = failure({19, 0x1316, 0x1317, false, 0, 0, 0}, closeError);
                platform.capturesFfdc().failsClose(closeError).capturesFfdc();
                transferSteps();
                EXPECT_EQ(expect + failureLines(1, first) + "mern_iic_close(h1)\n" + failureLines(2, close) +
                              (close.committed ? "" : secondaryCommit(2)) +
                              finishLines(first.returnCode, close.committed ? all[failing].mark : facts.closeMark),
                          platform.calls());
                EXPECT_NE(nullptr, error);
            }
        }
    }

    /// A text without terminator is used to its last character, and no further.
    void usesALocationThatFillsItsField()
    {
        const std::string path = "sim:" + std::string(256 - 4 - 12, 'x');
        platform.failsOpen(2);
        transfer(path + ",L,2C0256,A0", 0, 4);
        EXPECT_EQ("\nMernInitialize(0x80000000)\nmern_iic_open(node -1, \"" + path + "\", 0x1002)\n",
                  platform.layerCalls());
        EXPECT_NE(std::string::npos, platform.traces().find("\"" + path + ",L,2C0256,A0\", 0x11, 0x4, 0x4, 0x0)"));
        again();
        // no comma: not a device text
        const std::string cut(256, 'y');
        transfer(cut, 0, 4);
        EXPECT_EQ(std::vector<Bytes>{text(cut)}, platform.entry(1).details(7));
    }

    void tracesAFailedTransfer()
    {
        platform.opens().configures(2);
        if (reads) {
            platform.configures();
        }
        platform.failsSeek(22).capturesFfdc().closes();
        transfer("sim:planar,L,2C0256,A0", 0x1234, 32);
        EXPECT_NE(
            std::string::npos,
            platform.traces().find(line("\" %%s,%%s,%%x,%%x,%%x,%%x\", \"%s\", \"sim:planar,L,2C0256,A0\", 0x11, 0x20, "
                                        "0x20, 0x1234)",
                                        facts.name)))
            << platform.traces();
        const std::vector<std::string> scopes = platform.lines(kindScope);
        EXPECT_NE(std::string::npos, scopes.front().find(facts.name));
        EXPECT_NE(std::string::npos, scopes.back().find(facts.name));
    }

    /// A large position is passed on as what it is.
    void seeksFarPositions()
    {
        platform.opens().configures(reads ? 3 : 2).failsSeek(22).capturesFfdc().closes();
        transfer("sim:planar,L,2C0256,A0", 0x80000010, 8);
        EXPECT_EQ((Src{.module = 14, .reason = 0x1313, .word1 = 22, .word2 = 0x80000010, .subsystem = 0x81}),
                  platform.entry(1).srcs.at(0));
        if (sizeof(long) == 8) {
            EXPECT_NE(std::string::npos, platform.layerCalls().find("mern_iic_seek(h1, 2147483664, 0)"));
        }
    }

    /// Every platform call failing once, and from then on: told or committed, and nothing stays out.
    void everyCallMayFail(const std::string& location, unsigned offset)
    {
        for (const int errorNumber : {5, 6, 19, 35, 61, 62}) {
            for (const bool persistent : {false, true}) {
                for (int failing = 1;; ++failing) {
                    again();
                    platform.healthy().failCall(failing, errorNumber, persistent);
                    platform.readHandler = [](std::uint8_t* bytes, unsigned size) {
                        std::fill_n(bytes, size, std::uint8_t{0});
                        return static_cast<int>(size);
                    };
                    StandardError quiet;
                    transfer(location, offset, 32);
                    const bool told = error != nullptr || platform.commits() > 0 || !quiet.text().empty();
                    if (!platform.faultWasMet()) {
                        ASSERT_GT(failing, 5);
                        EXPECT_FALSE(told);
                        break;
                    }
                    EXPECT_TRUE(told) << platform.failedCall();
                    EXPECT_EQ(0, platform.openHandles() + platform.heldLocks()) << platform.failedCall();
                    release();
                    EXPECT_EQ(0, platform.liveBuffers() + platform.liveEntries()) << platform.failedCall();
                    ASSERT_FALSE(HasFailure()) << errorNumber << " at " << platform.failedCall();
                }
            }
        }
    }

    const bool reads;
    const EngineFacts& facts;
    ErrlEntry* error = nullptr;
    unsigned char* data = nullptr;
    unsigned int length = 0;
    Bytes written;
};

} // namespace seepromengine
