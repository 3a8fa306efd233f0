#include <gtest/gtest.h>
#include <memory>

#include "platform/host/errorlog/deviceof.h"
#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/text.h"
#include "platform/trace.h"
#include "tests/host/host_support.h"

namespace kest::test
{

namespace
{

std::vector<std::uint32_t> wordsOf(const SrciSrc* src)
{
    unsigned int count = 0;
    const std::uint32_t* words = src != nullptr ? src->getHexData(count) : nullptr;
    return {words, words + count};
}

class ErrorEntry : public testing::Test
{
protected:
    static std::unique_ptr<ErrlEntry> make(unsigned int word1 = 62)
    {
        return std::unique_ptr<ErrlEntry>(new ErrlEntry(
            0x1300, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0, 0x0D, SERVICE_CODE_KEST,
            0x1312, word1, 2, 3, 0xFFFFFFFF, EPUB_SUBSYSTEM_IIC_DEVICE, SRCI_TERM_NONE));
    }
    HostFolder folder;
};

TEST_F(ErrorEntry, FirstSrcIsDescribedByTheConstructor)
{
    const auto entry = make();
    EXPECT_EQ((std::vector<std::uint32_t>{0x00B143FF, 0x1300000D, 0x1312, 0x55, 62, 2, 3, 0xFFFFFFFF}),
              wordsOf(entry->getSRC(0)));
    EXPECT_EQ(nullptr, entry->getSRC(1));
    EXPECT_EQ(0x1300, entry->creator());
    EXPECT_EQ(0U, entry->getRC());
    EXPECT_NE(0U, entry->plid());
}

TEST_F(ErrorEntry, FurtherSrcsAreAppendedAndKeepPointersValid)
{
    const auto entry = make();
    const SrciSrc* first = entry->getSRC(0);
    for (unsigned int number = 1; number <= 100; ++number) {
        entry->addSRC(0x1400, SRCI_TYPE_SERVICE_PROCESSOR, 0, 7, SERVICE_CODE_KEST, 0x1234, number, 0, 0, 0,
                      EPUB_SUBSYSTEM_SOFTWARE);
    }
    EXPECT_EQ(first, entry->getSRC(0));
    EXPECT_EQ((std::vector<std::uint32_t>{0x00B143FF, 0x14000007, 0x1234, 0x81, 100, 0, 0, 0}),
              wordsOf(entry->getSRC(100)));
    EXPECT_EQ(nullptr, entry->getSRC(101));
    EXPECT_EQ(0x1300, entry->creator()) << "adding an SRC does not change the creator";
}

TEST_F(ErrorEntry, AnSrcOfAnotherEntryIsCopied)
{
    auto other = make(61);
    const auto entry = make();
    entry->addSRC(0x1400, *other->getSRC(0));
    entry->addSRC(0x1400, *entry->getSRC(0));
    other.reset();
    EXPECT_EQ((std::vector<std::uint32_t>{0x00B143FF, 0x1300000D, 0x1312, 0x55, 61, 2, 3, 0xFFFFFFFF}),
              wordsOf(entry->getSRC(1)));
    EXPECT_EQ(62U, wordsOf(entry->getSRC(2))[4]);
    EXPECT_EQ(0x1400, host::describeEntry(*entry).srcs[1].creator);
}

TEST_F(ErrorEntry, AssignmentTakesOverEverything)
{
    const auto other = make(61);
    const auto entry = make(62);
    other->setRC(0x80001312);
    other->setSev(ERRL_SEV_RECOVERED);
    other->addSRC(0x1400, *entry->getSRC(0));
    other->addUsrDtls("ab", 2, 0x1300, 1, 7);
    *entry = *other;
    EXPECT_EQ(other->plid(), entry->plid());
    EXPECT_EQ(0x80001312U, entry->getRC());
    EXPECT_EQ(61U, wordsOf(entry->getSRC(0))[4]);
    EXPECT_EQ(62U, wordsOf(entry->getSRC(1))[4]);
    EXPECT_EQ(host::toLine(host::describeEntry(*other)), host::toLine(host::describeEntry(*entry)));
    other->addSRC(0x1400, *entry->getSRC(0));
    EXPECT_EQ(nullptr, entry->getSRC(2)) << "a copy, not the same object";
    const ErrlEntry& same = *entry;
    *entry = same;
    EXPECT_EQ(61U, wordsOf(entry->getSRC(0))[4]);
}

TEST_F(ErrorEntry, LaterReturnCodesAndSeveritiesReplaceEarlierOnes)
{
    const auto entry = make();
    entry->setRC(1);
    entry->setRC(0x8000130D);
    entry->setSev(ERRL_SEV_RECOVERED);
    EXPECT_EQ(0x8000130DU, entry->getRC());
    EXPECT_EQ(0x10U, host::describeEntry(*entry).severity);
}

TEST_F(ErrorEntry, IdentifiersDifferAndOutlastTheirProcess)
{
    std::set<std::uint32_t> ids;
    std::uint32_t latest = 0;
    for (int number = 0; number < 3000; ++number) {
        ids.insert(latest = make()->plid());
    }
    EXPECT_EQ(3000U, ids.size());
    EXPECT_FALSE(ids.contains(0));
    folder.configure("registry.a = \"another configuration, as after a restart\"");
    EXPECT_LT(latest, make()->plid());
}

TEST_F(ErrorEntry, ALostCounterContinuesAfterTheStoredEntries)
{
    std::uint32_t latest = 0;
    for (std::uint32_t number = 0; number < 40; ++number) {
        latest = commitEntry(number);
    }
    for (const char* contents : {"", "garbage !!\n", "0000000000\n", "9999999999\n", "12\n"}) {
        folder.write("state/errors.next", contents);
        folder.configure("");
        EXPECT_EQ(latest + 1, make()->plid()) << contents;
    }
}

TEST_F(ErrorEntry, ACounterOfTooManyDigitsIsMendedAtOnce)
{
    commitEntry(1);
    folder.write("state/errors.next", "00000000000000000050\n");
    folder.configure("");
    const std::uint32_t own = make()->plid();
    EXPECT_EQ(11U, folder.read("state/errors.next").size());
    EXPECT_EQ(0, inChild([&] { return make()->plid() != own ? 0 : 1; })) << "two processes, two identifiers";
}

TEST_F(ErrorEntry, NamesItsDevice)
{
    const auto entry = make();
    EXPECT_EQ("", host::deviceOf(host::describeEntry(*entry)));
    entry->addUsrDtls("/dev/i2c-1", 11, 0x1300, 1, 5);
    EXPECT_EQ("/dev/i2c-1", host::deviceOf(host::describeEntry(*entry)));
    entry->addUsrDtls("another's", 9, 0x1400, 1, 7);
    entry->addUsrDtls("L:1A0\x1b", 6, 0x1300, 1, 7);
    EXPECT_EQ("L:1A0\\x1B", host::deviceOf(host::describeEntry(*entry)));
    const auto tools = make();
    tools->addUsrDtls("sim:a,L,75,90", 13, 0x1700, 1, 7);
    EXPECT_EQ("sim:a,L,75,90", host::deviceOf(host::describeEntry(*tools)));
}

/// Most failures of a transfer have no device text: bus and address are in the record of the failed call.
TEST_F(ErrorEntry, NamesItsDeviceByFirstFailureData)
{
    const auto deviceIn = [](const std::string& record) {
        const auto entry = make();
        entry->addUsrDtls(record.data(), static_cast<unsigned short>(record.size()), 0x1300, 1, 6);
        return host::deviceOf(host::describeEntry(*entry));
    };
    EXPECT_EQ("sim:planar@C6", deviceIn(R"({"operation":"write","bus":"sim:planar","target":"C6","length":1})"));
    EXPECT_EQ("/dev/i2c-1", deviceIn(R"({"bus":"/dev/i2c-1","target":"00"})")) << "no target was set";
    EXPECT_EQ("sim:\\x1B@C6", deviceIn(R"({"bus":"sim:\u001b","target":"C6"})"));
    for (const char* damaged : {"", "{", "[]", "7", R"({"bus":7,"target":"C6"})", R"({"target":"C6"})",
                                R"({"bus":"sim:planar","target":"C6")"}) {
        EXPECT_EQ("", deviceIn(damaged)) << damaged;
    }

    const auto both = make();
    const std::string record = R"({"bus":"sim:planar","target":"80"})";
    both->addUsrDtls(record.data(), static_cast<unsigned short>(record.size()), 0x1300, 1, 6);
    both->addUsrDtls("sim:planar,L,922,80,3,2C0128,A2", 31, 0x1300, 1, 7);
    EXPECT_EQ("sim:planar,L,922,80,3,2C0128,A2", host::deviceOf(host::describeEntry(*both)));
}

TEST_F(ErrorEntry, UsedUpIdentifiersBeginAgain)
{
    make();
    folder.write("state/errors.next", "2147483640\n");
    folder.configure("");
    EXPECT_EQ(1U, make()->plid());
}

TEST_F(ErrorEntry, WithoutAStateFolderIdentifiersStillDiffer)
{
    folder.write("state", "a file where the folder should be");
    std::set<std::uint32_t> ids;
    for (int number = 0; number < 100; ++number) {
        ids.insert(make()->plid());
    }
    EXPECT_EQ(100U, ids.size());
    EXPECT_LE(0x80000000U, *ids.begin());
}

TEST_F(ErrorEntry, AChildHasIdentifiersOfItsOwn)
{
    const std::uint32_t before = make()->plid();
    EXPECT_EQ(0, inChild([&] {
                  const std::uint32_t child = make()->plid();
                  // beyond the parent's block
                  return child > before + 8 ? 0 : 1;
              }));
    EXPECT_EQ(before + 1, make()->plid());
}

/// Uses every operation once, with hostile texts. All numbers differ, so that none can take the place of another
/// unnoticed.
TEST_F(ErrorEntry, JsonFormHoldsEveryItem)
{
    trace_wobu_descriptor ring = nullptr;
    ASSERT_EQ(0, trace_wobu_init_buffer(&ring, "entrytest", 4096));
    trace_wobu_write_all(ring, 0x1234, " %s,%d", 77, 0, "f\x1b\xff", 5);

    const auto entry = make();
    entry->addSRC(0x1401, *entry->getSRC(0));
    entry->CollectTrace("entrytest", 500);
    entry->CollectTrace("no such buffer", 500);
    entry->CollectTrace(nullptr, 500);
    entry->addUsrDtls("\x00\x7F\xFF", 3, 0x1302, 1, 6);
    entry->addUsrDtls(nullptr, 3, 0x1303, 2, 7);
    entry->setRC(0x80001305);
    entry->setSev(ERRL_SEV_RECOVERED);
    entry->addProcedureCallout(SRCI_PRIORITY_HIGH, EPUB_PROCEDURE_SOFTWARE);
    entry->addProcedureCallout(SRCI_PRIORITY_HIGH, EPUB_PROCEDURE_IIC);
    entry->addFruCallout(SRCI_PRIORITY_HIGH, 0x1234);
    entry->addSwErr(0x1304, 0x80001306, 16, 165, 9);

    host::loggedEntry facts = host::describeEntry(*entry);
    // 2020
    EXPECT_LT(1577836800000, facts.createdMs);
    EXPECT_EQ(0, facts.committedMs);
    EXPECT_EQ(getpid(), facts.processId);
    EXPECT_EQ(program_invocation_short_name, facts.process);
    ASSERT_EQ(1U, facts.traces.size());
    EXPECT_EQ("entrytest", facts.traces[0].buffer);
    EXPECT_NE(std::string::npos, facts.traces[0].text.find(",5"));
    for (const char unwanted : {'\x1b', '\xff'}) {
        EXPECT_EQ(std::string::npos, facts.traces[0].text.find(unwanted));
    }

    facts.plid = 11;
    facts.createdMs = 12;
    facts.committedMs = 1'700'000'000'013;
    facts.processId = 14;
    facts.process = "p\"\n";
    facts.commitComponent = 15;
    facts.commitAction = 0x2000;
    facts.traces[0].text = "line\xC3\xA9\n";
    const std::string line =
        R"({"id":11,"committed_ms":1700000000013,"created_ms":12,"severity":16,"event_type":0,"creator":4864,)"
        R"("return_code":2147488517,"commit_component":15,"action":8192,"process_id":14,"process":"p\"\n","incomplete":false,)"
        R"("srcs":[{"words":[11617279,318767117,4882,85,62,2,3,4294967295],"creator":4864,"flags":0,"terminating_state":0},)"
        R"({"words":[11617279,318767117,4882,85,62,2,3,4294967295],"creator":5121,"flags":0,"terminating_state":0}],)"
        R"("callouts":[{"priority":1,"procedure":4},{"priority":1,"procedure":6}],"fru_callouts":[{"priority":1,"fru":4660}],)"
        R"("software_errors":[{"component":4868,"return_code":2147488518,"module":16,"site":165,"reserved":9}],)"
        R"("user_details":[{"component":4866,"version":1,"subsection":6,"hex":"007fff"},)"
        R"({"component":4867,"version":2,"subsection":7,"hex":""}],)"
        R"("traces":[{"buffer":"entrytest","text":"line\u00e9\n"}]})";
    EXPECT_EQ(line, host::toLine(facts));
    const auto back = host::fromLine(line);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(line, host::toLine(*back));

