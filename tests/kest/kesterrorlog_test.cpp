#include "kesterrorlog.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "kesttrace.h"
#include "tests/platform/scripted.h"

using namespace kest;
using namespace scripted;

namespace
{

using KestErrorLog = PlatformTest;

/// A record with every item, each with a value of its own.
kest_errorDetails everything()
{
    static constexpr std::uint8_t block[] = {0xDE, 0xAD};
    kest_errorDetails details{};
    details.logSrc = 1;
    details.moduleId = 0xABCDEF13;
    details.reasonCode = 0xABCD1312;
    details.subsystem = EPUB_SUBSYSTEM_IIC_DEVICE;
    details.userData1 = 6;
    details.userData2 = 0x11223344;
    details.userData3 = 0xFFFFFFFF;
    details.userData4 = 4;
    details.callout1InUse = 1;
    details.callout1Priority = SRCI_PRIORITY_HIGH;
    details.callout1Procedure = EPUB_PROCEDURE_SOFTWARE;
    details.callout2InUse = 1;
    details.callout2Priority = SRCI_PRIORITY_HIGH;
    details.callout2Procedure = EPUB_PROCEDURE_IIC;
    details.callout3InUse = 1;
    details.callout3Priority = SRCI_PRIORITY_NONE;
    details.callout3Procedure = EPUB_PROCEDURE_NONE;
    details.setReturnCode = 1;
    details.returnCode = 0x40001312;
    details.usrDtlsInUse = 1;
    details.usrDtlsData = block;
    details.usrDtlsSize = 2;
    details.usrDtlsVersion = 7;
    details.usrDtlsSubsection = 9;
    details.swErrInUse = 1;
    details.swErrReturnCode = 0x80001234;
    details.swErrWord1 = 0x1230010;
    details.swErrWord2 = 0x12300A5;
    details.fruCalloutInUse = 1;
    details.fruCalloutId = 0x12345678;
    details.fruCalloutPriority = SRCI_PRIORITY_HIGH;
    return details;
}

TEST_F(KestErrorLog, MakesTheTraceBufferAtLoadAndRegistersForUnload)
{
    EXPECT_EQ(R"(
trace_wobu_init_buffer("kest", 8092)
__cxa_atexit(function, null, library)
)",
              platform.loadLog());
    EXPECT_NE(nullptr, kest_trace);
}

TEST_F(KestErrorLog, LeavesTheTraceBufferAloneAtUnload)
{
    const trace_wobu_descriptor atLoad = kest_trace;
    ASSERT_NE(nullptr, platform.exitHandler());
    platform.exitHandler()(nullptr);
    EXPECT_EQ("\n", platform.log());
    EXPECT_EQ(atLoad, kest_trace);
}

TEST_F(KestErrorLog, AnEmptyRecordDoesNothing)
{
    kest_errorDetails details{};
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ("\n", platform.log());
}

TEST_F(KestErrorLog, AnEmptyRecordLeavesAnEntryAlone)
{
    const std::unique_ptr<ErrlEntry> owner{platform.makeEntry()};
    kest_errorDetails details{};
    ErrlEntry* entry = owner.get();
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(owner.get(), entry);
    EXPECT_EQ("\n", platform.log());
}

TEST_F(KestErrorLog, CreatesTheEntryAndAddsEveryItemInOrder)
{
    kest_errorDetails details = everything();
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, "unit");
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(R"(
entry1 = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, 19, 0x43FF, 0x1312, 0x6, 0x11223344, 0xFFFFFFFF, 0x4, 0x55, 0)
entry1.CollectTrace("IIC", 500)
entry1.CollectTrace("kest", 500)
entry1.addUsrDtls("unit", 0x1300, 1, 2)
entry1.setRC(0x40001312)
entry1.addProcedureCallout(1, 4)
entry1.addProcedureCallout(1, 6)
entry1.addProcedureCallout(0, 0)
entry1.addUsrDtls(2 bytes: de ad, 0x1300, 7, 9)
entry1.addSwErr(0x1300, 0x80001234, 16, 165, 0)
entry1.addFruCallout(1, 0x5678)
)",
              platform.log());
    delete entry;
}

