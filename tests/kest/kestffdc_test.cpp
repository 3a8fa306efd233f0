/// First-failure data: extraction, unlocking, and the capture into an entry.
#include <cstring>
#include <memory>
#include <vector>

#include "kestmisc.h"
#include "kestwobu.h"
#include "tests/kest/expected.h"
#include "tests/platform/scripted.h"

using namespace kest;
using namespace expected;
using namespace scripted;

namespace
{

struct KestFfdc : PlatformTest {
    mern_t handle = platform.openHandle();
    ErrlEntry* entry = nullptr;
    void* data = nullptr;
    unsigned int size = 0;

    ~KestFfdc() override { delete entry; }
};

// --- the two steps ---

TEST_F(KestFfdc, EachStepReportsEveryErrno)
{
    for (const bool extract : {true, false}) {
        const char* const name = extract ? "kest_wobuFFDCExtract" : "kest_wobuFFDCUnlock";
        const unsigned reason = extract ? 0x1310 : 0x130F;
        for (int error = 0; error <= 133; ++error) {
            SCOPED_TRACE(line("%s errno %d", name, error));
            platform.reset();
            handle = platform.openHandle();
            if (extract) {
                platform.failsFfdcExtract(error);
            } else {
                platform.failsFfdcUnlock(error);
            }
            const std::uint32_t result =
                extract ? kest_wobuFFDCExtract(handle, entry, &data, &size) : kest_wobuFFDCUnlock(handle, entry, 0);
            const bool software = blamesSoftware(error);
            const std::uint32_t code = software ? 0x80000000 | reason : reason;
            EXPECT_EQ(code, result);
            EXPECT_EQ((extract ? "\nmern_iic_ffdc_extract(h1, 0)\n" : "\nmern_iic_ffdc_unlock(h1, 0)\n") +
                          newEntry(1, {extract ? 9u : 10u, reason, static_cast<std::uint32_t>(error), 0xFFFFFFFF, 0, 0,
                                       software ? 0x81u : 0x55u}) +
                          returnCode(1, code) + callout(1),
                      platform.calls());
            EXPECT_EQ(
                line("\ntrace(0x%08X, \" %%s,%%d\", \"%s\", %d)\n", extract ? 0x3A07606Du : 0x898D7F6Cu, name, error) +
                    (error == 19 ? line("trace(0x05B69EAF, \" %%s\", \"%s\")\n", name) : ""),
                platform.traces());
            EXPECT_EQ(0u, size);
            delete entry;
            entry = nullptr;
            platform.verify();
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_F(KestFfdc, ExtractGivesTheLayersBufferAway)
{
    platform.extractsFfdc(hex("01 02 03"));
    EXPECT_EQ(0U, kest_wobuFFDCExtract(handle, entry, &data, &size));
    EXPECT_EQ(nullptr, entry);
    ASSERT_EQ(3U, size);
    EXPECT_EQ(0, std::memcmp("\1\2\3", data, 3));
    tavo_util_free(&data);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
trace(0x225681C0, " %s,%d", "kest_wobuFFDCExtract", 3)
tavo_util_free(ffdc1)
)",
              platform.events());
}

TEST_F(KestFfdc, ExtractGivesASingleByte)
{
    platform.extractsFfdc(hex("7f"));
    EXPECT_EQ(0U, kest_wobuFFDCExtract(handle, entry, &data, &size));
    EXPECT_EQ(1U, size);
    tavo_util_free(&data);
}

TEST_F(KestFfdc, ExtractOfNothingLeavesDataAndSize)
{
    platform.extractsNoFfdc();
    size = 77;
    EXPECT_EQ(0U, kest_wobuFFDCExtract(handle, entry, &data, &size));
    EXPECT_EQ(77U, size);
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
trace(0x3242D04A, " %s", "kest_wobuFFDCExtract")
)",
              platform.events());
}

TEST_F(KestFfdc, UnlockTracesItselfOnlyWhenAsked)
{
    platform.unlocksFfdc().unlocksFfdc();
    EXPECT_EQ(0U, kest_wobuFFDCUnlock(handle, entry, 0));
    EXPECT_EQ(R"(
mern_iic_ffdc_unlock(h1, 0)
)",
              platform.log());
    EXPECT_EQ(0U, kest_wobuFFDCUnlock(handle, entry, 1));
    EXPECT_EQ(R"(
mern_iic_ffdc_unlock(h1, 0)
trace(0x0D21BD6B, " %s", "kest_wobuFFDCUnlock")
mern_iic_ffdc_unlock(h1, 0)
)",
              platform.log());
    EXPECT_EQ(nullptr, entry);
}

TEST_F(KestFfdc, AnUnlockIsFailedByMinusOneAlone)
{
    platform.failsFfdcUnlock(5, 1);
    EXPECT_EQ(0U, kest_wobuFFDCUnlock(handle, entry, 0));
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ("\n", platform.traces());
}

