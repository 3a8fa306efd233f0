/// The service beside other programs on a device, and its clients beside each other.
#include <gmock/gmock.h>

#include "tests/host/usedconfiguration.h"
#include "tests/tools/heldpages.h"
#include "tests/tools/kestd_support.h"
#include "tools/common/devicetext.h"
#include "tools/common/operation.h"

namespace kest::test
{
namespace
{

using client::answer;
using client::frame;
using client::outcome;
using testing::HasSubstr;
using testing::MatchesRegex;
using tools::operationLock;
using tools::operationUse;

constexpr const char* otherLocation = "sim:planar,L,1C0002,A4";

/// A service of a simulated machine, which the test uses, too.
class KestdTurns : public KestdTest
{
protected:
    void startWith(const std::string& service)
    {
        EXPECT_EQ(0, run("kestctl", {"sim", "new", (folder() / "machine").string()}).exit);
        configure(service, "HWareMode",
                  "[[device]]\nnumber = 1\nlocation = \"" + std::string(otherLocation) +
                      "\"\n[machine]\nfolder = \"machine\"\n");
        m_used.emplace(folder() / "kest.toml");
        start();
    }
    static std::unique_ptr<operationLock> held(operationUse use)
    {
        auto lock = tools::operationLockOf(tools::parseDeviceText(someLocation), use);
        EXPECT_EQ(0, lock->attempt({.process = 4711,
                                    .user = 4294967294U,
                                    .sinceMs = 1714564800250,
                                    .program = "kestctl",
                                    .doing = "seeprom write",
                                    .device = "planar-vpd"}));
        return lock;
    }

private:
    std::optional<UsedConfiguration> m_used;
};

TEST_F(KestdTurns, ABusyDeviceHasACodeOfItsOwn)
{
    startWith("busy_seconds = 0");
    const auto writer = held(operationUse::write);
    const answer got = connect().readSeeprom(someLocation, 0, 4);
    EXPECT_EQ(outcome::refused, got.what);
    EXPECT_EQ(0x80001609U, got.returnCode);
    EXPECT_EQ(0x80, got.flags);
    EXPECT_EQ(0U, got.logId);
    EXPECT_THAT(got.message, HasSubstr("another program is at work on the device: kestctl seeprom write on planar-vpd "
                                       "(process 4711 of user 4294967294) since 2024-05-01T12:00:00.250Z"));
    EXPECT_EQ(outcome::done, connect().readSeeprom(otherLocation, 0, 4).what);
}

TEST_F(KestdTurns, KestctlEndsBusyWhenTheServiceIs)
{
    startWith("busy_seconds = 0");
    const auto writer = held(operationUse::write);
    const RunResult busy = run("kestctl", configured({"message", "read", someLocation, "--length", "4"}));
    EXPECT_EQ(6, busy.exit);
    EXPECT_THAT(busy.errors, HasSubstr("another program is at work on the device: kestctl seeprom write"));
}

TEST_F(KestdTurns, ReadsShareADeviceAndWritesDoNot)
{
    startWith("busy_seconds = 0");
    const auto reader = held(operationUse::read);
    EXPECT_EQ(outcome::done, connect().readSeeprom(someLocation, 0, 4).what);
    EXPECT_EQ(0x80001609U, connect().writeSeeprom(someLocation, 0, std::vector<std::uint8_t>{1}).returnCode);
    reader->release();
    EXPECT_EQ(outcome::done, connect().writeSeeprom(someLocation, 0, std::vector<std::uint8_t>{1}).what);
}

/// One request at a time is in work, and the one that waits is not.
TEST_F(KestdTurns, ARequestThatWaitsHoldsUpNobodyElse)
{
    startWith("max_working = 1\nmax_working_per_user = 1\nbusy_seconds = 3600");
    const auto writer = held(operationUse::write);
    std::vector<std::unique_ptr<RawClient>> waiting;
    for (int count = 0; count < 5; ++count) {
        waiting.push_back(std::make_unique<RawClient>(socketPath()));
        ASSERT_TRUE(waiting.back()->send(seepromRequest(client::typeRead, 0, 4)));
    }
    for (int count = 0; count < 20; ++count) {
        EXPECT_EQ(outcome::done, connect().readSeeprom(otherLocation, 0, 4).what);
    }
    writer->release();
    for (const auto& client : waiting) {
        const std::optional<frame> reply = client->receive();
        ASSERT_TRUE(reply.has_value());
        EXPECT_EQ(0U, reply->returnCode);
        EXPECT_EQ(4U, reply->payload.size());
    }
}

TEST_F(KestdTurns, RequestsOfOneClientStayInOrderBehindOneThatWaits)
{
    startWith("busy_seconds = 3600");
    const auto writer = held(operationUse::write);
    RawClient client(socketPath());
    ASSERT_TRUE(client.send(seepromRequest(client::typeRead, 0, 4, 1)));
    ASSERT_TRUE(client.send(seepromRequest(client::typeRead, 0, 4, 2, otherLocation)));
    writer->release();
    EXPECT_EQ(1, client.receive().value().identifier);
    EXPECT_EQ(2, client.receive().value().identifier);
}

TEST_F(KestdTurns, TheServiceEndsAtOnceThoughARequestWaits)
{
    startWith("busy_seconds = 3600");
    const auto writer = held(operationUse::write);
    RawClient client(socketPath());
    ASSERT_TRUE(client.send(seepromRequest(client::typeRead, 0, 4)));
    // served behind it, so the first one has begun
    EXPECT_EQ(outcome::done, connect().readSeeprom(otherLocation, 0, 4).what);
    EXPECT_EQ(0, daemon().stop());
    const std::optional<frame> reply = client.receive();
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(0x80001609U, reply->returnCode);
}

TEST_F(KestdTurns, AClientThatHangsUpWaitsNoLonger)
{
    startWith("max_clients = 2\nmax_clients_per_user = 1\nbusy_seconds = 3600");
    const auto writer = held(operationUse::write);
    {
        RawClient client(socketPath());
        ASSERT_TRUE(client.send(seepromRequest(client::typeRead, 0, 4)));
    }
    // its place is free once it is gone
    answer got;
    do {
        got = connect().readSeeprom(otherLocation, 0, 4);
    } while (got.returnCode == 0x80001605U);
    EXPECT_EQ(outcome::done, got.what);
}

TEST_F(KestdTurns, OthersAreToldForWhomTheServiceWorks)
{
    startWith("busy_seconds = 0");
    HeldPages pages("sim:planar", 0xA0);
    RawClient client(socketPath());
    frame request = seepromRequest(client::typeWrite, 0, 2);
    request.payload.insert(request.payload.end(), {1, 2});
    ASSERT_TRUE(client.send(request));
    ASSERT_TRUE(pages.awaitWriter());
    const RunResult busy = run("kestctl", configured({"seeprom", "read", someLocation, "--wait", "0"}));
    EXPECT_EQ(6, busy.exit);
    EXPECT_THAT(busy.errors,
                MatchesRegex("kestctl: .*: lock: another program is at work on it: kestd message write "
                             "for process " +
                             std::to_string(getpid()) + " of user " + std::to_string(geteuid()) +
                             " on sim:planar,L,2C0256,A0 \\(process " + std::to_string(daemon().pid()) + " of .*\n"));
    pages.letGo();
    EXPECT_EQ(0U, client.receive().value().returnCode);
}

TEST_F(KestdTurns, ADeviceThatCannotBeLockedIsRefused)
{
    startWith("busy_seconds = 0");
    std::filesystem::create_directory(folder() / "machine/iic.planar.operations");
    const answer got = connect().readSeeprom(someLocation, 0, 4);
    EXPECT_EQ(outcome::refused, got.what);
    EXPECT_EQ(0x8000160AU, got.returnCode);
    EXPECT_THAT(got.message, HasSubstr("the service can't lock the device in '"));
    EXPECT_EQ(3, run("kestctl", configured({"message", "read", someLocation, "--length", "4"})).exit);
}

} // namespace
} // namespace kest::test