TEST_F(KestErrorLog, AddsAnSrcToTheEntryThatIsThere)
{
    ErrlEntry* entry = platform.makeEntry();
    ErrlEntry* const before = entry;
    kest_errorDetails details = everything();
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(before, entry);
    EXPECT_EQ(R"(
entry1.addSRC(0x1300, 0xB1, 0, 19, 0x43FF, 0x1312, 0x6, 0x11223344, 0xFFFFFFFF, 0x4, 0x55)
entry1.CollectTrace("kest", 500)
entry1.addUsrDtls("unit", 0x1300, 1, 2)
entry1.setRC(0x40001312)
entry1.addProcedureCallout(1, 4)
entry1.addProcedureCallout(1, 6)
entry1.addProcedureCallout(0, 0)
entry1.addUsrDtls(2 bytes: de ad, 0x1300, 7, 9)
entry1.addSwErr(0x1300, 0x80001234, 16, 165, 0)
entry1.addFruCallout(1, 0x5678)
)",
              platform.log());
    EXPECT_EQ(1, platform.entryCount());
    EXPECT_EQ(2U, platform.entry(1).srcs.size());
    delete entry;
}

TEST_F(KestErrorLog, CommitsAndDeletesAtTheEnd)
{
    kest_errorDetails details{};
    ErrlEntry* entry = nullptr;
    details.logSrc = 1;
    details.moduleId = 5;
    details.reasonCode = 0x1303;
    details.subsystem = EPUB_SUBSYSTEM_SOFTWARE;
    details.setReturnCode = 1;
    details.returnCode = 0x80001303;
    details.commitEntry = 1;
    details.commitAction = 0x2000;
    kest_logError(entry, &details, nullptr);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(0, details.commitEntry);
    EXPECT_EQ(R"(
entry1 = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, 5, 0x43FF, 0x1303, 0x0, 0x0, 0x0, 0x0, 0x81, 0)
entry1.CollectTrace("IIC", 500)
entry1.CollectTrace("kest", 500)
entry1.setRC(0x80001303)
entry1.commit(0x1300, 0x2000)
delete entry1
)",
              platform.log());
}

TEST_F(KestErrorLog, CommitsWithTheActionThatTheRecordNames)
{
    ErrlEntry* entry = platform.makeEntry();
    kest_errorDetails details{};
    details.commitEntry = 1;
    details.commitAction = 0x4000;
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(R"(
entry1.commit(0x1300, 0x4000)
delete entry1
)",
              platform.log());
}

TEST_F(KestErrorLog, CommitActionAloneCommitsNothing)
{
    const std::unique_ptr<ErrlEntry> owner{platform.makeEntry()};
    ErrlEntry* entry = owner.get();
    kest_errorDetails details{};
    details.commitAction = 0x2000;
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(owner.get(), entry);
    EXPECT_EQ("\n", platform.log());
}

TEST_F(KestErrorLog, TheSecondCallAddsNothingMore)
{
    kest_errorDetails details = everything();
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(0, details.logSrc + details.setReturnCode + details.callout1InUse + details.callout2InUse +
                     details.callout3InUse + details.usrDtlsInUse + details.swErrInUse + details.fruCalloutInUse +
                     details.commitEntry);
    platform.clearLog();
    kest_logError(entry, &details, "unit");
    EXPECT_EQ("\n", platform.log());
    delete entry;
}

TEST_F(KestErrorLog, WithoutAnEntryOnlyAnSrcIsLookedAt)
{
    kest_errorDetails details = everything();
    details.logSrc = 0;
    details.commitEntry = 1;
    details.commitAction = 0x2000;
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ("\n", platform.log());
    EXPECT_EQ(1, details.setReturnCode);
    EXPECT_EQ(1, details.callout1InUse);
    EXPECT_EQ(1, details.usrDtlsInUse);
    EXPECT_EQ(1, details.swErrInUse);
    EXPECT_EQ(1, details.fruCalloutInUse);
    EXPECT_EQ(1, details.commitEntry);
}

TEST_F(KestErrorLog, AReturnCodeWithoutAnEntryIsLost)
{
    kest_errorDetails details{};
    kest_setReturnCode(details, 0x80001234);
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ("\n", platform.log());
}

TEST_F(KestErrorLog, DeletesAnOwnedBlockOnceItIsAdded)
{
    ErrlEntry* entry = platform.makeEntry();
    kest_errorDetails details{};
    auto* const block = new std::uint8_t[3]{1, 2, 3};
    kest_attachUserDetails(details, block, 3, 6, true);
    // builds with the address sanitizer check that the block is deleted, and how
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(nullptr, details.usrDtlsData);
    EXPECT_EQ(0, details.usrDtlsInUse);
    EXPECT_EQ(1, details.usrDtlsOwned);
    EXPECT_EQ((std::vector<Bytes>{{1, 2, 3}}), platform.entry(1).details(6));
    delete entry;
}

