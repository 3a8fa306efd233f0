#include "tools/common/proposal.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/host/configuration/configuration.h"
#include "tests/host/iic_support.h"

namespace kest::tools
{
namespace
{

using nlohmann::json;

foundPart memoryAt(std::uint8_t address)
{
    return {.address = address,
            .lastAddress = address,
            .source = partSource::proof,
            .types = {findType(KEST_DEV_SEEPROM_2K)},
            .isReady = true,
            .note = "proved"};
}

/// A configuration without a file.
host::configuration usual()
{
    host::configuration settings;
    host::complete(settings);
    return settings;
}

std::string fileOf(const proposal& proposed, const test::OwnConfiguration& own)
{
    own.use(proposed.text());
    return host::configurationError();
}

TEST(Proposal, TakesOverWhatLeadsToTheBuses)
{
    const test::OwnConfiguration own;
    host::configuration current = usual();
    const std::string state = (own.folder() / "state of \"kest\"\\").string();
    current.stateFolder = state;
    current.machineFolder = "/srv/m\xC3\xBC \xF0\x9F\x98\x80";
    current.machineRealTime = true;
    current.nodes.at(2).simNode = "riser";
    current.nodes.at(5).pathPrefix = "/srv/node5";
    current.setAdapterTimeout = true;
    current.lockFolder = "/run/lock/other";
    proposal proposed(current);
    proposed.add({"sim:planar", "L"}, {memoryAt(0xA0)});
    ASSERT_EQ("", fileOf(proposed, own));
    const host::configuration& taken = host::currentConfiguration();
    EXPECT_EQ(state, taken.stateFolder.string());
    EXPECT_EQ("/srv/m\xC3\xBC \xF0\x9F\x98\x80", taken.machineFolder.string());
    EXPECT_TRUE(taken.machineRealTime);
    EXPECT_EQ("riser", taken.nodes.at(2).simNode);
    EXPECT_EQ("/srv/node5", taken.nodes.at(5).pathPrefix);
    EXPECT_TRUE(taken.setAdapterTimeout);
    EXPECT_EQ("/run/lock/other", taken.lockFolder.string());
    ASSERT_EQ(1U, taken.devices.size());
    EXPECT_EQ("sim:planar,L,1C0002,A0", taken.devices.front().location);
    EXPECT_EQ("planar-50", taken.devices.front().name);
    EXPECT_EQ(1U, taken.devices.front().number);
}

TEST(Proposal, NamesAreNamesOfTheDeviceTable)
{
    const test::OwnConfiguration own;
    const host::configuration current = usual();
    proposal proposed(current);
    proposed.add({"sim:7", "L"}, {memoryAt(0xA0)});
    proposed.add({"/dev/i2c-1", "L"}, {memoryAt(0xA0)});
    proposed.add({"sim:node3-p", "L"}, {memoryAt(0xA0)});
    // the same name once more, a long one, and one with a character that no name has
    proposed.add({"sim:p", "3"}, {memoryAt(0xA0)});
    proposed.add({"sim:" + std::string(61, 'b'), "L"}, {memoryAt(0xA0)});
    proposed.add({"sim:a b", "L"}, {memoryAt(0xA0)});
    ASSERT_EQ("", fileOf(proposed, own));
    std::vector<std::string> names;
    for (const host::deviceEntry& entry : host::currentConfiguration().devices) {
        names.push_back(entry.name);
    }
    EXPECT_EQ((std::vector<std::string>{"bus-7-50", "i2c-1-50", "node3-p-50", "", "", ""}), names);
}

TEST(Proposal, WithoutPartsIsAFileToo)
{
    const test::OwnConfiguration own;
    const host::configuration current = usual();
    proposal proposed(current);
    proposed.add({"sim:planar", "L"}, {});
    EXPECT_EQ("", fileOf(proposed, own));
    EXPECT_NE(std::string::npos, proposed.text().find("\n# nothing answers on this bus.\n"));
    EXPECT_EQ(0U, proposed.readyRows());
}

TEST(Proposal, TextsOfTheKernelStayInTheirComment)
{
    const test::OwnConfiguration own;
    const host::configuration current = usual();
    proposal proposed(current);
    foundPart part = memoryAt(0xA0);
    part.note = "the kernel names it 'x\n[[device]]\nnumber = 7\x1B'";
    proposed.add({"sim:planar", "L"}, {part});
    EXPECT_EQ("", fileOf(proposed, own));
    EXPECT_EQ(1U, host::currentConfiguration().devices.size());
    EXPECT_EQ(std::string::npos, proposed.text().find('\x1B'));
}

TEST(Proposal, TheLastNumberIsNotPassed)
{
    const test::OwnConfiguration own;
    host::configuration current = usual();
    current.devices.push_back({.number = 0xFFFFFFFE, .location = "sim:p,L,75,90", .name = {}});
    proposal proposed(current);
    proposed.add({"sim:p", "L"}, {memoryAt(0xA0), memoryAt(0xA2)});
    ASSERT_EQ("", fileOf(proposed, own));
    ASSERT_EQ(1U, host::currentConfiguration().devices.size());
    EXPECT_EQ(0xFFFFFFFFU, host::currentConfiguration().devices.front().number);
}

TEST(Proposal, TextsAreInAscii)
{
    EXPECT_EQ("\"a\\\"b\\\\c\"", tomlText("a\"b\\c"));
    EXPECT_EQ("\"\\U000000FC\"", tomlText("\xC3\xBC"));
    EXPECT_EQ("\"\\U0001F600x\"", tomlText("\xF0\x9F\x98\x80x"));
    EXPECT_EQ("\"\\U0000007F\\U0000000A\"", tomlText("\x7F\n"));
    // no UTF-8
    EXPECT_EQ("\"\\U0000FFFD\"", tomlText("\xFF"));
    // a backslash before "ud" begins no character
    EXPECT_EQ("\"\\\\ud83d\\\\ude00\"", tomlText("\\ud83d\\ude00"));
}

} // namespace
} // namespace kest::tools
