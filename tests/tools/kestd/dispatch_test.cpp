/// Who may do what, and how requests of others are refused. The peers are made up, so that any user can run the tests.
#include <cstring>
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

// a user and a group that no machine has
constexpr uid_t stranger = 4'000'000'001;
constexpr gid_t club = 4'000'000'002;

peerProcess peerOfUser(uid_t uid, std::vector<gid_t> groups = {}) { return {uid, 4711, std::move(groups)}; }

/// "rw", "r-": what a peer may do.
std::string rights(const host::serviceSettings& settings, const peerProcess& peer)
{
    const permissionSet permission = permissionTable(settings).of(peer);
    EXPECT_EQ(permission.read || permission.write, permission.any());
    return std::string(permission.read ? "r" : "-") + (permission.write ? "w" : "-");
}

TEST(KestdPermission, RootAndOwnerMayDoEverythingOthersNothing)
{
    EXPECT_EQ("rw", rights({}, peerOfUser(0)));
    EXPECT_EQ("rw", rights({}, peerOfUser(geteuid())));
    EXPECT_EQ("--", rights({}, peerOfUser(stranger, {club})));
    // the kernel does not name its user
    EXPECT_EQ("--", rights({}, peerProcess{}));
}

TEST(KestdPermission, ByUserAndByGroup)
{
    const std::string user = std::to_string(stranger);
    const std::string group = std::to_string(club);
    const peerProcess peer = peerOfUser(stranger, {5, club});
    host::serviceSettings settings;
    settings.readUsers = {"1", user};
    EXPECT_EQ("r-", rights(settings, peer));
    EXPECT_EQ("--", rights(settings, peerOfUser(stranger + 7)));
    settings = {};
    settings.writeUsers = {user};
    EXPECT_EQ("-w", rights(settings, peer));
    settings = {};
    settings.readGroups = {group};
    EXPECT_EQ("r-", rights(settings, peer));
    EXPECT_EQ("--", rights(settings, peerOfUser(stranger, {5})));
    // a user with that number
    EXPECT_EQ("--", rights(settings, peerOfUser(club)));
    settings = {};
    settings.writeGroups = {group};
    EXPECT_EQ("-w", rights(settings, peer));
}

TEST(KestdPermission, NamesAreLookedUpAndUnknownOnesReported)
{
    host::serviceSettings settings;
    settings.readUsers = {"root", "no-such-user"};
    settings.writeGroups = {"root", "no-such-group"};
    const permissionTable permissions(settings);
    EXPECT_EQ((std::vector<std::string>{"user 'no-such-user'", "group 'no-such-group'"}), permissions.unknown());
    EXPECT_TRUE(permissions.of(peerOfUser(stranger, {0})).write);
    EXPECT_FALSE(permissions.of(peerOfUser(stranger, {0})).read);
}

/// A client's request for `length` bytes of a device that does not exist.
frame transfer(std::uint16_t type, std::uint32_t length, const std::string& text = "sim:nowhere,L,2C0256,A0",
               std::uint32_t offset = 0)
{
    frame request{7, type, 0, 0, 0, std::vector<std::uint8_t>(12)};
    std::memcpy(request.payload.data(), &offset, sizeof offset);
    std::memcpy(request.payload.data() + 8, &length, sizeof length);
    for (const char letter : text) {
        request.payload.push_back(static_cast<std::uint8_t>(letter));
    }
    request.payload.resize(request.payload.size() + 1 + (type == 0x8002 ? length : 0));
    return request;
}

class KestdDispatch : public testing::Test
{
protected:
    KestdDispatch() { addDevice("sim:nowhere,L,2C0256,A0"); }
    [[nodiscard]] frame answerTo(const frame& request, permissionSet permission, uid_t user = stranger)
    {
        deviceTurn turn;
        return dispatch(request, peerOfUser(user), permission, deviceDirectory(settings), m_refusals, turn, true)
            .value();
    }
    /// Adds a row to the device table.
    void addDevice(const std::string& text, std::uint32_t number = 1)
    {
        settings.devices.push_back({number, 0, text, ""});
    }

    host::configuration settings;