TEST_F(KestErrorLog, AnOwnedNullBlockIsNoBlockToDelete)
{
    ErrlEntry* entry = platform.makeEntry();
    kest_errorDetails details{};
    kest_attachUserDetails(details, nullptr, 0, 6, true);
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(nullptr, details.usrDtlsData);
    EXPECT_EQ((std::vector<Bytes>{{}}), platform.entry(1).details(6));
    delete entry;
}

TEST_F(KestErrorLog, ABlockNotOwnedStays)
{
    ErrlEntry* entry = platform.makeEntry();
    const std::uint8_t block[] = {9, 8};
    kest_errorDetails details{};
    kest_attachUserDetails(details, block, 2, 5);
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(block, details.usrDtlsData);
    EXPECT_EQ(0, details.usrDtlsOwned);
    delete entry;
}

TEST_F(KestErrorLog, AnOwnedBlockWithoutAnEntryStaysTheCallers)
{
    const std::unique_ptr<std::uint8_t[]> block{new std::uint8_t[3]{1, 2, 3}};
    kest_errorDetails details{};
    kest_attachUserDetails(details, block.get(), 3, 6, true);
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(block.get(), details.usrDtlsData);
    EXPECT_EQ(1, details.usrDtlsInUse);
    EXPECT_EQ(3, block[2]);
}

TEST_F(KestErrorLog, ANullSourceAddsNoIdentification)
{
    kest_errorDetails details{};
    kest_requestSrc(details, 1, 0x1301, EPUB_SUBSYSTEM_SOFTWARE);
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, nullptr);
    EXPECT_TRUE(platform.entry(1).userDetails.empty());
    delete entry;
}

TEST_F(KestErrorLog, ASourceIsCutTo16BitsOfLength)
{
    const std::string source(0x10003, 's');
    kest_errorDetails details{};
    kest_requestSrc(details, 1, 0x1301, EPUB_SUBSYSTEM_SOFTWARE);
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, source.c_str());
    EXPECT_EQ((std::vector<Bytes>{{'s', 's', 's'}}), platform.entry(1).details(2));
    delete entry;
}

TEST_F(KestErrorLog, ABlockIsCutTo16BitsOfLength)
{
    const Bytes block = counting(0x10002);
    kest_errorDetails details{};
    kest_attachUserDetails(details, block.data(), 0x10002, 6);
    ErrlEntry* entry = platform.makeEntry();
    kest_logError(entry, &details, nullptr);
    EXPECT_EQ((std::vector<Bytes>{{0, 1}}), platform.entry(1).details(6));
    delete entry;
}

TEST_F(KestErrorLog, WithoutMemoryForAnEntryThereIsNone)
{
    kest_errorDetails details = everything();
    ErrlEntry* entry = nullptr;
    platform.failEntryAllocation();
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(0, details.logSrc);
    EXPECT_EQ(1, details.setReturnCode);
    EXPECT_EQ(R"(
no memory for an entry
)",
              platform.log());
}

TEST_F(KestErrorLog, KeepsTheSeverityOfAnEntry)
{
    ErrlEntry* entry = platform.makeEntry();
    entry->setSev(ERRL_SEV_RECOVERED);
    kest_errorDetails details = everything();
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(0x10U, platform.entry(1).severity);
    delete entry;
}

TEST_F(KestErrorLog, CalloutsTakeTheFirstFreeSlotAndAFourthIsDropped)
{
    kest_errorDetails details{};
    kest_addCallout(details);
    kest_addCallout(details, EPUB_PROCEDURE_IIC);
    kest_addCallout(details);
    kest_addCallout(details, EPUB_PROCEDURE_IIC);
    ErrlEntry* entry = platform.makeEntry();
    kest_logError(entry, &details, nullptr);
    EXPECT_EQ(R"(
entry1.addProcedureCallout(1, 4)
entry1.addProcedureCallout(1, 6)
entry1.addProcedureCallout(1, 4)
)",
              platform.log());
    delete entry;
}

