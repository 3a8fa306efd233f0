/// The client library with services that are slow, broken or hostile: every malformed reply is an error, and does no
/// other harm.
#include <future>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/tools/kestd_support.h"

namespace kest::test
{
namespace
{

using client::answer;
using client::frame;
using client::outcome;

/// The client's result of the bytes that `reply` makes from its request.
answer answerTo(const std::function<std::vector<std::uint8_t>(frame)>& reply,
                std::chrono::milliseconds timeout = patience)
{
    FakeService fake([&reply](RawClient& service) {
        const auto request = service.receive();
        ASSERT_TRUE(request);
        service.send(reply(*request));
    });
    client::serviceConnection connection(fake.path(), timeout);
    EXPECT_TRUE(connection.connected()) << connection.error();
    const answer got = connection.readSeeprom(someLocation, 0, 4);
    EXPECT_EQ(got.what == outcome::done || got.what == outcome::failed || got.what == outcome::refused,
              connection.connected());
    return got;
}

frame goodReply(const frame& request) { return {request.identifier, request.type, 0x42, 0, 0, {1, 2, 3, 4}}; }

TEST(KestdClient, GoodReply)
{
    const answer got = answerTo([](const frame& request) { return encodeFrame(goodReply(request)); });
    EXPECT_EQ(outcome::done, got.what);
    EXPECT_EQ((std::vector<std::uint8_t>{1, 2, 3, 4}), got.data);
}

TEST(KestdClient, FailureOfTheLibrary)
{
    const answer got = answerTo([](const frame& request) {
        return encodeFrame(frame{request.identifier, request.type, 0, 0x80001306, 0x1234, {}});
    });
    EXPECT_EQ(outcome::failed, got.what);
    EXPECT_EQ(0x80001306u, got.returnCode);
    EXPECT_EQ(0x1234u, got.logId);
    EXPECT_NE(std::string::npos, got.message.find("0x80001306"));
}

TEST(KestdClient, EntryWithoutReturnCodeIsAFailure)
{
    const answer got = answerTo([](const frame& request) {
        return encodeFrame(frame{request.identifier, request.type, 0, 0, 7, {}});
    });
    EXPECT_EQ(outcome::failed, got.what);
}

TEST(KestdClient, RefusalIsShownEscaped)
{
    const answer got = answerTo([](const frame& request) {
        return encodeFrame(frame{request.identifier, request.type, 0x80, 0x80001601, 9, {'n', 'o', '\n', 0x1B, 0xFF}});
    });
    EXPECT_EQ(outcome::refused, got.what);
    EXPECT_EQ("no\\x0a\\x1b\\xff", got.message);
    EXPECT_EQ(9u, got.logId);
}

TEST(KestdClient, RepliesThatAreNone)
{
    const auto changed = [](const std::function<void(frame&)>& change) {
        return answerTo([&change](const frame& request) {
                   frame reply = goodReply(request);
                   change(reply);
                   return encodeFrame(reply);
               })
            .what;
    };
    EXPECT_EQ(outcome::malformed, changed([](frame& reply) { ++reply.identifier; }));
    EXPECT_EQ(outcome::malformed, changed([](frame& reply) { ++reply.type; }));
    EXPECT_EQ(outcome::malformed, changed([](frame& reply) { reply.flags = 0; }));
    EXPECT_EQ(outcome::malformed, changed([](frame& reply) { reply.flags = 0x41; }));
    EXPECT_EQ(outcome::malformed, changed([](frame& reply) { reply.flags = 0x80; }));
    EXPECT_EQ(outcome::malformed, changed([](frame& reply) { reply.payload.resize(70000); }));
}

TEST(KestdClient, EveryByteOfAReplyChanged)
{
    for (std::size_t at = 0; at < 24; ++at) {
        for (const unsigned change : {1u, 0x80u, 0xFFu}) {
            const answer got = answerTo([&](const frame& request) {
                std::vector<std::uint8_t> bytes = encodeFrame(goodReply(request));
                bytes[at] = static_cast<std::uint8_t>(bytes[at] ^ change);
                return bytes;
            });
            if (got.what == outcome::done) {
                // data can hold any byte
                EXPECT_LE(20u, at);
            }
        }
    }
}

TEST(KestdClient, ReplyCutAtEveryByte)
{
    for (std::size_t length = 0; length < 24; ++length) {
        const answer got = answerTo([length](const frame& request) {
            std::vector<std::uint8_t> bytes = encodeFrame(goodReply(request));
            bytes.resize(length);
            return bytes;
        });
        EXPECT_EQ(outcome::closed, got.what) << length;
        EXPECT_NE("", got.message);
    }
}

TEST(KestdClient, MoreThanAReply)
{
    const answer got = answerTo([](const frame& request) {
        std::vector<std::uint8_t> bytes = encodeFrame(goodReply(request));
        bytes.push_back(0);
        return bytes;
    });
    EXPECT_EQ(outcome::malformed, got.what);
}

TEST(KestdClient, SilentService)
{
    FakeService fake([](RawClient& service) {
        EXPECT_TRUE(service.receive());
        EXPECT_FALSE(service.receive());
    });
    client::serviceConnection connection(fake.path(), 50ms);
    EXPECT_EQ(outcome::timedOut, connection.readSeeprom(someLocation, 0, 4).what);
    EXPECT_FALSE(connection.connected());
    EXPECT_EQ(outcome::unreachable, connection.readSeeprom(someLocation, 0, 4).what);
}

TEST(KestdClient, ServiceThatDoesNotRead)
{
    TemporaryFolder folder;
    const int listening = boundSocket(folder.path() / "deaf", SOCK_STREAM);
    client::serviceConnection connection(folder.path() / "deaf", 50ms);
    std::vector<std::uint8_t> much(4 << 20);
    EXPECT_EQ(outcome::timedOut, connection.request(0x8001, std::move(much)).what);
    close(listening);
}

TEST(KestdClient, NoService)
{
    TemporaryFolder folder;
    client::serviceConnection none(folder.path() / "none");
    EXPECT_FALSE(none.connected());
    EXPECT_NE(std::string::npos, none.error().find("none: No such file"));
    const answer got = none.location(1, 0);
    EXPECT_EQ(outcome::unreachable, got.what);
    EXPECT_EQ(none.error(), got.message);
    EXPECT_FALSE(client::serviceConnection(folder.path() / std::string(200, 'x')).connected());
    EXPECT_FALSE(client::serviceConnection("").connected());
}

TEST(KestdClient, WithoutADescriptorSaysSo)
{
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none{3, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const client::serviceConnection refused("/somewhere/socket", patience);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_FALSE(refused.connected());
    EXPECT_EQ("/somewhere/socket: Too many open files", refused.error());
}

TEST(KestdClient, WhatCannotBeAsked)
{
    FakeService fake([](RawClient& service) { EXPECT_FALSE(service.receive()); });
    client::serviceConnection connection(fake.path());
    EXPECT_EQ(outcome::wrongUse, connection.readSeeprom(std::string(256, 'a'), 0, 4).what);
    EXPECT_EQ(outcome::wrongUse, connection.readSeeprom(std::string("a\0b", 3), 0, 4).what);
    EXPECT_EQ(outcome::wrongUse, connection.readSeeprom(someLocation, 0, 65537).what);
    EXPECT_EQ(outcome::wrongUse, connection.writeSeeprom(someLocation, 0, std::vector<std::uint8_t>(65537)).what);
    EXPECT_TRUE(connection.connected());
}

TEST(KestdClient, LocationWithoutItsEnd)
{
    for (const std::vector<std::uint8_t>& text : {std::vector<std::uint8_t>{}, {'a'}, {'a', 0, 'b', 0}, {0, 0}}) {
        FakeService fake([&text](RawClient& service) {
            const auto request = service.receive();
            ASSERT_TRUE(request);
            service.send(frame{request->identifier, request->type, 0x42, 0, 0, text});
        });
        client::serviceConnection connection(fake.path());
        EXPECT_EQ(outcome::malformed, connection.location(1, 0).what);
    }
}

/// A descriptor that can be read, as after a signal.
struct Stop {
    Stop() = default;
    Stop(const Stop&) = delete;
    Stop& operator=(const Stop&) = delete;
    ~Stop() { close(event); }
    int event = eventfd(1, EFD_CLOEXEC);
};

TEST(KestdClient, ARequestThatIsStoppedBehindItsLastByteMayBeServed)
{
    FakeService fake([](RawClient& service) {
        EXPECT_TRUE(service.receive());
        EXPECT_FALSE(service.receive());
    });
    const Stop stop;
    client::serviceConnection connection(fake.path());
    connection.stopAt(stop.event);
    EXPECT_EQ(outcome::stopped, connection.writeSeeprom(someLocation, 0, std::vector<std::uint8_t>(4)).what);
    EXPECT_FALSE(connection.connected());
}

TEST(KestdClient, ARequestThatIsStoppedBeforeItsLastByteIsNotServed)
{
    std::promise<void> ended;
    FakeService fake([&ended](RawClient&) { ended.get_future().wait(); });
    const Stop stop;
    client::serviceConnection connection(fake.path());
    connection.stopAt(stop.event);
    // more than a socket holds
    EXPECT_EQ(outcome::notSent, connection.request(client::typeWrite, std::vector<std::uint8_t>(64 << 20)).what);
    EXPECT_FALSE(connection.connected());
    ended.set_value();
}

} // namespace
} // namespace kest::test
