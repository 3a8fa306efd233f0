/// What the tests of reading and of writing SEEPROM hardware share: verbs, and the expectations that hold for both.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kestseeprom.h"
#include "tests/kest/expected.h"
#include "tests/kest/results.h"
#include "tests/platform/scripted.h"

namespace seepromengine
{

using namespace scripted;
using namespace expected;
using namespace results;
using namespace kest;

constexpr kest_attributeValue defaults[6] = {400, 1, 15, 1, 2, 1};

/// A device address. A text that fills the field has no terminator in it.
tavo_deviceaddress deviceAt(const std::string& location, std::uint32_t number = 0);

struct EngineFacts {
    const char* name;
    unsigned module;
    unsigned hubSite, openSite, blockSite, speedSite, seekSite, retrySite, transferSite, closeSite;
};
constexpr EngineFacts readFacts{"kest_seepromHardwareRead", 15, 609, 633, 652, 670, 708, 744, 751, 770};
constexpr EngineFacts writeFacts{"kest_seepromHardwareWrite", 17, 1327, 1348, 1367, 1385, 1400, 1435, 1441, 1470};

/// One step of the transfer: its line in the log, its script, and how its failure is reported.
struct Step {
    std::string line;
    std::function<void(Platform&)> succeeds;
    std::function<void(Platform&, int)> fails; ///< none: it cannot leave an entry
    unsigned site = 0;
    LayerCall call = {};
};

class SeepromEngine : public BufferTest
{
protected:
    explicit SeepromEngine(bool read) : reads(read), facts(read ? readFacts : writeFacts) {}

    /// One transfer with the engine; the results are in `errl`, `length` and `data`.
    void transfer(const std::string& location, unsigned offset, unsigned lengthWanted,
                  const kest_attributeValue* attributes = defaults);

    std::string mallocLine(unsigned bytes) const { return reads ? line("tavo_malloc(%u)\n", bytes) : ""; }

    /// The steps of a transfer of 32 bytes at offset 256 of a 24C256.
    std::vector<Step> steps() const;

    /// The transfer whose steps are steps().
    void transferSteps() { transfer("sim:planar,L,2C0256,A0", 256, 32); }

    /// The lines that complete an entry at the end.
    std::string finishLines(std::uint32_t code, unsigned site, const char* chain = "0xA0/0x2C0256/0") const
    {
        return line("entry1.addUsrDtls(list %s, 0x1300, 1, 1)\n", chain) + softwareError(1, code, facts.module, site);
    }

    std::string openFailureLines(int error) const;
    static std::uint32_t openFailureCode(int error)
    {
        return error == 19 ? 0x8000130B : error == 2 ? 0x40001311 : blamesSoftware(error) ? 0x8000130C : 0x0000130C;
    }

    /// Each step fails with each errno. The tests of the retry cover time-outs of the transfer itself.
    void everyStepReportsEveryErrno();

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
    void refuses(const std::string& location, unsigned reason, std::uint32_t word1, const std::string& details);

    void refusesTextsNotUnderstood();

    /// Without an entry the text has no owner, and is freed.
    void freesTheTextWithoutMemoryForTheEntry();

    /// The flat chain, which is attached to the error details, is freed once.
    void freesTheChainWithoutMemoryForTheEntry();

    void refusesInvalidChains();

    void refusesOtherDevices();

    /// A failing close makes an entry of its own, which is not returned to the caller.
    void closeFailuresAreNotReturned();

    void deadlockOfTheCloseIsCommittedByItself();

    /// After another failure, a failing close keeps its own entry, and the site is that of the close.
    void closeFailuresTakeTheSite();

    /// A text without terminator is used to its last character, and no further.
    void usesALocationThatFillsItsField();

    void tracesAFailedTransfer();

    /// A large position is passed on unchanged.
    void seeksFarPositions();

    /// Every platform call fails, alone and with all later ones: each failure is reported or committed, and nothing
    /// leaks.
    void everyCallMayFail(const std::string& location, unsigned offset);

    const bool reads;
    const EngineFacts& facts;
    Bytes written;
};

} // namespace seepromengine