TEST_F(KestErrorLog, ACalloutTakesASlotThatIsFreeAgain)
{
    kest_errorDetails details{};
    details.callout1InUse = details.callout3InUse = 1;
    kest_addCallout(details, EPUB_PROCEDURE_IIC);
    EXPECT_EQ(1, details.callout2InUse);
    EXPECT_EQ(SRCI_PRIORITY_HIGH, details.callout2Priority);
    EXPECT_EQ(EPUB_PROCEDURE_IIC, details.callout2Procedure);
    EXPECT_EQ(EPUB_PROCEDURE_NONE, details.callout1Procedure);
}

TEST_F(KestErrorLog, DescribesTheUsualFailure)
{
    kest_errorDetails details{};
    kest_describeFailure(details, 27, 0x1318, 1, 2, 3, 4);
    ErrlEntry* entry = nullptr;
    kest_logError(entry, &details, "unit");
    EXPECT_EQ(R"(
SRC module 27 reason 0x1318 words 0x1 0x2 0x3 0x4 subsystem 0x81
rc 0x80001318
callout 1 4
details 2 "unit"
)",
              platform.entry(1).text());
    delete entry;
}

TEST_F(KestErrorLog, AttachesASoftwareErrorAndAFru)
{
    kest_errorDetails details{};
    kest_attachSoftwareError(details, 0x80001310, 16, 165);
    kest_attachFruCallout(details, 0xFFFF0011);
    ErrlEntry* entry = platform.makeEntry();
    kest_logError(entry, &details, "unit");
    EXPECT_EQ((std::vector<SoftwareError>{{.returnCode = 0x80001310, .word1 = 16, .word2 = 165}}),
              platform.entry(1).softwareErrors);
    EXPECT_EQ((std::vector<Callout>{{.priority = 1, .id = 0x11}}), platform.entry(1).fruCallouts);
    delete entry;
}

TEST(KestErrorRecord, FieldsHaveTheirOrder)
{
    // consumers of the log read dumps of the record, so its order is fixed
    EXPECT_LT(offsetof(kest_errorDetails, logSrc), offsetof(kest_errorDetails, commitEntry));
    EXPECT_LT(offsetof(kest_errorDetails, commitEntry), offsetof(kest_errorDetails, moduleId));
    EXPECT_LT(offsetof(kest_errorDetails, moduleId), offsetof(kest_errorDetails, reasonCode));
    EXPECT_LT(offsetof(kest_errorDetails, reasonCode), offsetof(kest_errorDetails, subsystem));
    EXPECT_LT(offsetof(kest_errorDetails, subsystem), offsetof(kest_errorDetails, userData1));
    EXPECT_LT(offsetof(kest_errorDetails, userData4), offsetof(kest_errorDetails, commitAction));
    EXPECT_LT(offsetof(kest_errorDetails, commitAction), offsetof(kest_errorDetails, callout1InUse));
    EXPECT_LT(offsetof(kest_errorDetails, callout3Procedure), offsetof(kest_errorDetails, setReturnCode));
    EXPECT_LT(offsetof(kest_errorDetails, returnCode), offsetof(kest_errorDetails, usrDtlsInUse));
    EXPECT_LT(offsetof(kest_errorDetails, usrDtlsSubsection), offsetof(kest_errorDetails, swErrInUse));
    EXPECT_LT(offsetof(kest_errorDetails, swErrWord2), offsetof(kest_errorDetails, fruCalloutInUse));
    EXPECT_LT(offsetof(kest_errorDetails, fruCalloutId), offsetof(kest_errorDetails, fruCalloutPriority));
}

TEST(KestErrorRecord, SixErrnoValuesBlameSoftware)
{
    for (int error = 0; error < 200; ++error) {
        const bool software = error == 4 || error == 9 || error == 14 || error == 19 || error == 22 || error == 38;
        EXPECT_EQ(software, kest_isSoftwareErrno(error)) << error;
    }
}

TEST(KestErrorRecord, TheErrnoNamesHaveTheNumbersOfTheTable)
{
    EXPECT_EQ(4, EINTR);
    EXPECT_EQ(6, ENXIO);
    EXPECT_EQ(35, EDEADLK);
    EXPECT_EQ(38, ENOSYS);
}

TEST_F(KestErrorLog, FindsTheErrnoOfAFailedTransfer)
{
    const std::unique_ptr<ErrlEntry> entry{platform.makeEntry({.srcs = {{.word1 = 61}, {.word1 = 6}}})};
    EXPECT_EQ(61U, kest_failedErrno(entry.get()));
}