    // up to layout 2
    const std::string former =
        R"({"callouts":[{"priority":1,"procedure":4},{"priority":1,"procedure":6}],"commitAction":8192,"commitComponent":15,)"
        R"("committedMs":1700000000013,"createdMs":12,"creator":4864,"eventType":0,"fruCallouts":[{"fru":4660,"priority":1}],)"
        R"("incomplete":false,"plid":11,"process":"p\"\n","processId":14,"returnCode":2147488517,"severity":16,)"
        R"("softwareErrors":[{"component":4868,"reserved":9,"returnCode":2147488518,"word1":16,"word2":165}],)"
        R"("srcs":[{"creator":4864,"flags":0,"terminatingState":0,"words":[11617279,318767117,4882,85,62,2,3,4294967295]},)"
        R"({"creator":5121,"flags":0,"terminatingState":0,"words":[11617279,318767117,4882,85,62,2,3,4294967295]}],)"
        R"("traces":[{"buffer":"entrytest","text":"line\u00e9\n"}],)"
        R"("userDetails":[{"component":4866,"data":"007fff","subsection":6,"version":1},)"
        R"({"component":4867,"data":"","subsection":7,"version":2}]})";
    const auto same = host::fromLine(former);
    ASSERT_TRUE(same.has_value());
    EXPECT_EQ(line, host::toLine(*same));
    for (const std::string& each : {line, former}) {
        const auto keys = host::keysOfLine(each);
        ASSERT_TRUE(keys.has_value());
        EXPECT_EQ(11U, keys->plid);
        EXPECT_EQ(1'700'000'000'013, keys->committedMs);
        EXPECT_EQ(16U, keys->severity);
        EXPECT_EQ(4864, keys->creator);
    }
}

