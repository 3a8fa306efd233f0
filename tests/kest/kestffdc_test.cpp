/// First-failure data: extraction, unlocking, and their capture into an entry.
#include <cerrno>
#include <cstring>
#include <memory>

#include "kestmisc.h"
#include "kestwobu.h"
#include "tests/platform/scripted.h"

using namespace kest;
using namespace scripted;

namespace
{

using KestFfdc = PlatformTest;

constexpr int softwareErrors[] = {4, 9, 14, 19, 22, 38};
constexpr int deviceErrors[]   = {0, 1, 2, 5, 6, 16, 35, 61, 62, 110};

TEST_F(KestFfdc, ExtractsWhatThereIs)
{
    platform.extractsFfdc(hex("01 02 03"));
    ErrlEntry*   entry = nullptr;
    void*        data  = nullptr;
    unsigned int size  = 0;
    EXPECT_EQ(0U, kest_wobuFFDCExtract(platform.openHandle(), entry, &data, &size));
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

TEST_F(KestFfdc, ExtractsNothing)
{
    platform.extractsNoFfdc();
    ErrlEntry*   entry = nullptr;
    void*        data  = nullptr;
    unsigned int size  = 77;
    EXPECT_EQ(0U, kest_wobuFFDCExtract(platform.openHandle(), entry, &data, &size));
    EXPECT_EQ(77U, size); // not written
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
trace(0x3242D04A, " %s", "kest_wobuFFDCExtract")
)",
              platform.events());
}

TEST_F(KestFfdc, AFailedExtractionBlamesSoftwareForSixErrnos)
{
    for (const int error : softwareErrors) {
        platform.reset();
        platform.failsFfdcExtract(error);
        ErrlEntry*   entry = nullptr;
        void*        data  = nullptr;
        unsigned int size  = 0;
        EXPECT_EQ(0x80001310U, kest_wobuFFDCExtract(platform.openHandle(), entry, &data, &size));
        const std::unique_ptr<ErrlEntry> owner{entry};
        EXPECT_EQ((std::vector<Src>{{.module    = 9,
                                     .reason    = 0x1310,
                                     .word1     = static_cast<std::uint32_t>(error),
                                     .word2     = 0xFFFFFFFF,
                                     .subsystem = 0x81}}),
                  platform.entry(1).srcs);
        EXPECT_EQ(0x80001310U, platform.entry(1).returnCode);
        EXPECT_EQ((std::vector<Callout>{{1, 4}}), platform.entry(1).callouts);
    }
}

TEST_F(KestFfdc, AFailedExtractionBlamesTheDeviceForAnyOtherErrno)
{
    for (const int error : deviceErrors) {
        platform.reset();
        platform.failsFfdcExtract(error);
        ErrlEntry*   entry = nullptr;
        void*        data  = nullptr;
        unsigned int size  = 0;
        EXPECT_EQ(0x1310U, kest_wobuFFDCExtract(platform.openHandle(), entry, &data, &size));
        const std::unique_ptr<ErrlEntry> owner{entry};
        EXPECT_EQ((Src{.module    = 9,
                       .reason    = 0x1310,
                       .word1     = static_cast<std::uint32_t>(error),
                       .word2     = 0xFFFFFFFF,
                       .subsystem = 0x55}),
                  platform.entry(1).srcs.at(0));
        EXPECT_EQ(0x1310U, platform.entry(1).returnCode);
    }
}

TEST_F(KestFfdc, AFailedExtractionIsTraced)
{
    platform.failsFfdcExtract(5);
    ErrlEntry*   entry = nullptr;
    void*        data  = nullptr;
    unsigned int size  = 0;
    kest_wobuFFDCExtract(platform.openHandle(), entry, &data, &size);
    EXPECT_EQ(R"(
trace(0x3A07606D, " %s,%d", "kest_wobuFFDCExtract", 5)
)",
              platform.traces());
    delete entry;
}

TEST_F(KestFfdc, AMissingDeviceIsTracedTwice)
{
    platform.failsFfdcExtract(19).failsFfdcUnlock(19);
    ErrlEntry*   entry  = nullptr;
    void*        data   = nullptr;
    unsigned int size   = 0;
    const mern_t handle = platform.openHandle();
    kest_wobuFFDCExtract(handle, entry, &data, &size);
    kest_wobuFFDCUnlock(handle, entry, 0);
    EXPECT_EQ(R"(
trace(0x3A07606D, " %s,%d", "kest_wobuFFDCExtract", 19)
trace(0x05B69EAF, " %s", "kest_wobuFFDCExtract")
trace(0x898D7F6C, " %s,%d", "kest_wobuFFDCUnlock", 19)
trace(0x05B69EAF, " %s", "kest_wobuFFDCUnlock")
)",
              platform.traces());
    delete entry;
}