TEST_F(KestErrorLog, FindsNoErrnoWhereThereIsNone)
{
    const std::unique_ptr<ErrlEntry> bare{platform.makeEntry({.srcs = {}})};
    const std::unique_ptr<ErrlEntry> brief{platform.makeEntry({.srcs = {{.word1 = 61}}, .wordCount = 4})};
    const std::unique_ptr<ErrlEntry> enough{platform.makeEntry({.srcs = {{.word1 = 61}}, .wordCount = 5})};
    EXPECT_EQ(std::nullopt, kest_failedErrno(nullptr));
    EXPECT_EQ(std::nullopt, kest_failedErrno(bare.get()));
    EXPECT_EQ(std::nullopt, kest_failedErrno(brief.get()));
    EXPECT_EQ(61U, kest_failedErrno(enough.get()));
}

TEST_F(KestErrorLog, CommitsASecondaryFailure)
{
    ErrlEntry* entry = platform.makeEntry();
    kest_commitSecondary(entry);
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(R"(
entry1.CollectTrace("kest", 250)
entry1.commit(0x1300, 0x4000)
delete entry1
)",
              platform.log());
    kest_commitSecondary(entry);
    EXPECT_EQ(1, platform.commits());
}

TEST_F(KestErrorLog, MergesTheFirstSrcWithItsCreator)
{
    const std::unique_ptr<ErrlEntry> to{platform.makeEntry()};
    const std::unique_ptr<ErrlEntry> from{
        platform.makeEntry({.srcs = {{.module = 12, .reason = 0x130E}, {.module = 1}}, .creator = 0x2200})};
    const std::unique_ptr<ErrlEntry> bare{platform.makeEntry({.srcs = {}})};
    kest_mergeFirstSrc(*to, *from);
    kest_mergeFirstSrc(*to, *bare);
    EXPECT_EQ(R"(
entry1.addSRC(0x2200, SRC 0 of entry2)
)",
              platform.calls());
    EXPECT_EQ((Src{.module = 12, .reason = 0x130E, .component = 0x2200}), platform.entry(1).srcs.at(1));
}

TEST_F(KestErrorLog, TakesOverAnEntry)
{
    ErrlEntry* old = platform.makeEntry({.returnCode = 0x1234, .srcs = {{.module = 7}}});
    const std::unique_ptr<ErrlEntry> taken{kest_takeOver(old)};
    EXPECT_EQ(nullptr, old);
    EXPECT_EQ(R"(
entry2 = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, 0, 0x43FF, 0x0, 0x0, 0x0, 0x0, 0x0, 0x81, 0)
entry2 = copy of entry1
delete entry1
)",
              platform.calls());
    EXPECT_EQ(0x1234U, platform.entry(2).returnCode);
    EXPECT_EQ((std::vector<Src>{{.module = 7}}), platform.entry(2).srcs);
}

TEST_F(KestErrorLog, TakingOverWithoutMemoryHandsTheOldEntryOn)
{
    ErrlEntry* old = platform.makeEntry();
    ErrlEntry* const before = old;
    platform.failEntryAllocation();
    const std::unique_ptr<ErrlEntry> taken{kest_takeOver(old)};
    EXPECT_EQ(before, taken.get());
    EXPECT_EQ(nullptr, old);
}

TEST(KestTraceHash, IsMadeFromTheMessageAlone)
{
    static_assert(traceHash("entry") == 0xCAC3D793);
    static_assert(traceHash("exit") == 0xCDED1A85);
    static_assert(traceHash("") == 0x811C9DC5);
    EXPECT_NE(traceHash("a"), traceHash("b"));
}

TEST_F(KestErrorLog, AScopeTracesEntryAndExit)
{
    {
        const traceScope scope("kest_example");
        trace_wobu_write_all(kest_trace, 0x11223344, " %s,%d", 7, 0, "kest_example", -5);
    }
    EXPECT_EQ(R"(
trace(0xCAC3D793, " %s", "kest_example")
trace(0x11223344, " %s,%d", "kest_example", -5)
trace(0xCDED1A85, " %s", "kest_example")
)",
              platform.log());
    EXPECT_EQ(7, platform.traceRecords().at(1).line);
}

} // namespace