    static std::string textOf(const frame& reply) { return {reply.payload.begin(), reply.payload.end()}; }

private:
    test::OwnConfiguration m_configuration;
    refusalLog m_refusals;
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
    const permissionSet reader{.read = true, .write = false};
    const permissionSet writer{.read = false, .write = true};
    const auto isForbidden = [this](std::uint16_t type, permissionSet permission) {
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
        // refused nevertheless
        EXPECT_EQ(0x80001601U, reply.returnCode);
        entries += reply.logId != 0 ? 1 : 0;
    }
    EXPECT_EQ(20, entries);
    EXPECT_NE(0U, answerTo(transfer(0x8001, 1), {}, stranger + 1).logId);
}

// --- devices that may be named ---

constexpr permissionSet everything{.read = true, .write = true};
// refused before any device is opened
constexpr std::uint32_t noSuchDevice = 0x80001601;

TEST_F(KestdDispatch, DeviceOutsideTheTableIsRefusedToEverybody)
{
    addDevice("sim:nowhere,L,9552,C0", 2);
    for (const uid_t user : {uid_t{0}, geteuid(), uid_t{stranger}}) {
        for (const std::uint16_t type : std::initializer_list<std::uint16_t>{0x8001, 0x8002}) {
            // the address of the LED driver, but another type; a port, an address and a bus that the table does not
            // have; no text at all
            for (const char* text : {"sim:nowhere,L,2C0256,C0", "sim:nowhere,L,1C0002,A0", "sim:nowhere,L,2C0256,A2",
                                     "sim:other,L,2C0256,A0", "sim:nowhere,L,922,80,3,2C0256,A0",
                                     "sim:nowhere,0,2C0256,A0", "nonsense", ""}) {
                const frame reply = answerTo(transfer(type, 1, text), everything, user);
                EXPECT_EQ(noSuchDevice, reply.returnCode) << text;
                EXPECT_EQ(0x80, reply.flags);
            }
        }
    }
    EXPECT_EQ("'sim:nowhere,L,2C0256,C0' is no device of the device table",
              textOf(answerTo(transfer(0x8001, 1, "sim:nowhere,L,2C0256,C0"), everything)));
    EXPECT_EQ("'\\x1B[2J' is no device of the device table",
              textOf(answerTo(transfer(0x8001, 1, "\x1B[2J"), everything)));
}

TEST_F(KestdDispatch, DeviceOfTheTableIsServedInEverySpelling)
{
    settings.nodes[3].simNode = "riser";
    settings.nodes[4].simNode = "riser";
    addDevice("sim:planar,3,922,80,1,2C0128,A2", 2);
    for (const char* text : {"sim:nowhere,L,2C0256,A0", "sim:nowhere,l,2c0256,a0", "sim:nowhere@A4,L,0x2C0256,A0",
                             "sim:planar,4,922,80,1,2C0128,A2"}) {
        EXPECT_NE(noSuchDevice, answerTo(transfer(0x8001, 1, text), everything).returnCode) << text;
    }
    EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8001, 1, "sim:planar,L,922,80,1,2C0128,A2"), everything).returnCode);
    EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8001, 1, "sim:planar,5,922,80,1,2C0128,A2"), everything).returnCode);
}

TEST_F(KestdDispatch, DeviceWithTwoRowsIsServedByTheTextOfTheFirst)
{
    addDevice("sim:nowhere@A4,L,2C0256,A0", 2);
    const deviceDirectory devices(settings);
    const auto* const row = devices.find("sim:nowhere@A4,L,2C0256,A0");
    ASSERT_NE(nullptr, row);
    EXPECT_EQ("sim:nowhere,L,2C0256,A0", row->text);
}

TEST_F(KestdDispatch, PathOfANodeIsItsOwnBus)
{
    settings.nodes[1].pathPrefix = "/srv/node1";
    addDevice("/dev/i2c-3,1,2C0256,A0", 2);
    EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8001, 1, "/dev/i2c-3,L,2C0256,A0"), everything).returnCode);
    EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8001, 1, "/dev/i2c-03,1,2C0256,A0"), everything).returnCode);
    EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8001, 1, "/srv/node1/dev/i2c-3,L,2C0256,A0"), everything).returnCode);
    EXPECT_NE(noSuchDevice, answerTo(transfer(0x8001, 1, "/dev/i2c-3,1,2C0256,A0"), everything).returnCode);
}

