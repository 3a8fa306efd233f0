#include "tests/kest/seepromengine.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace seepromengine
{

tavo_deviceaddress deviceAt(const std::string& location, std::uint32_t number)
{
    tavo_deviceaddress address{};
    address.number = number;
    location.copy(address.location, sizeof address.location);
    return address;
}

void SeepromEngine::transfer(const std::string& location, unsigned offset, unsigned lengthWanted,
                             const kest_attributeValue* attributes)
{
    const tavo_deviceaddress address = deviceAt(location, 0x11);
    length = lengthWanted;
    if (reads) {
        kest_seepromHardwareRead(errl, address, offset, &length, &data, attributes);
    } else {
        written = counting(lengthWanted);
        kest_seepromHardwareWrite(errl, address, offset, &length, written.data(), attributes);
    }
}

std::vector<Step> SeepromEngine::steps() const
{
    std::vector<Step> all;
    all.push_back({"MernInitialize(0x80000000)\nmern_iic_open(node -1, \"sim:planar\", 0x1002)\n",
                   [](Platform& p) { p.opens(); }, [](Platform& p, int error) { p.failsOpen(error); }, facts.openSite});
    all.push_back({line("mern_iic_config(h1, 2, 19, block: speed 400, address 0xA0, offset bytes 2, timeout %d, "
                        "write cycle 15, "
                        "page 64, flags 0xFFFB0001, busy wait 1000)\n",
                        reads ? 2064 : 2124),
                   [](Platform& p) { p.configures(); },
                   [](Platform& p, int error) { p.failsConfig(error); },
                   facts.blockSite,
                   {12, 0x130D, 0x130E, false, 19, 2, 19}});
    all.push_back({"mern_iic_config(h1, 2, 2, 0x190)\n",
                   [](Platform& p) { p.configures(); },
                   [](Platform& p, int error) { p.failsConfig(error); },
                   facts.speedSite,
                   {12, 0x130D, 0x130E, false, 2, 2, 2}});
    if (reads) {
        all.push_back({"mern_iic_config(h1, 2, 16, 0x2)\n", [](Platform& p) { p.configures(); }, nullptr});
    }
    all.push_back({"mern_iic_seek(h1, 256, 0)\n",
                   [](Platform& p) { p.seeks(); },
                   [](Platform& p, int error) { p.failsSeek(error); },
                   facts.seekSite,
                   {14, 0x130D, 0x1313, false, 256, 256, 0}});
    if (reads) {
        all.push_back({"mern_iic_read(h1, 32)\n",
                       [](Platform& p) { p.reads(counting(32)); },
                       [](Platform& p, int error) { p.failsRead(error); },
                       facts.transferSite,
                       {13, 0x130D, 0x1312, true, 32, 0, 32}});
    } else {
        all.push_back(
            {"mern_iic_write(h1, 32 bytes: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 "
             "18 19 1a 1b 1c 1d 1e 1f)\n",
             [](Platform& p) { p.writes(); },
             [](Platform& p, int error) { p.failsWrite(error); },
             facts.transferSite,
             {18, 0x130D, 0x1314, true, 0, 0, 0}});
    }
    return all;
}

std::string SeepromEngine::openFailureLines(int error) const
{
    const auto word1 = static_cast<std::uint32_t>(error);
    std::string lines;
    if (error == 19) {
        lines = newEntry(1, {11, 0x130B, word1, 0, 0, 0, 0x81}) + returnCode(1, 0x8000130B) + callout(1);
    } else if (error == 2) {
        lines = newEntry(1, {11, 0x1311, word1, 0, 0, 0, 0x55}) + returnCode(1, 0x40001311) + callout(1) + callout(1);
    } else {
        const bool software = blamesSoftware(error);
        lines = newEntry(1, {11, 0x130C, word1, 0, 0, 0, software ? 0x81u : 0x55u}) +
                returnCode(1, software ? 0x8000130C : 0x0000130C) + callout(1);
    }
    return lines + "entry1.addUsrDtls(\"sim:planar\", 0x1300, 1, 5)\n";
}

void SeepromEngine::everyStepReportsEveryErrno()
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
                expect += finishLines(isOpen ? openFailureCode(errorNumber) : failed.returnCode, all[failing].site);
            }
            transferSteps();
            EXPECT_EQ(expect, platform.calls());
            EXPECT_EQ(goesOn, errl == nullptr);
            EXPECT_EQ(isTransfer ? 0u : 32u, length);
            release();
            platform.verify();
            if (HasFailure()) {
                return;
            }
        }
    }
}

void SeepromEngine::refuses(const std::string& location, unsigned reason, std::uint32_t word1,
                            const std::string& details)
{
    SCOPED_TRACE(location);
    again();
    transfer(location, 0, 8);
    EXPECT_EQ("\n" + newEntry(1, {facts.module, reason, word1, 0, 0, 0, 0x81, "kestseeprom"}) +
                  returnCode(1, 0x80000000u | reason) + callout(1) + details,
              platform.calls());
    EXPECT_NE(nullptr, errl);
    EXPECT_EQ(reads ? 0u : 8u, length);
    EXPECT_EQ(nullptr, data);
}

void SeepromEngine::refusesTextsNotUnderstood()
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