TEST_F(ErrorEntry, TextsThatAreNoEntriesAreRefused)
{
    const std::string good = host::toLine(host::describeEntry(*make()));
    EXPECT_TRUE(host::fromLine(good).has_value());
    const auto changed = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        EXPECT_NE(text.npos, text.find(from));
        return text.replace(text.find(from), from.size(), to);
    };
    const auto withDetails = [&](const std::string& data) {
        return changed(R"("user_details":[])",
                       R"("user_details":[{"component":1,"version":1,"subsection":1,"hex":")" + data + R"("}])");
    };
    EXPECT_TRUE(host::fromLine(withDetails("0a")).has_value());
    for (const std::string& bad :
         {std::string(), std::string("[]"), std::string("{}"), good.substr(0, good.size() - 1), good + "x",
          changed("\"id\"", "\"io\""), changed("\"severity\":32", "\"severity\":\"x\""),
          changed("\"srcs\":[", "\"srcs\":[3,"), withDetails("0"), withDetails("0g"), withDetails("0A"),
          changed("\"process\":\"", "\"process\":\"\xFF"), std::string(100000, '[')}) {
        EXPECT_FALSE(host::fromLine(bad).has_value()) << bad.substr(0, 200);
    }
}

TEST_F(ErrorEntry, TextsAreMadeHarmless)
{
    EXPECT_EQ("a\tb\nc", host::cleanText("a\tb\nc"));
    EXPECT_EQ("\\x1B[2J\\x7F\\x00", host::cleanText(std::string_view("\x1b[2J\x7f\0", 6)));
    EXPECT_EQ("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", host::cleanText("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
    // overlong
    EXPECT_EQ("\\xC0\\x80", host::cleanText("\xC0\x80"));
    // overlong
    EXPECT_EQ("\\xE0\\x9F\\xBF", host::cleanText("\xE0\x9F\xBF"));
    // surrogate
    EXPECT_EQ("\\xED\\xA0\\x80", host::cleanText("\xED\xA0\x80"));
    // overlong
    EXPECT_EQ("\\xF0\\x8F\\xBF\\xBF", host::cleanText("\xF0\x8F\xBF\xBF"));
    // beyond the last character
    EXPECT_EQ("\\xF4\\x90\\x80\\x80", host::cleanText("\xF4\x90\x80\x80"));
    // cut off
    EXPECT_EQ("\\xE2\\x82", host::cleanText("\xE2\x82"));
    EXPECT_EQ("\\xC3a", host::cleanText("\xC3"
                                        "a"));
}

} // namespace

} // namespace kest::test