TEST_F(KestFfdc, UnlocksWithAndWithoutATrace)
{
    platform.unlocksFfdc().unlocksFfdc();
    ErrlEntry*   entry  = nullptr;
    const mern_t handle = platform.openHandle();
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

TEST_F(KestFfdc, AFailedUnlockBlamesSoftwareForSixErrnos)
{
    for (const int error : softwareErrors) {
        platform.reset();
        platform.failsFfdcUnlock(error);
        ErrlEntry* entry = nullptr;
        EXPECT_EQ(0x8000130FU, kest_wobuFFDCUnlock(platform.openHandle(), entry, 0));
        const std::unique_ptr<ErrlEntry> owner{entry};
        EXPECT_EQ((Src{.module    = 10,
                       .reason    = 0x130F,
                       .word1     = static_cast<std::uint32_t>(error),
                       .word2     = 0xFFFFFFFF,
                       .subsystem = 0x81}),
                  platform.entry(1).srcs.at(0));
        EXPECT_EQ(0x8000130FU, platform.entry(1).returnCode);
    }
}

TEST_F(KestFfdc, AFailedUnlockBlamesTheDeviceForAnyOtherErrno)
{
    for (const int error : deviceErrors) {
        platform.reset();
        platform.failsFfdcUnlock(error);
        ErrlEntry* entry = nullptr;
        EXPECT_EQ(0x130FU, kest_wobuFFDCUnlock(platform.openHandle(), entry, 0));
        const std::unique_ptr<ErrlEntry> owner{entry};
        EXPECT_EQ(0x55U, platform.entry(1).srcs.at(0).subsystem);
        EXPECT_EQ(0x130FU, platform.entry(1).returnCode);
    }
}

TEST_F(KestFfdc, CapturesIntoTheEntry)
{
    platform.capturesFfdc(text("{\"first\": 1}"));
    ErrlEntry* entry  = platform.makeEntry();
    mern_t     handle = platform.openHandle();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
trace(0x225681C0, " %s,%d", "kest_wobuFFDCExtract", 12)
mern_iic_ffdc_unlock(h1, 0)
tavo_util_free(ffdc1)
entry1.addUsrDtls("{\"first\": 1}", 0x1300, 1, 6)
)",
              platform.events());
    delete entry;
}

TEST_F(KestFfdc, WithoutDataTheEntryGetsNothing)
{
    platform.capturesFfdc();
    ErrlEntry* entry  = platform.makeEntry();
    mern_t     handle = platform.openHandle();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(R"(
mern_iic_ffdc_extract(h1, 0)
mern_iic_ffdc_unlock(h1, 0)
)",
              platform.calls());
    delete entry;
}

TEST_F(KestFfdc, WithoutAnEntryTheDataStayUnreleased)
{
    platform.capturesFfdc(hex("01 02")).expectUnreleasedFfdc();
    ErrlEntry* entry  = nullptr;
    mern_t     handle = platform.openHandle();
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
    ErrlEntry* entry  = platform.makeEntry();
    mern_t     handle = platform.openHandle();
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
    delete entry;
}

TEST_F(KestFfdc, AFailedUnlockAddsItsSrcAndASoftwareErrorAheadOfTheData)
{
    platform.extractsFfdc(hex("01 02")).failsFfdcUnlock(22);
    ErrlEntry* entry  = platform.makeEntry();
    mern_t     handle = platform.openHandle();
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
    delete entry;
}

TEST_F(KestFfdc, BothFailingMakeOneEntryWhereThereWasNone)
{
    platform.failsFfdcExtract(9).failsFfdcUnlock(9);
    ErrlEntry* entry  = nullptr;
    mern_t     handle = platform.openHandle();
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
    delete entry;
}

TEST_F(KestFfdc, AFailedUnlockWithoutAnEntryLetsTheDataInto)
{
    platform.extractsFfdc(hex("aa")).failsFfdcUnlock(5);
    ErrlEntry* entry  = nullptr;
    mern_t     handle = platform.openHandle();
    kest_miscExtractFFDCAndUnlock(entry, handle); // the unlock's failure made an entry: the data have a place
    EXPECT_EQ((std::vector<Bytes>{{0xAA}}), platform.entry(1).details(6));
    delete entry;
}

TEST_F(KestFfdc, LongDataAreCutTo16BitsOfLength)
{
    const Bytes data = counting(70000);
    platform.capturesFfdc(data);
    ErrlEntry* entry  = platform.makeEntry();
    mern_t     handle = platform.openHandle();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ((std::vector<Bytes>{Bytes(data.begin(), data.begin() + 4464)}), platform.entry(1).details(6));
    delete entry;
}

TEST_F(KestFfdc, WithoutMemoryForTheCopyTheDataAreReleasedAllTheSame)
{
    platform.capturesFfdc(hex("01 02")).failAllocation();
    ErrlEntry* entry  = platform.makeEntry();
    mern_t     handle = platform.openHandle();
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_TRUE(platform.entry(1).userDetails.empty());
    delete entry;
}

TEST_F(KestFfdc, TheHandleIsNotChanged)
{
    platform.capturesFfdc();
    ErrlEntry*   entry  = platform.makeEntry();
    mern_t       handle = platform.openHandle();
    const mern_t before = handle;
    kest_miscExtractFFDCAndUnlock(entry, handle);
    EXPECT_EQ(0, std::memcmp(&before, &handle, sizeof handle));
    delete entry;
}

} // namespace