void SeepromEngine::freesTheTextWithoutMemoryForTheEntry()
{
    platform.failEntryAllocation();
    transfer("nonsense", 0, 8);
    EXPECT_EQ("\nno memory for an entry\n", platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(0, platform.liveAllocations());
}

void SeepromEngine::freesTheChainWithoutMemoryForTheEntry()
{
    platform.failEntryAllocation();
    transfer("p,L,922,80,3", 0, 8);
    EXPECT_EQ("\nno memory for an entry\n", platform.calls());
    EXPECT_EQ(nullptr, errl);
    EXPECT_EQ(0, platform.liveAllocations());
}

void SeepromEngine::refusesInvalidChains()
{
    const auto chain = [](const char* nodes) { return line("entry1.addUsrDtls(list %s, 0x1300, 1, 1)\n", nodes); };
    refuses("p,L,2C0256,A0,9552,C0,9552,C2,9552,C4", 0x1302, 0xAC0002,
            chain("0xA0/0x2C0256/0 0xC0/0x9552/0 0xC2/0x9552/0 0xC4/0x9552/0"));
    refuses("p,L,2C0256,A0,922,80,3", 0x1302, 0xAC0004, chain("0xA0/0x2C0256/0 0x80/0x922/3"));
    refuses("p,L,2C0256,A0,2C0256,A2", 0x1302, 0xAC0005, chain("0xA0/0x2C0256/0 0xA2/0x2C0256/0"));
    refuses("p,L,922,80,3,922,82,1,2C0256,A2", 0x1302, 0xAC0006, chain("0x80/0x922/3 0x82/0x922/1 0xA2/0x2C0256/0"));
    refuses("p,L,922,80,3", 0x1302, 0xAC0007, chain("0x80/0x922/3"));
    EXPECT_EQ(1u, platform.lines(kindTrace).size());
}

void SeepromEngine::refusesOtherDevices()
{
    for (const char* type : {"9551", "9552", "9554", "9555", "D10", "75", "92"}) {
        const auto value = static_cast<std::uint32_t>(std::stoul(type, nullptr, 16));
        refuses(line("p,L,%s,C0", type), 0x1330, value, "");
        refuses(line("p,L,922,80,1,%s,C0", type), 0x1330, value, "");
        EXPECT_EQ(1u, platform.lines(kindTrace).size());
        EXPECT_NE(std::string::npos, platform.traces().find(line("\" %%s,%%x\", \"%s\", 0x%X)", facts.name, value)));
    }
}

void SeepromEngine::closeFailuresAreNotReturned()
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
        EXPECT_EQ(nullptr, errl);
        EXPECT_EQ(32u, length);
    }
}

void SeepromEngine::deadlockOfTheCloseIsCommittedByItself()
{
    scriptSteps();
    platform.failsClose(35).capturesFfdc();
    transferSteps();
    EXPECT_EQ("\n" + mallocLine(32) + stepLines() + (reads ? "" : "usleep(15000)\n") + "mern_iic_close(h1)\n" +
                  failureLines(1, failure({19, 0x1316, 0x1317, false, 0, 0, 0}, 35)),
              platform.calls());
    EXPECT_EQ(nullptr, errl);
}

void SeepromEngine::closeFailuresTakeTheSite()
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
                          finishLines(first.returnCode, close.committed ? all[failing].site : facts.closeSite),
                      platform.calls());
            EXPECT_NE(nullptr, errl);
        }
    }
}

void SeepromEngine::usesALocationThatFillsItsField()
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

void SeepromEngine::tracesAFailedTransfer()
{
    platform.opens().configures(2);
    if (reads) {
        platform.configures();
    }
    platform.failsSeek(22).capturesFfdc().closes();
    transfer("sim:planar,L,2C0256,A0", 0x1234, 32);
    EXPECT_NE(std::string::npos, platform.traces().find(line(
                                     "\" %%s,%%s,%%x,%%x,%%x,%%x\", \"%s\", \"sim:planar,L,2C0256,A0\", 0x11, 0x20, "
                                     "0x20, 0x1234)",
                                     facts.name)))
        << platform.traces();
    const std::vector<std::string> scopes = platform.lines(kindScope);
    EXPECT_NE(std::string::npos, scopes.front().find(facts.name));
    EXPECT_NE(std::string::npos, scopes.back().find(facts.name));
}

void SeepromEngine::seeksFarPositions()
{
    platform.opens().configures(reads ? 3 : 2).failsSeek(22).capturesFfdc().closes();
    transfer("sim:planar,L,2C0256,A0", 0x80000010, 8);
    EXPECT_EQ((Src{.module = 14, .reason = 0x1313, .word1 = 22, .word2 = 0x80000010, .subsystem = 0x81}),
              platform.entry(1).srcs.at(0));
    if (sizeof(long) == 8) {
        EXPECT_NE(std::string::npos, platform.layerCalls().find("mern_iic_seek(h1, 2147483664, 0)"));
    }
}

void SeepromEngine::everyCallMayFail(const std::string& location, unsigned offset)
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
                const bool reported = errl != nullptr || platform.commits() > 0 || !quiet.text().empty();
                if (!platform.faultWasMet()) {
                    ASSERT_LT(5, failing);
                    EXPECT_FALSE(reported);
                    break;
                }
                EXPECT_TRUE(reported) << platform.failedCall();
                EXPECT_EQ(0, platform.openHandles() + platform.heldLocks()) << platform.failedCall();
                release();
                EXPECT_EQ(0, platform.liveBuffers() + platform.liveEntries()) << platform.failedCall();
                ASSERT_FALSE(HasFailure()) << errorNumber << " at " << platform.failedCall();
            }
        }
    }
}

} // namespace seepromengine
