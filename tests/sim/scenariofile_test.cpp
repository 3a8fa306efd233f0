#include "sim/scenariofile.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace kest::sim::test
{

namespace
{

std::string troubleOf(const std::string& text)
{
    try {
        parseScenario(text, "s");
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

TEST(ScenarioFile, EventsAreInTheOrderInWhichTheyHappen)
{
    const auto events = parseScenario("[[event]]\nat_ms = 12.5\nbus = \"b\"\nnode = \"far\"\ndo = \"temperature\"\n"
                                      "address = 0x92\nhub = 0x8A\nport = 7\ncelsius = -0.25\nover_ms = 0.001\n"
                                      "[[event]]\nat_ms = 2\ndo = \"power-cut\"\n"
                                      "[[event]]\ntransaction = 9\ndo = \"fault\"\nkind = \"corrupt\"\nvalue = 3\n",
                                      "s");
    ASSERT_EQ(3U, events.size());
    EXPECT_EQ(eventKind::fault, events[0].event.kind);
    EXPECT_FALSE(events[0].event.byTime);
    EXPECT_EQ(8U, events[0].event.at);
    EXPECT_EQ("corrupt", events[0].fault.kind);
    EXPECT_EQ(3U, events[0].fault.value);
    EXPECT_EQ(eventKind::powerCut, events[1].event.kind);
    EXPECT_EQ(2'000'000U, events[1].event.at);
    EXPECT_EQ("s:11:1", events[1].place);
    EXPECT_EQ(12'500'000U, events[2].event.at);
    EXPECT_EQ("far", events[2].node);
    EXPECT_EQ(0x8A, events[2].event.hub);
    EXPECT_EQ(7, events[2].event.port);
    EXPECT_EQ(-250'000, events[2].event.microCelsius);
    EXPECT_EQ(1'000U, events[2].event.lastingNs);
    EXPECT_TRUE(parseScenario("# nothing\n", "s").empty());
}

TEST(ScenarioFile, SaysWhereAndWhatIsWrong)
{
    const std::string at = "[[event]]\nat_ms = 1\n";
    const std::string chip = at + "bus = \"b\"\naddress = 0xA0\n";
    struct Row {
        std::string text, trouble;
    };
    for (const Row& row : {
             Row{"[[event]\n", "s:1:9: Error while parsing table header: expected ']', saw '\\n'"},
             Row{"[[\n", "s:1:1: expected plain TOML, found a '[' without the name of a table"},
             Row{"event = 3\n", "s:1:1: a scenario has tables, written [[event]], and nothing else"},
             Row{"x = 3\n", "s:1:1: a scenario has tables, written [[event]], and nothing else"},
             Row{at, "s:1:1: key 'do': expected 'fault', 'remove', 'insert', 'temperature' or 'power-cut'"},
             Row{at + "do = 3\n", "s:3:6: key 'do': expected a text"},
             Row{"[[event]]\ndo = \"power-cut\"\n", "s:1:1: key 'at_ms': an event has either 'at_ms' or 'transaction'"},
             Row{at + "transaction = 1\ndo = \"power-cut\"\n",
                 "s:2:9: key 'at_ms': an event has either 'at_ms' or 'transaction'"},
             Row{"[[event]]\ntransaction = 0\ndo = \"power-cut\"\n",
                 "s:2:15: key 'transaction': transactions count from 1"},
             Row{"[[event]]\nat_ms = -1\ndo = \"power-cut\"\n", "s:2:9: key 'at_ms': must be from 0 to 8.64e+07"},
             Row{"[[event]]\nat_ms = nan\ndo = \"power-cut\"\n", "s:2:9: key 'at_ms': must be from 0 to 8.64e+07"},
             Row{at + "do = \"power-cut\"\naddress = 0xA0\n", "s:4:1: unknown key 'address' of event 'power-cut': "
                                                              "expected one of do, at_ms, transaction, bus, node"},
             Row{chip + "do = \"insert\"\ncelsius = 3\n",
                 "s:6:1: unknown key 'celsius' of event 'insert': expected one of do, at_ms, transaction, bus, node, "
                 "address, hub, port"},
             Row{at + "do = \"remove\"\nbus = \"b\"\n", "s:1:1: key 'address': missing"},
             Row{at + "do = \"remove\"\naddress = 0xA0\n", "s:1:1: key 'bus': missing"},
             Row{chip + "do = \"remove\"\nhub = 0x80\n", "s:1:1: key 'port': 'hub' and 'port' go together"},
             Row{chip + "do = \"remove\"\nhub = 0x80\nport = 8\n", "s:7:8: key 'port': must be from 0 to 7"},
             Row{chip + "do = \"temperature\"\n", "s:1:1: key 'celsius': missing"},
             Row{chip + "do = \"temperature\"\ncelsius = 1001\n", "s:6:11: key 'celsius': must be from -273 to 1000"},
             Row{at + "do = \"remove\"\nbus = \"b\"\naddress = 0xA1\n",
                 "s:5:11: key 'address': addresses are in the 8-bit form, and even"},
             Row{at + "do = \"fault\"\nkind = \"nack\"\nlasts_ms = 1\n",
                 "s:4:8: key 'kind': only 'hold-scl' lasts for a time of its own"},
             Row{at + "do = \"fault\"\nkind = \"gon\"\n", "s:4:8: key 'kind': unknown kind of fault 'gon'"},
         }) {
        EXPECT_EQ(row.trouble, troubleOf(row.text)) << row.text;
    }
}

} // namespace
} // namespace kest::sim::test