TEST_F(KestdDispatch, RawRightAdmitsAnyText)
{
    constexpr permissionSet raw{.read = true, .write = false, .raw = true};
    EXPECT_NE(noSuchDevice, answerTo(transfer(0x8001, 1, "sim:other,L,2C0256,C0"), raw).returnCode);
    // it gives no right to write
    EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8002, 1, "sim:other,L,2C0256,C0"), raw).returnCode);
    host::serviceSettings service;
    service.rawUsers = {std::to_string(stranger)};
    EXPECT_TRUE(permissionTable(service).of(peerOfUser(stranger)).raw);
    EXPECT_FALSE(permissionTable(service).of(peerOfUser(stranger)).any());
    EXPECT_FALSE(permissionTable(service).of(peerOfUser(0)).raw);
    service = {};
    service.rawGroups = {std::to_string(club)};
    EXPECT_TRUE(permissionTable(service).of(peerOfUser(stranger, {club})).raw);
}

TEST_F(KestdDispatch, CopiesAndEmptyTextsNeedADeviceWithNumberZero)
{
    for (const char* mode : {"FileMode", "MixedMode"}) {
        settings.registry["tavo/ReadMode"] = mode;
        settings.devices = {{1, 0, "sim:nowhere,L,2C0256,A0", ""}};
        EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8001, 1), everything).returnCode) << mode;
        EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8002, 1), everything).returnCode) << mode;
        addDevice("sim:elsewhere,L,2C0256,A0", 0);
        EXPECT_NE(noSuchDevice, answerTo(transfer(0x8001, 1), everything).returnCode) << mode;
        EXPECT_NE(noSuchDevice, answerTo(transfer(0x8001, 1, ""), everything).returnCode) << mode;
        EXPECT_EQ(noSuchDevice, answerTo(transfer(0x8001, 1, "sim:other,L,2C0256,A0"), everything).returnCode) << mode;
    }
    settings.registry["tavo/ReadMode"] = "HWareMode";
    EXPECT_NE(noSuchDevice, answerTo(transfer(0x8001, 1, ""), everything).returnCode);
}

TEST_F(KestdDispatch, TransferPastTheEndIsRefused)
{
    const auto isRefused = [this](std::uint16_t type, std::uint32_t offset, std::uint32_t length) {
        return answerTo(transfer(type, length, "sim:nowhere,L,1C0002,A4", offset), everything).returnCode == 0x80001607;
    };
    addDevice("sim:nowhere,L,1C0002,A4", 2);
    for (const std::uint16_t type : std::initializer_list<std::uint16_t>{0x8001, 0x8002}) {
        EXPECT_FALSE(isRefused(type, 0, 256));
        EXPECT_FALSE(isRefused(type, 250, 6));
        EXPECT_TRUE(isRefused(type, 250, 7));
        EXPECT_TRUE(isRefused(type, 250, 16));
        EXPECT_TRUE(isRefused(type, 256, 1));
        // the sum does not fit into 32 bits
        EXPECT_TRUE(isRefused(type, 0xFFFFFFFF, 16));
        EXPECT_TRUE(isRefused(type, 0, 257));
    }
    // all of it
    EXPECT_FALSE(isRefused(0x8001, 0, 0));
    // as many bytes, but not from the beginning
    EXPECT_TRUE(isRefused(0x8001, 16, 0));
    EXPECT_EQ("it passes the end of the device, which has 256 bytes",
              textOf(answerTo(transfer(0x8001, 7, "sim:nowhere,L,1C0002,A4", 250), everything)));
    // a copy has its own length
    settings.registry["tavo/ReadMode"] = "FileMode";
    addDevice("sim:elsewhere,L,2C0256,A0", 0);
    EXPECT_FALSE(isRefused(0x8001, 250, 16));
}

} // namespace
} // namespace kest::service
