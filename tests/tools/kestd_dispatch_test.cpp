/// Who may do what, and what becomes of the requests of those who may not: with made-up peers, so that any user can run it.
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/host/errorlog/store.h"
#include "tests/host/iic_support.h"
#include "tools/kestd/dispatch.h"

namespace kest::service
{
namespace
{

using client::frame;

constexpr uid_t stranger = 4'000'000'001; // nobody's
constexpr gid_t club     = 4'000'000'002;

Peer peerOfUser(uid_t uid, std::vector<gid_t> groups = {}) { return {uid, 4711, std::move(groups)}; }

/// "rw", "r-": what a peer may do.
std::string rights(const host::serviceSettings& settings, const Peer& peer)
{
    const Permission permission = Permissions(settings).of(peer);
    EXPECT_EQ(permission.read || permission.write, permission.any());
    return std::string(permission.read ? "r" : "-") + (permission.write ? "w" : "-");
}

TEST(KestdPermission, RootAndOwnerMayDoEverythingOthersNothing)
{
    EXPECT_EQ("rw", rights({}, peerOfUser(0)));
    EXPECT_EQ("rw", rights({}, peerOfUser(geteuid())));
    EXPECT_EQ("--", rights({}, peerOfUser(stranger, {club})));
    EXPECT_EQ("--", rights({}, Peer{})); // nobody vouched for it
}

TEST(KestdPermission, ByUserAndByGroup)
{
    const std::string     user  = std::to_string(stranger);
    const std::string     group = std::to_string(club);
    const Peer            peer  = peerOfUser(stranger, {5, club});
    host::serviceSettings settings;
    settings.readUsers = {"1", user};
    EXPECT_EQ("r-", rights(settings, peer));
    EXPECT_EQ("--", rights(settings, peerOfUser(stranger + 7)));
    settings            = {};
    settings.writeUsers = {user};
    EXPECT_EQ("-w", rights(settings, peer));
    settings            = {};
    settings.readGroups = {group};
    EXPECT_EQ("r-", rights(settings, peer));
    EXPECT_EQ("--", rights(settings, peerOfUser(stranger, {5})));
    EXPECT_EQ("--", rights(settings, peerOfUser(club))); // a user of that number
    settings             = {};
    settings.writeGroups = {group};
    EXPECT_EQ("-w", rights(settings, peer));
}

TEST(KestdPermission, NamesAreLookedUpAndThoseUnknownTold)
{
    host::serviceSettings settings;
    settings.readUsers   = {"root", "no-such-user"};
    settings.writeGroups = {"root", "no-such-group"};
    const Permissions permissions(settings);
    EXPECT_EQ((std::vector<std::string>{"user 'no-such-user'", "group 'no-such-group'"}), permissions.unknown());
    EXPECT_TRUE(permissions.of(peerOfUser(stranger, {0})).write);
    EXPECT_FALSE(permissions.of(peerOfUser(stranger, {0})).read);
}

/// A request as clients send it: `length` bytes of a device that is not there.
frame transfer(std::uint16_t type, std::uint32_t length)
{
    frame request{7, type, 0, 0, 0, std::vector<std::uint8_t>(12)};
    std::memcpy(request.payload.data() + 8, &length, sizeof length);
    for (const char letter : std::string("sim:nowhere,L,2C0256,A0"))
        request.payload.push_back(static_cast<std::uint8_t>(letter));
    request.payload.resize(request.payload.size() + 1 + (type == 0x8002 ? length : 0));
    return request;
}

class KestdDispatch : public testing::Test
{
protected:
    [[nodiscard]] frame answerTo(const frame& request, Permission permission, uid_t user = stranger)
    {
        return dispatch(request, peerOfUser(user), permission, m_refusals);
    }
    static std::string textOf(const frame& reply) { return {reply.payload.begin(), reply.payload.end()}; }

private:
    test::OwnConfiguration m_configuration;
    RefusalLog             m_refusals;
};

TEST_F(KestdDispatch, RefusalNamesTheUserAndIsLogged)
{
    const frame reply = answerTo(transfer(0x8002, 3), {.read = true, .write = false});
    EXPECT_EQ(7, reply.identifier);
    EXPECT_EQ(0x8002, reply.type);
    EXPECT_EQ(0x80, reply.flags);
    EXPECT_EQ(0x80001601U, reply.returnCode);
    EXPECT_EQ("user 4000000001 is not permitted to write", textOf(reply));
    const auto entries = host::listEntries({.plid = reply.logId}).entries;
    ASSERT_EQ(1U, entries.size());
    EXPECT_EQ(0x80001601U, entries[0].returnCode);
    EXPECT_EQ(0x1600, entries[0].creator);
    ASSERT_EQ(1U, entries[0].srcs.size());
    const auto& words = entries[0].srcs[0].words;
    EXPECT_EQ((std::vector<std::uint32_t>{4000000001, 4711, 0x8002, 3}),
              (std::vector<std::uint32_t>(words.begin() + 4, words.end())));
    ASSERT_EQ(1U, entries[0].userDetails.size());
    EXPECT_EQ(8, entries[0].userDetails[0].subsection);
    EXPECT_EQ("user 4000000001 is not permitted to write",
              std::string(entries[0].userDetails[0].bytes.begin(), entries[0].userDetails[0].bytes.end()));
}

TEST_F(KestdDispatch, EachTypeNeedsItsRight)
{
    const Permission reader{.read = true, .write = false};
    const Permission writer{.read = false, .write = true};
    const auto       isForbidden = [this](std::uint16_t type, Permission permission) {
        return answerTo(transfer(type, 1), permission).returnCode == 0x80001601;
    };
    for (const std::uint16_t type : std::initializer_list<std::uint16_t>{0x8001, 0x8003, 0x8004, 0x7FFF}) {
        EXPECT_FALSE(isForbidden(type, reader)) << type;
        EXPECT_TRUE(isForbidden(type, writer)) << type;
    }
    EXPECT_TRUE(isForbidden(0x8002, reader));
    EXPECT_FALSE(isForbidden(0x8002, writer));
    EXPECT_EQ("user 4000000001 is not permitted to read", textOf(answerTo(transfer(0x8004, 1), {})));
}

TEST_F(KestdDispatch, LengthIsRefusedOnlyToThoseWhoMay)
{
    const frame tooLong = transfer(0x8001, 65537);
    EXPECT_EQ(0x80001601U, answerTo(tooLong, {}).returnCode);
    const frame reply = answerTo(tooLong, {.read = true, .write = false});
    EXPECT_EQ(0x80001602U, reply.returnCode);
    EXPECT_EQ("65537 bytes at once are more than 65536", textOf(reply));
    EXPECT_NE(0U, reply.logId);
}

TEST_F(KestdDispatch, EachUserHasAShareOfTheLog)
{
    int entries = 0;
    for (int number = 0; number < 30; ++number) {
        const frame reply = answerTo(transfer(0x8001, 1), {});
        EXPECT_EQ(0x80001601U, reply.returnCode); // refused all the same
        entries += reply.logId != 0 ? 1 : 0;
    }
    EXPECT_EQ(20, entries);
    EXPECT_NE(0U, answerTo(transfer(0x8001, 1), {}, stranger + 1).logId);
}

} // namespace
} // namespace kest::service