// --- their capture ---

TEST_F(KestFfdc, CapturesIntoTheEntry)
{
    platform.capturesFfdc(text("{\"first\": 1}"));
    entry = platform.makeEntry();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
trace(0x225681C0, " %s,%d", "kest_wobuFFDCExtract", 12)
mern_iic_ffdc_unlock(h1, 0)
tavo_util_free(ffdc1)
entry1.addUsrDtls("{\"first\": 1}", 0x1300, 1, 6)
)",
              platform.events());
}

TEST_F(KestFfdc, WithoutDataNothingIsAdded)
{
    platform.capturesFfdc();
    entry = platform.makeEntry();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
mern_iic_ffdc_unlock(h1, 0)
)",
              platform.calls());
}

TEST_F(KestFfdc, WithoutAnEntryTheDataStayUnreleased)
{
    platform.capturesFfdc(hex("01 02")).expectUnreleasedFfdc();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
mern_iic_ffdc_unlock(h1, 0)
)",
              platform.calls());
    EXPECT_EQ(0, platform.entryCount());
}

TEST_F(KestFfdc, AFailedExtractionAddsItsSrcAndASoftwareErrorAndStillUnlocks)
{
    platform.failsFfdcExtract(5).unlocksFfdc();
    entry = platform.makeEntry();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
entry1.addSRC(0x1300, 0xB1, 0, 9, 0x43FF, 0x1310, 0x5, 0xFFFFFFFF, 0x0, 0x0, 0x55)
entry1.CollectTrace("kest", 500)
entry1.addUsrDtls("kestwobu", 0x1300, 1, 2)
entry1.setRC(0x1310)
entry1.addProcedureCallout(1, 4)
entry1.addSwErr(0x1300, 0x1310, 16, 165, 0)
mern_iic_ffdc_unlock(h1, 0)
)",
              platform.calls());
}

TEST_F(KestFfdc, AFailedUnlockAddsItsSrcAndASoftwareErrorBeforeTheData)
{
    platform.extractsFfdc(hex("01 02")).failsFfdcUnlock(22);
    entry = platform.makeEntry();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
mern_iic_ffdc_unlock(h1, 0)
entry1.addSRC(0x1300, 0xB1, 0, 10, 0x43FF, 0x130F, 0x16, 0xFFFFFFFF, 0x0, 0x0, 0x81)
entry1.CollectTrace("kest", 500)
entry1.addUsrDtls("kestwobu", 0x1300, 1, 2)
entry1.setRC(0x8000130F)
entry1.addProcedureCallout(1, 4)
entry1.addSwErr(0x1300, 0x8000130F, 16, 180, 0)
tavo_util_free(ffdc1)
entry1.addUsrDtls(2 bytes: 01 02, 0x1300, 1, 6)
)",
              platform.calls());
}

TEST_F(KestFfdc, BothFailingMakeOneEntryWhereThereWasNone)
{
    platform.failsFfdcExtract(9).failsFfdcUnlock(9);
    kest_miscExtractFFDCAndUnlock(entry, handle);
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(1, platform.entryCount());
    EXPECT_EQ(R"(
SRC module 9 reason 0x1310 words 0x9 0xFFFFFFFF 0x0 0x0 subsystem 0x81
SRC module 10 reason 0x130F words 0x9 0xFFFFFFFF 0x0 0x0 subsystem 0x81
rc 0x8000130F
callout 1 4
callout 1 4
details 2 "kestwobu"
details 2 "kestwobu"
software error 0x80001310 16 165
software error 0x8000130F 16 180
)",
              platform.entry(1).text());
}

TEST_F(KestFfdc, AFailedUnlockMakesTheEntryThatTakesTheData)
{
    platform.extractsFfdc(hex("aa")).failsFfdcUnlock(5);
    // the failed unlock makes an entry, which takes the data
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ((std::vector<Bytes>{{0xAA}}), platform.entry(1).details(6));
}

TEST_F(KestFfdc, LongDataAreCutTo16BitsOfLength)
{
    const Bytes longData = counting(70000);
    platform.capturesFfdc(longData);
    entry = platform.makeEntry();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ((std::vector<Bytes>{Bytes(longData.begin(), longData.begin() + 4464)}), platform.entry(1).details(6));
}

TEST_F(KestFfdc, WithoutMemoryForTheCopyTheDataAreStillReleased)
{
    platform.capturesFfdc(hex("01 02")).failAllocation();
    entry = platform.makeEntry();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_TRUE(platform.entry(1).userDetails.empty());
}

TEST_F(KestFfdc, TheHandleIsNotChanged)
{
    platform.capturesFfdc();
    entry = platform.makeEntry();
    const mern_t before = handle;
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(0, std::memcmp(&before, &handle, sizeof handle));
}

} // namespace
