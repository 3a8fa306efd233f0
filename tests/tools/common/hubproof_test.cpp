/// A hub that answers as a script says: every answer that a hub can give to the questions of a width proof.
#include "tools/common/hubproof.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace kest::tools
{
namespace
{

constexpr int silent = -1;

/// Gives one answer to each question, and notes the questions: "0" and "0 5A" are offset bytes, "status" takes it.
struct ScriptedHub {
    /// The answer to a read.
    struct Answer {
        int status = 0; ///< or `silent`
        std::uint8_t firstByte = 0x5A; ///< the others are 00
    };

    std::deque<Answer> answers;
    bool statusIsSilent = false;
    std::vector<std::string> asked = {};

    std::optional<widthFinding> prove()
    {
        const hubQuestion question{.readStatus = [this](std::span<const std::uint8_t> offset,
                                                        std::span<std::uint8_t> into) { return answer(offset, into); },
                                   .clearStatus =
                                       [this] {
                                           asked.emplace_back("status");
                                           return !statusIsSilent;
                                       }};
        const std::optional<widthFinding> found = proveByHub(question);
        EXPECT_TRUE(answers.empty()) << answers.size() << " answers were not asked for";
        return found;
    }

private:
    std::optional<std::uint8_t> answer(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into)
    {
        constexpr char digits[] = "0123456789ABCDEF";
        std::string bytes;
        for (const std::uint8_t byte : offset) {
            bytes += bytes.empty() ? "" : " ";
            bytes += {digits[byte >> 4], digits[byte & 0xF]};
        }
        asked.push_back(bytes);
        if (answers.empty()) {
            ADD_FAILURE() << "an unexpected question: " << bytes;
            return std::nullopt;
        }
        const Answer given = answers.front();
        answers.pop_front();
        std::ranges::fill(into, given.status == 0 ? std::uint8_t{0} : std::uint8_t{0xFF});
        if (given.status == 0) {
            into[0] = given.firstByte;
        }
        return given.status == silent ? std::nullopt : std::optional(static_cast<std::uint8_t>(given.status));
    }
};

using Questions = std::vector<std::string>;

TEST(HubProof, ThatTakesOneOffsetByteAloneHasAPartWithOne)
{
    ScriptedHub hub{.answers = {{}, {}, {.status = 1}}};
    const auto found = hub.prove();
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(widthVerdict::oneByte, found->verdict);
    EXPECT_TRUE(found->byHub);
    EXPECT_EQ("the hub takes this width and refuses the other one", found->seen);
    // the refusal does not stay in the hub
    EXPECT_EQ((Questions{"00", "00", "00 5A", "status"}), hub.asked);
}

TEST(HubProof, ThatTakesTwoAloneHasAPartWithTwo)
{
    ScriptedHub hub{.answers = {{.status = 1}, {.status = 1}, {}}};
    const auto found = hub.prove();
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(widthVerdict::twoBytes, found->verdict);
    EXPECT_EQ((Questions{"00", "status", "00", "status", "00 00"}), hub.asked);
}

/// (0, 0) would write a 00 to a ferroelectric part with one offset byte.
TEST(HubProof, ARefusalThatWasLeftInTheHubSendsNoTwoBytesThatThePartDoesNotHold)
{
    ScriptedHub hub{.answers = {{.status = 1}, {}, {}, {.status = 1}}};
    const auto found = hub.prove();
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(widthVerdict::oneByte, found->verdict);
    EXPECT_EQ((Questions{"00", "status", "00", "00", "00 5A", "status"}), hub.asked);
}

TEST(HubProof, ThatTakesBothLeavesItToReads)
{
    ScriptedHub hub{.answers = {{}, {}, {}}};
    EXPECT_FALSE(hub.prove().has_value());
    EXPECT_EQ((Questions{"00", "00", "00 5A"}), hub.asked);
    ScriptedHub stale{.answers = {{.status = 1}, {}, {}, {}}};
    EXPECT_FALSE(stale.prove().has_value());
    EXPECT_EQ((Questions{"00", "status", "00", "00", "00 5A"}), stale.asked);
}

TEST(HubProof, ThatRefusesBothSaysSo)
{
    ScriptedHub hub{.answers = {{.status = 1}, {.status = 1}, {.status = 1}}};
    const auto found = hub.prove();
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(widthVerdict::notDecidable, found->verdict);
    EXPECT_EQ("the hub refuses both widths", found->seen);
    EXPECT_EQ((Questions{"00", "status", "00", "status", "00 00", "status"}), hub.asked);
}

/// Whatever else a hub reports is left to the transfer that comes next, which lets it recover.
TEST(HubProof, AnotherStatusEndsItAtOnceAndStaysInTheHub)
{
    for (const int status : {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 15, 255}) {
        ScriptedHub first{.answers = {{.status = status}}};
        const auto found = first.prove();
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(widthVerdict::notDecidable, found->verdict);
        EXPECT_EQ("the hub reports status " + std::to_string(status), found->seen);
        EXPECT_EQ((Questions{"00"}), first.asked);
        ScriptedHub retried{.answers = {{.status = 1}, {.status = status}}};
        EXPECT_EQ(widthVerdict::notDecidable, retried.prove().value().verdict);
        EXPECT_EQ((Questions{"00", "status", "00"}), retried.asked);
        ScriptedHub again{.answers = {{}, {.status = status}}};
        EXPECT_EQ(widthVerdict::notDecidable, again.prove().value().verdict);
        EXPECT_EQ((Questions{"00", "00"}), again.asked);
        ScriptedHub last{.answers = {{}, {}, {.status = status}}};
        EXPECT_EQ("the hub reports status " + std::to_string(status), last.prove().value().seen);
        EXPECT_EQ((Questions{"00", "00", "00 5A"}), last.asked);
    }
}

TEST(HubProof, SilenceEndsItAtOnce)
{
    const std::vector<std::pair<std::deque<ScriptedHub::Answer>, Questions>> scripts{
        {{{.status = silent}}, {"00"}},
        {{{}, {.status = silent}}, {"00", "00"}},
        {{{}, {}, {.status = silent}}, {"00", "00", "00 5A"}},
        {{{.status = 1}, {.status = silent}}, {"00", "status", "00"}},
        {{{.status = 1}, {.status = 1}, {.status = silent}}, {"00", "status", "00", "status", "00 00"}}};
    for (const auto& [answers, asked] : scripts) {
        ScriptedHub hub{.answers = answers};
        const auto found = hub.prove();
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(widthVerdict::notDecidable, found->verdict);
        EXPECT_EQ("the hub does not answer", found->seen);
        EXPECT_EQ(asked, hub.asked);
    }
    ScriptedHub hub{.answers = {{.status = 1}}, .statusIsSilent = true};
    EXPECT_EQ("the hub does not answer", hub.prove().value().seen);
    EXPECT_EQ((Questions{"00", "status"}), hub.asked);
}

TEST(HubProof, ReadsThatDifferAreFlaky)
{
    ScriptedHub other{.answers = {{}, {.firstByte = 0x5B}}};
    EXPECT_EQ(widthVerdict::flaky, other.prove().value().verdict);
    ScriptedHub refused{.answers = {{}, {.status = 1}}};
    EXPECT_EQ(widthVerdict::flaky, refused.prove().value().verdict);
    EXPECT_EQ((Questions{"00", "00", "status"}), refused.asked);
}

} // namespace
} // namespace kest::tools
