/// The message service: requests, limits, permissions, start, reload and end.
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

#include "tests/places.h"
#include "tests/tools/kestd_support.h"

namespace kest::test
{
namespace
{

using client::answer;
using client::frame;
using client::outcome;

// --- requests ---

TEST_F(KestdTest, ReadsTheCopy)
{
    start();
    client::serviceConnection connection = connect();
    for (const std::size_t length : {1u, 2u, 255u, 256u, 4096u, 65535u, 65536u}) {
        const answer got = connection.readSeeprom(someLocation, 0, static_cast<std::uint32_t>(length));
        ASSERT_EQ(outcome::done, got.what) << got.message;
        EXPECT_EQ(part(0, length), got.data);
        EXPECT_EQ(0x42, got.flags);
        EXPECT_EQ(0u, got.logId);
    }
    EXPECT_EQ(part(1000, 300), connection.readSeeprom(someLocation, 1000, 300).data);
    // to the copy's end
    EXPECT_EQ(part(65530, 6), connection.readSeeprom(someLocation, 65530, 100).data);
    EXPECT_EQ(0, daemon().stop());
}

TEST_F(KestdTest, WritesTheCopy)
{
    start();
    client::serviceConnection connection = connect();
    const answer got = connection.writeSeeprom(someLocation, 7, std::vector<std::uint8_t>{0xAA, 0xBB, 0xCC});
    EXPECT_EQ(outcome::done, got.what) << got.message;
    EXPECT_EQ(0x41, got.flags);
    EXPECT_EQ((std::vector<std::uint8_t>{contents[6], 0xAA, 0xBB, 0xCC, contents[10]}),
              connection.readSeeprom(someLocation, 6, 5).data);
    std::vector<std::uint8_t> all(65536, 0x5A);
    EXPECT_EQ(outcome::done, connection.writeSeeprom(someLocation, 0, all).what);
    EXPECT_EQ(all, connection.readSeeprom(someLocation, 0, 65536).data);
}

TEST_F(KestdTest, FailedWriteHasItsFlagsAndItsEntry)
{
    start();
    client::serviceConnection connection = connect();
    const answer got = connection.writeSeeprom(someLocation, 65530, std::vector<std::uint8_t>(7));
    EXPECT_EQ(outcome::failed, got.what);
    EXPECT_EQ(0x41, got.flags);
    EXPECT_NE(0u, got.logId);
    EXPECT_EQ(part(65530, 6), connection.readSeeprom(someLocation, 65530, 6).data);
    EXPECT_TRUE(connection.connected());
}

TEST_F(KestdTest, LocationOfADeviceNumber)
{
    configure("", "FileMode",
              "[[device]]\nnumber = 17\nposition = 2\nlocation = \"sim:planar,L,2C0256,A0\"\nname = \"vpd\"\n");
    start();
    client::serviceConnection connection = connect();
    const answer got = connection.location(17, 2);
    ASSERT_EQ(outcome::done, got.what) << got.message;
    EXPECT_EQ("sim:planar,L,2C0256,A0", std::string(got.data.begin(), got.data.end()));
    const answer unknown = connection.location(18, 0);
    EXPECT_EQ(outcome::failed, unknown.what);
    EXPECT_EQ(0x80001327u, unknown.returnCode);
    EXPECT_NE(0u, unknown.logId);
}

TEST_F(KestdTest, WhatTheLibraryRefusesIsReturnedWithItsEntry)
{
    start();
    client::serviceConnection connection = connect();
    for (const std::uint16_t type : std::initializer_list<std::uint16_t>{0x0000, 0x7FFF, 0x8000, 0x8005, 0xFFFF}) {
        const answer got = connection.request(type, {});
        EXPECT_EQ(outcome::failed, got.what);
        EXPECT_EQ(0x80001322u, got.returnCode) << type;
        EXPECT_NE(0u, got.logId);
    }
    EXPECT_EQ(0x800013FFu, connection.request(0x8003, {}).returnCode);
    for (const std::size_t size : {0u, 1u, 11u, 12u}) {
        EXPECT_EQ(0x80001324u, connection.request(0x8001, std::vector<std::uint8_t>(size)).returnCode) << size;
    }
    EXPECT_EQ(0x80001324u, connection.request(0x8004, std::vector<std::uint8_t>(7)).returnCode);
    std::vector<std::uint8_t> unended(12 + 4, 'x');
    std::fill_n(unended.begin(), 12, std::uint8_t{0});
    EXPECT_EQ(0x80001325u, connection.request(0x8001, unended).returnCode);
    EXPECT_TRUE(connection.connected());
}

TEST_F(KestdTest, EntriesAreInTheLog)
{
    start();
    const answer got = connect().request(0x8003, {});
    EXPECT_EQ(0, daemon().stop());
    const RunResult shown = run("kestctl", configured({"errors", "list"}));
    std::array<char, 16> hex{};
    std::snprintf(hex.data(), hex.size(), "%08X", got.logId);
    EXPECT_NE(std::string::npos, shown.output.find(hex.data())) << shown.output << shown.errors;
}

// --- devices of the table ---

/// A machine with LEDs, served in hardware mode.
class KestdMachine : public KestdTest
{
protected:
    /// @param service  lines of the section [service]
    void serveMachine(const std::string& service = "", const std::string& mode = "HWareMode")
    {
        const RunResult made = run("kestctl", {"sim", "new", (folder() / "machine").string()});
        ASSERT_EQ(0, made.exit) << made.errors;
        configure(service, mode,
                  "[machine]\nfolder = \"machine\"\n"
                  "[[device]]\nnumber = 1\nname = \"leds\"\nlocation = \"sim:planar,L,9552,C0\"\n"
                  "[[device]]\nnumber = 2\nlocation = \"sim:planar,L,1C0002,A4\"\n");
        start();
    }
    [[nodiscard]] std::string leds() const { return run("kestctl", configured({"port", "read", "leds"})).output; }
};

/// The offset bytes of a read are a write to a device without offsets.
TEST_F(KestdMachine, ReadOfAnLedDriverIsRefusedAndLeavesItsPins)
{
    serveMachine();
    const std::string before = leds();
    EXPECT_NE(std::string::npos, before.find("0xFFFF")) << before;
    // drives pins 0 to 3 low
    const answer got = connect().readSeeprom("sim:planar,L,2C0256,C0", 0x0600, 1);
    EXPECT_EQ(0x80001601u, got.returnCode);
    EXPECT_NE(0u, got.logId);
    EXPECT_EQ(before, leds());
    EXPECT_EQ("sim:planar,L,9552,C0", [&] {
        // the text is returned as the table has it
        const answer text = connect().location(1, 0);
        return std::string(text.data.begin(), text.data.end());
    }());
}

TEST_F(KestdMachine, RawUsersNameAnyDevice)
{
    serveMachine("raw_users = [" + std::to_string(geteuid()) + "]");
    const std::string image = readFile(folder() / "machine/power.bin");
    const answer got = connect().readSeeprom("sim:planar,L,2C0032,A8", 16, 32);
    EXPECT_EQ(image.substr(16, 32), std::string(got.data.begin(), got.data.end())) << got.message;
}

TEST_F(KestdMachine, ReadPastTheEndOfADeviceIsRefused)
{
    serveMachine();
    client::serviceConnection connection = connect();
    const answer got = connection.readSeeprom("sim:planar,L,1C0002,A4", 250, 16);
    EXPECT_EQ(outcome::refused, got.what);
    EXPECT_EQ(0x80001607u, got.returnCode);
    EXPECT_EQ(0x80001607u, connection.readSeeprom("sim:planar,L,1C0002,A4", 16, 0).returnCode);
    const std::string image = readFile(folder() / "machine/panel.bin");
    const answer end = connection.readSeeprom("sim:planar,L,1C0002,A4", 250, 6);
    EXPECT_EQ(image.substr(250), std::string(end.data.begin(), end.data.end())) << end.message;
    EXPECT_EQ(0x80001607u,
              connection.writeSeeprom("sim:planar,L,1C0002,A4", 250, std::vector<std::uint8_t>(16)).returnCode);
    EXPECT_EQ(image, readFile(folder() / "machine/panel.bin"));
}

TEST_F(KestdMachine, PagesOfWritesAreCountedWhereTheHardwareTakesThem)
{
    serveMachine();
    client::serviceConnection connection = connect();
    // pages 0 and 1 of 8 bytes
    EXPECT_EQ(outcome::done, connection.writeSeeprom("sim:planar,L,1C0002,A4", 7, std::vector<std::uint8_t>(2)).what);
    EXPECT_EQ(0x80001607u,
              connection.writeSeeprom("sim:planar,L,1C0002,A4", 250, std::vector<std::uint8_t>(16)).returnCode);
    const std::string table = run("kestctl", configured({"devices"})).output;
    EXPECT_NE(std::string::npos, table.find(" sim:planar,L,1C0002,A4  2 page writes\n")) << table;
}

TEST_F(KestdMachine, AWriteThatACopyTakesWearsNothing)
{
    serveMachine("", "MixedMode");
    EXPECT_EQ(outcome::done, connect().writeSeeprom("sim:planar,L,1C0002,A4", 7, std::vector<std::uint8_t>(2)).what);
    EXPECT_EQ(std::string(2, '\0'), readFile(copyFile()).substr(7, 2));
    const std::string table = run("kestctl", configured({"devices"})).output;
    EXPECT_EQ(std::string::npos, table.find("page write")) << table;
}

/// Without a copy the library reads as many bytes as the device holds, from the offset on, and wraps round at its end.
TEST_F(KestdMachine, MixedModeWithoutACopyReturnsNoMoreThanWasAskedFor)
{
    std::filesystem::remove(copyFile());
    serveMachine("", "MixedMode");
    const std::string image = readFile(folder() / "machine/panel.bin");
    const answer got = connect().readSeeprom("sim:planar,L,1C0002,A4", 250, 6);
    EXPECT_EQ(image.substr(250), std::string(got.data.begin(), got.data.end())) << got.message;
}

/// The library's own details name the bus at most.
TEST_F(KestdMachine, EntriesNameTheDeviceThatWasAskedFor)
{
    serveMachine();
    EXPECT_EQ(0, run("kestctl", configured({"sim", "fault", "add", "nack", "--address", "0xA4"})).exit);
    const answer got = connect().readSeeprom("sim:planar,L,1C0002,A4", 0, 4);
    EXPECT_EQ(outcome::failed, got.what);
    const RunResult shown = run("kestctl", configured({"--json", "errors", "show", std::to_string(got.logId)}));
    EXPECT_NE(std::string::npos, shown.output.find("\"device\": \"sim:planar,L,1C0002,A4\"")) << shown.output;
}

// --- frames ---

TEST_F(KestdTest, RequestsSentAheadAreAnsweredInOrderWhereverTheBytesAreCut)
{
    start();
    std::vector<std::uint8_t> stream;
    for (std::uint16_t number = 0; number < 10; ++number) {
        const auto bytes = client::encodeFrame(seepromRequest(0x8001, number * 100u, 8, number));
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    }
    // every offset within a frame is a cut once
    const std::size_t step = 7;
    for (std::size_t first = 1; first < 60; ++first) {
        RawClient client(socketPath());
        ASSERT_TRUE(client.connected());
        std::size_t at = 0;
        for (std::size_t size = first; at < stream.size(); at += size, size = step) {
            ASSERT_TRUE(client.send(std::vector<std::uint8_t>(
                stream.begin() + static_cast<std::ptrdiff_t>(at),
                stream.begin() + static_cast<std::ptrdiff_t>(std::min(at + size, stream.size())))));
        }
        for (std::uint16_t number = 0; number < 10; ++number) {
            const auto reply = client.receive();
            ASSERT_TRUE(reply);
            EXPECT_EQ(number, reply->identifier);
            EXPECT_EQ(part(number * 100u, 8), reply->payload);
        }
    }
}

TEST_F(KestdTest, ForeignProtocolIsRefused)
{
    start();
    RawClient client(socketPath());
    EXPECT_TRUE(client.send(std::vector<std::uint8_t>(100, 'x')));
    const auto reply = client.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(0x80001604u, reply->returnCode);
    EXPECT_EQ(0x80, reply->flags);
    EXPECT_TRUE(client.isHungUp());
}

TEST_F(KestdTest, PayloadOverTheLimitIsRefused)
{
    configure("max_payload = 1000");
    start();
    RawClient client(socketPath());
    frame request = seepromRequest(0x8001, 0, 4, 1);
    request.payload.resize(1000);
    EXPECT_TRUE(client.send(request));
    EXPECT_EQ(part(0, 4), client.receive()->payload);
    request.identifier = 2;
    request.payload.resize(1001);
    EXPECT_TRUE(client.send(request));
    const auto reply = client.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(2, reply->identifier);
    EXPECT_EQ(0x80001603u, reply->returnCode);
    EXPECT_TRUE(client.isHungUp());
    // the size alone is enough
    RawClient huge(socketPath());
    EXPECT_TRUE(huge.send({0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 0x80, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(0x80001603u, huge.receive()->returnCode);
}

TEST_F(KestdTest, MoreThan65536BytesAreRefusedBeforeTheLibrarySeesThem)
{
    start();
    RawClient client(socketPath());
    for (const std::uint16_t type : std::initializer_list<std::uint16_t>{0x8001, 0x8002}) {
        for (const std::uint32_t length : {65537u, 0x80000000u, 0xFFFFFFFFu}) {
            EXPECT_TRUE(client.send(seepromRequest(type, 0, length, 5)));
            const auto reply = client.receive();
            ASSERT_TRUE(reply);
            EXPECT_EQ(0x80001602u, reply->returnCode);
            EXPECT_EQ(0x80, reply->flags);
            EXPECT_NE(0u, reply->logId);
        }
    }
    EXPECT_TRUE(client.send(seepromRequest(0x8001, 0, 65536)));
    EXPECT_EQ(contents, client.receive()->payload);
}

TEST_F(KestdTest, ReplyOfMoreThan65536BytesIsReplaced)
{
    writeFile(copyFile(), std::string(70000, 'k'));
    start();
    // all there is
    const answer got = connect().readSeeprom(someLocation, 0, 0);
    EXPECT_EQ(outcome::refused, got.what);
    EXPECT_EQ(0x80001606u, got.returnCode);
}

/// A read of length 0 reads everything, also a copy that fills a reply to the last byte.
TEST_F(KestdTest, LengthZeroReadsTheRestOfTheCopy)
{
    start();
    client::serviceConnection connection = connect();
    EXPECT_EQ(contents, connection.readSeeprom(someLocation, 0, 0).data);
    EXPECT_EQ(part(65530, 6), connection.readSeeprom(someLocation, 65530, 0).data);
    EXPECT_EQ(0x80001305u, connection.readSeeprom(someLocation, 65536, 0).returnCode);
    writeFile(copyFile(), std::string(65537, 'k'));
    EXPECT_EQ(0x80001606u, connection.readSeeprom(someLocation, 0, 0).returnCode);
    EXPECT_EQ(std::vector<std::uint8_t>(65536, 'k'), connection.readSeeprom(someLocation, 1, 0).data);
    std::filesystem::remove(copyFile());
    EXPECT_EQ(0x40001306u, connection.readSeeprom(someLocation, 0, 0).returnCode);
}

TEST_F(KestdTest, LengthZeroReadsTheWholeDeviceWhereThereIsNoCopy)
{
    const RunResult made = run("kestctl", {"sim", "new", (folder() / "machine").string()});
    ASSERT_EQ(0, made.exit) << made.errors;
    std::filesystem::remove(copyFile());
    const std::string image = readFile(folder() / "machine/system.bin");
    for (const char* mode : {"MixedMode", "HWareMode"}) {
        configure("", mode, "[machine]\nfolder = \"machine\"\n");
        start();
        const answer got = connect().readSeeprom("sim:planar,L,2C0256,A0", 0, 0);
        EXPECT_EQ(image, std::string(got.data.begin(), got.data.end())) << mode << got.message;
        EXPECT_EQ(0, daemon().stop());
    }
}

/// Many clients ask for the whole of the largest possible copy at once: no more of it is loaded than a reply can hold.
TEST_F(KestdTest, LengthZeroOfAHugeCopyCostsLittleMemory)
{
    writeFile(copyFile(), std::string(16 << 20, 'k'));
    start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int number = 0; number < 16; ++number) {
        clients.push_back(std::make_unique<RawClient>(socketPath()));
        for (std::uint16_t request = 0; request < 4; ++request) {
            ASSERT_TRUE(clients.back()->send(seepromRequest(0x8001, 0, 0, request)));
        }
    }
    for (const auto& client : clients) {
        for (std::uint16_t request = 0; request < 4; ++request) {
            const auto reply = client->receive();
            ASSERT_TRUE(reply);
            EXPECT_EQ(0x80001606u, reply->returnCode);
        }
    }
    // sanitizer or emulator need many times as much memory
    if (!underSanitizer && !isEmulated()) {
        // 10 MiB when idle, and three buffers of 64 KiB for each client, 3 MiB in all. A single copy loaded whole would
        // exceed this
        EXPECT_GT((10 + 3 + 2) * 1024, daemon().statusKib("VmHWM"));
    }
}

// --- permissions ---

/// Starts `body` in a child as the user nobody, with nobody's group and `groups`.
pid_t startAsNobody(const std::function<int()>& body, const std::vector<gid_t>& groups = {})
{
    const pid_t child = fork();
    if (child == 0) {
        const passwd* nobody = getpwnam("nobody");
        if (nobody == nullptr || setgroups(groups.size(), groups.data()) != 0 || setgid(nobody->pw_gid) != 0 ||
            setuid(nobody->pw_uid) != 0) {
            _exit(100);
        }
        _exit(body());
    }
    return child;
}

/// Waits for the end of a child. @return its exit code, -1 when it had none
int exitOf(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Runs `body` in a child as the user nobody, with nobody's group and `groups`. @return its exit code
int asNobody(const std::function<int()>& body, const std::vector<gid_t>& groups = {})
{
    return exitOf(startAsNobody(body, groups));
}

using PauseFunction = std::function<bool()>; ///< waits for the other process; returns whether it has done its part

/// Runs `body` as the user nobody. When `body` calls the pause that it receives, it waits until `meanwhile` has run in
/// this process. There is no second thread: the child could wait for ever for an allocator's lock that the thread held.
/// @return its exit code
int asNobody(const std::function<int(const PauseFunction&)>& body, const std::function<void()>& meanwhile)
{
    int toChild[2];
    int toParent[2];
    EXPECT_EQ(0, pipe(toChild));
    EXPECT_EQ(0, pipe(toParent));
    const pid_t child = startAsNobody([&] {
        close(toChild[1]);
        close(toParent[0]);
        return body([&] {
            char byte = 0;
            return write(toParent[1], "x", 1) == 1 && read(toChild[0], &byte, 1) == 1;
        });
    });
    close(toChild[0]);
    close(toParent[1]);
    char byte = 0;
    EXPECT_EQ(1, read(toParent[0], &byte, 1)) << "it ended before its pause";
    meanwhile();
    EXPECT_EQ(1, write(toChild[1], "x", 1));
    const int exit = exitOf(child);
    close(toChild[1]);
    close(toParent[0]);
    return exit;
}

class KestdPermissions : public KestdTest
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can become another user";
        }
    }

    /// Results of a read and a write by the user nobody: bit 0, the read was done; bit 1, the write was done; 8 or
    /// more, neither done nor refused
    [[nodiscard]] int rightsOfNobody() const
    {
        return asNobody([this] {
            client::serviceConnection connection = connect();
            const answer read = connection.readSeeprom(someLocation, 0, 4);
            const answer write = connection.writeSeeprom(someLocation, 0, std::vector<std::uint8_t>{1});
            const auto verdict = [](const answer& got) {
                return got.what == outcome::done ? 1 : got.returnCode == 0x80001601 ? 0 : 8;
            };
            return verdict(read) + 2 * verdict(write);
        });
    }
};

TEST_F(KestdPermissions, OnlyOwnerAndRootByDefault)
{
    start();
    EXPECT_EQ(0, rightsOfNobody());
    EXPECT_EQ(contents[0], connect().readSeeprom(someLocation, 0, 1).data.at(0));
}

TEST_F(KestdPermissions, RefusalIsClearAndHasAnEntry)
{
    start();
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    EXPECT_EQ(0, asNobody([&] {
                  const answer got = connect().writeSeeprom(someLocation, 0, std::vector<std::uint8_t>{1});
                  EXPECT_EQ(outcome::refused, got.what);
                  EXPECT_EQ(0x80001601u, got.returnCode);
                  EXPECT_EQ("user 65534 is not permitted to write", got.message);
                  EXPECT_NE(0u, got.logId);
                  return write(ends[1], &got.logId, sizeof got.logId) == sizeof got.logId &&
                                 !testing::Test::HasFailure()
                             ? 0
                             : 1;
              }));
    std::uint32_t logId = 0;
    EXPECT_EQ(static_cast<ssize_t>(sizeof logId), read(ends[0], &logId, sizeof logId));
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(0, daemon().stop());
    std::array<char, 16> hex{};
    std::snprintf(hex.data(), hex.size(), "0x%08X", logId);
    const RunResult shown = run("kestctl", configured({"errors", "show", hex.data()}));
    EXPECT_NE(std::string::npos, shown.output.find("80001601")) << shown.output << shown.errors;
    EXPECT_NE(std::string::npos, shown.output.find("user 65534 is not permitted to write"))
        << shown.output << shown.errors;
}

TEST_F(KestdPermissions, ByUserAndByGroup)
{
    const gid_t group = getpwnam("nobody")->pw_gid;
    const std::string byNumber = std::to_string(getpwnam("nobody")->pw_uid);
    const struct {
        std::string service;
        int rights;
    } rows[] = {{"read_users = [\"nobody\"]", 1},
                {"write_users = [\"nobody\"]", 2},
                {"read_users = [\"" + byNumber + "\"]\nwrite_users = [\"" + byNumber + "\"]", 3},
                {"read_groups = [\"" + std::string(getgrgid(group)->gr_name) + "\"]", 1},
                {"write_groups = [\"" + std::to_string(group) + "\"]", 2},
                {"read_users = [\"daemon\"]\nread_groups = [\"daemon\"]", 0},
                {"read_users = [\"no-such-user\"]", 0}};
    for (const auto& row : rows) {
        configure(row.service);
        start();
        EXPECT_EQ(row.rights, rightsOfNobody()) << row.service;
        EXPECT_EQ(0, daemon().stop());
    }
    EXPECT_NE(std::string::npos, daemon().errors().find("user 'no-such-user'"));
}

TEST_F(KestdPermissions, ReloadTakesEffectForThoseWhoAreConnected)
{
    start();
    const auto allow = [&] {
        configure("read_users = [\"nobody\"]");
        EXPECT_TRUE(daemon().reload());
    };
    const auto client = [&](const PauseFunction& pause) {
        client::serviceConnection connection = connect();
        const bool refused = connection.readSeeprom(someLocation, 0, 4).what == outcome::refused;
        return refused && pause() && connection.readSeeprom(someLocation, 0, 4) ? 0 : 1;
    };
    EXPECT_EQ(0, asNobody(client, allow));
}

/// A user without permissions can neither fill the error log nor take the places of others.
TEST_F(KestdPermissions, StrangersHaveASmallShare)
{
    configure("max_clients = 16");
    start();
    EXPECT_EQ(0, asNobody([&] {
                  client::serviceConnection connection = connect();
                  int entries = 0;
                  for (int number = 0; number < 100; ++number) {
                      entries += connection.readSeeprom(someLocation, 0, 4).logId != 0 ? 1 : 0;
                  }
                  return entries == 20 ? 0 : entries + 1;
              }));
    EXPECT_EQ(0, asNobody([&] {
                  // the service may not have noticed the end of the last connection yet
                  bool both = false;
                  bool more = true;
                  for (int attempt = 0; attempt < 1000 && (!both || more); ++attempt) {
                      client::serviceConnection first = connect(), second = connect(), third = connect();
                      both = first.location(1, 0).returnCode == 0x80001601 &&
                             second.location(1, 0).returnCode == 0x80001601;
                      more = third.location(1, 0).returnCode != 0x80001605;
                  }
                  return both && !more ? 0 : 1;
              }));
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
}

/// One user takes all the places that one user may have, and keeps them. Others have places, too.
TEST_F(KestdPermissions, IdleConnectionsOfOneUserLockOutNoOtherUser)
{
    configure("max_clients = 32\nmax_clients_per_user = 16\nread_users = [\"nobody\"]");
    start();
    const auto readAsRoot = [&] {
        for (int number = 0; number < 16; ++number) {
            const answer got = connect().readSeeprom(someLocation, 0, 4);
            EXPECT_EQ(part(0, 4), got.data) << got.message;
        }
    };
    const auto takePlaces = [&](const PauseFunction& pause) {
        std::vector<std::unique_ptr<RawClient>> idle;
        int served = 0;
        for (int number = 0; number < 40; ++number) {
            idle.push_back(std::make_unique<RawClient>(socketPath()));
            idle.back()->send(seepromRequest(0x8001, 0, 4));
            const auto reply = idle.back()->receive();
            served += reply && reply->returnCode == 0 ? 1 : 0;
        }
        return pause() && served == 16 ? 0 : served + 1;
    };
    EXPECT_EQ(0, asNobody(takePlaces, readAsRoot));
}

/// The groups of the process count, not those of its user in the user database: the process may have fewer or more.
TEST_F(KestdPermissions, GroupsAreThoseOfTheConnectingProcess)
{
    // no user database has it
    constexpr gid_t club = 4'000'000'002;
    configure("read_groups = [" + std::to_string(club) + "]");
    start();
    const auto mayRead = [this] { return connect().readSeeprom(someLocation, 0, 4) ? 1 : 0; };
    EXPECT_EQ(0, asNobody(mayRead));
    EXPECT_EQ(1, asNobody(mayRead, {5, club}));
    // more than a first buffer has room for
    std::vector<gid_t> many;
    for (gid_t group = 1; group <= 300; ++group) {
        many.push_back(100'000 + group);
    }
    many.push_back(club);
    EXPECT_EQ(1, asNobody(mayRead, many));
}

/// A client that waits for admission holds no descriptor of the service.
TEST_F(KestdPermissions, StrangersHoldNoMoreDescriptorsThanPlaces)
{
    configure("max_clients = 16");
    start();
    const std::size_t before = daemon().descriptors();
    const auto count = [&] {
        // two places, and what the service opens at its first client
        EXPECT_GT(before + 20, daemon().descriptors());
    };
    const auto crowd = [&](const PauseFunction& pause) {
        std::vector<std::unique_ptr<RawClient>> clients;
        for (int number = 0; number < 500; ++number) {
            clients.push_back(std::make_unique<RawClient>(socketPath()));
        }
        // the last one has its reply, so all before it are admitted or refused
        const auto reply = clients.back()->receive();
        return pause() && reply && reply->returnCode == 0x80001605 ? 0 : 1;
    };
    EXPECT_EQ(0, asNobody(crowd, count));
}

// --- limits ---

TEST_F(KestdTest, TooManyClients)
{
    configure("max_clients = 3");
    start();
    RawClient first(socketPath());
    {
        RawClient second(socketPath()), third(socketPath());
        for (RawClient* client : {&first, &second, &third}) {
            EXPECT_TRUE(client->send(seepromRequest(0x8001, 0, 4)));
            EXPECT_EQ(part(0, 4), client->receive()->payload);
        }
        RawClient fourth(socketPath());
        const auto reply = fourth.receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(0x80001605u, reply->returnCode);
        EXPECT_TRUE(fourth.isHungUp());
        EXPECT_EQ(0x80001605u, connect().readSeeprom(someLocation, 0, 4).returnCode);
    }
    // places become free once the service notices
    std::optional<answer> got;
    const auto until = std::chrono::steady_clock::now() + patience;
    while ((!got || !*got) && std::chrono::steady_clock::now() < until) {
        got = connect().readSeeprom(someLocation, 0, 4);
    }
    EXPECT_EQ(outcome::done, got->what);
    EXPECT_TRUE(first.send(seepromRequest(0x8001, 0, 4)));
    EXPECT_EQ(part(0, 4), first.receive()->payload);
}

TEST_F(KestdTest, SilentClientsAreDropped)
{
    configure("idle_seconds = 1");
    start();
    RawClient silent(socketPath()), halfway(socketPath());
    EXPECT_TRUE(halfway.send({0, 0, 0, 9, 0, 1}));
    EXPECT_TRUE(silent.isHungUp());
    EXPECT_TRUE(halfway.isHungUp());
    // sends requests and never reads
    RawClient deaf(socketPath());
    bool taken = true;
    for (int number = 0; number < 1000 && taken; ++number) {
        taken = deaf.send(client::encodeFrame(seepromRequest(0x8001, 0, 65536)), MSG_DONTWAIT);
    }
    EXPECT_FALSE(taken) << "the service keeps reading although its replies are not read";
    const auto until = std::chrono::steady_clock::now() + patience;
    // at last EPIPE
    while (deaf.send(std::vector<std::uint8_t>{0}, MSG_DONTWAIT) || errno == EAGAIN) {
        ASSERT_GT(until, std::chrono::steady_clock::now());
        std::this_thread::yield();
    }
    EXPECT_EQ(EPIPE, errno);
}

/// 100 clients that misbehave in several ways do not affect 100 others.
TEST_F(KestdTest, TwoHundredClientsHalfOfThemHostile)
{
    configure("max_clients_per_user = 256");
    start();
    std::vector<std::unique_ptr<RawClient>> hostile;
    const auto whole = client::encodeFrame(seepromRequest(0x8001, 0, 65536));
    for (std::size_t number = 0; number < 100; ++number) {
        hostile.push_back(std::make_unique<RawClient>(socketPath()));
        RawClient& client = *hostile.back();
        ASSERT_TRUE(client.connected()) << number;
        switch (number % 5) {
        case 0:
            client.send(std::vector<std::uint8_t>(whole.begin(),
                                                  whole.begin() + static_cast<std::ptrdiff_t>(number % whole.size())));
            // half sent
            break;
        case 1:
            client.send({0xFF, 0xFF, 0xFF, 0xFF, 0, 1, 0x80, 1, 0, 1, 0, 0});
            // huge length, unfinished
            break;
        // announces 60,000 bytes and sends all but one of them
        case 2: {
            frame request = seepromRequest(0x8002, 0, 59000);
            request.payload.resize(60000);
            auto bytes = client::encodeFrame(request);
            bytes.pop_back();
            client.send(bytes, MSG_DONTWAIT);
            break;
        }
        // never reads
        case 3:
            for (int more = 0; more < 100; ++more) {
                client.send(whole, MSG_DONTWAIT);
            }
            break;
        // closes at any byte
        default:
            client.send(std::vector<std::uint8_t>(whole.begin(),
                                                  whole.begin() + static_cast<std::ptrdiff_t>(number % whole.size())));
            client.hangUp();
            break;
        }
    }
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 100; ++number) {
        threads.emplace_back([this, &good, number] {
            client::serviceConnection connection = connect();
            for (std::uint32_t round = 0; round < 20; ++round) {
                const std::uint32_t offset = static_cast<std::uint32_t>(number) * 17 + round;
                const answer got = connection.readSeeprom(someLocation, offset, 256);
                good += got.what == outcome::done && got.data == part(offset, 256) ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(2000, good);
    if (!underSanitizer && !isEmulated()) {
        // For a hostile client the service can hold one request and one reply: here 20 x 60,000 and 20 x 65,556 bytes
        EXPECT_GT(10240 + 8192, daemon().statusKib("VmRSS"));
    }
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    hostile.clear();
    EXPECT_EQ(0, daemon().stop());
}

/// Requests of a client that has closed its connection are dropped, unless they were begun.
TEST_F(KestdTest, RequestsOfClosedConnectionsAreNotBegun)
{
    start();
    daemon().signal(SIGSTOP);
    {
        RawClient gone(socketPath());
        frame request = seepromRequest(0x8002, 0, 4);
        request.payload.insert(request.payload.end(), 4, 0xEE);
        EXPECT_TRUE(gone.send(request));
    }
    daemon().signal(SIGCONT);
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    // with no request left
    EXPECT_EQ(0, daemon().stop());
    EXPECT_EQ(std::string(contents.begin(), contents.begin() + 4), readFile(copyFile()).substr(0, 4));
}

TEST_F(KestdTest, ClientThatHasFinishedSendingIsAnswered)
{
    start();
    RawClient client(socketPath());
    for (std::uint16_t number = 0; number < 30; ++number) {
        EXPECT_TRUE(client.send(seepromRequest(0x8001, number, 4, number)));
    }
    client.finishSending();
    for (std::uint16_t number = 0; number < 30; ++number) {
        const auto reply = client.receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(number, reply->identifier);
        EXPECT_EQ(part(number, 4), reply->payload);
    }
    EXPECT_TRUE(client.isHungUp());
}

/// A client that connects when no descriptors are left is served when some are free again.
TEST_F(KestdTest, ClientsWaitWhileThereAreNoDescriptors)
{
    start();
    // now everything that the service opens once is open
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    const rlim_t before = daemon().limit(RLIMIT_NOFILE, 3);
    RawClient client(socketPath());
    EXPECT_TRUE(client.send(seepromRequest(0x8001, 0, 4)));
    const auto trace = [this] { return run("kestctl", configured({"trace", "--buffer", "kestd"})).output; };
    const auto until = std::chrono::steady_clock::now() + patience;
    while (trace().find("acceptSome," + std::to_string(EMFILE)) == std::string::npos) {
        ASSERT_GT(until, std::chrono::steady_clock::now()) << trace();
    }
    daemon().limit(RLIMIT_NOFILE, before);
    const auto reply = client.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(part(0, 4), reply->payload);
    EXPECT_EQ(0, daemon().stop());
}

/// A request without memory fails; the service and its other clients continue.
TEST_F(KestdTest, WithoutMemoryARequestFailsAndTheServiceStays)
{
    if (underSanitizer) {
        GTEST_SKIP() << "the sanitizers' allocators end the process";
    }
    configure("max_clients_per_user = 256\nmax_payload = 16777216");
    start();
    RawClient early(socketPath());
    EXPECT_TRUE(early.send(seepromRequest(0x8001, 0, 4)));
    EXPECT_EQ(part(0, 4), early.receive()->payload);
    const rlim_t before = daemon().limit(RLIMIT_DATA, static_cast<rlim_t>(daemon().statusKib("VmData") + 1024) * 1024);
    std::size_t failed = 0;
    for (int number = 0; number < 20; ++number) {
        RawClient greedy(socketPath());
        frame request = seepromRequest(0x8001, 0, 4);
        request.payload.resize(8 << 20);
        // perhaps only a part, when the service hangs up
        const bool sent = greedy.send(request);
        const auto reply = greedy.receive();
        failed += !sent || !reply || reply->returnCode != 0 ? 1 : 0;
    }
    EXPECT_EQ(20U, failed);
    EXPECT_TRUE(early.send(seepromRequest(0x8001, 0, 4)));
    EXPECT_EQ(part(0, 4), early.receive()->payload);
    daemon().limit(RLIMIT_DATA, before);
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    EXPECT_EQ(0, daemon().stop());
}

/// Requests wait for devices while the bus is busy with other clients' writes.
TEST_F(KestdTest, SlowDevicesDoNotHoldUpOtherClients)
{
    const RunResult made = run("kestctl", {"sim", "new", (folder() / "machine").string()});
    ASSERT_EQ(0, made.exit) << made.errors;
    configure("", "HWareMode",
              "[machine]\nfolder = \"machine\"\ntime = \"real\"\n[[device]]\nnumber = 17\nlocation = "
              "\"sim:planar,L,2C0512,A6\"\n");
    start();
    std::atomic<int> writing{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> slow;
    for (int number = 0; number < 12; ++number) {
        slow.emplace_back([&, number] {
            client::serviceConnection connection = connect();
            while (!stop) {
                // it may fail: the chip is busy with the others' write cycles most of the time
                static_cast<void>(connection.writeSeeprom("sim:planar,L,2C0512,A6",
                                                          static_cast<std::uint32_t>(number) * 4096,
                                                          std::vector<std::uint8_t>(2048, 0x11)));
                ++writing;
            }
        });
    }
    while (writing < 3) {
        std::this_thread::yield();
    }
    client::serviceConnection connection = connect();
    const int before = writing;
    for (int number = 0; number < 200; ++number) {
        ASSERT_TRUE(connection.location(17, 0));
    }
    const int during = writing - before;
    stop = true;
    for (std::thread& thread : slow) {
        thread.join();
    }
    EXPECT_GT(200, during) << "requests without a device took as long as writes";
}

// --- start, reload, end ---

TEST_F(KestdTest, RequestsInFlightAtTheEndAreAnswered)
{
    start();
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int number = 0; number < 20; ++number) {
        clients.push_back(std::make_unique<RawClient>(socketPath()));
        for (std::uint16_t request = 0; request < 30; ++request) {
            ASSERT_TRUE(clients.back()->send(seepromRequest(0x8001, request, 64, request)));
        }
    }
    daemon().signal(SIGTERM);
    for (const auto& client : clients) {
        for (std::uint16_t request = 0; request < 30; ++request) {
            const auto reply = client->receive();
            ASSERT_TRUE(reply) << request;
            EXPECT_EQ(request, reply->identifier);
            EXPECT_EQ(part(request, 64), reply->payload);
        }
        EXPECT_TRUE(client->isHungUp());
    }
    EXPECT_EQ(0, daemon().end());
    EXPECT_FALSE(std::filesystem::exists(socketPath()));
}

TEST_F(KestdTest, EndDoesNotWaitForClientsThatDoNotRead)
{
    start();
    RawClient silent(socketPath()), halfway(socketPath()), deaf(socketPath());
    EXPECT_TRUE(halfway.send({0, 0, 0, 9, 0, 1}));
    for (int number = 0; number < 30; ++number) {
        deaf.send(client::encodeFrame(seepromRequest(0x8001, 0, 65536)), MSG_DONTWAIT);
    }
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    daemon().signal(SIGTERM);
    EXPECT_TRUE(silent.isHungUp());
    EXPECT_TRUE(halfway.isHungUp());
    // the deaf client has a few seconds
    EXPECT_EQ(0, daemon().end());
}

/// A service that ends releases socket and lock before its last clients are done.
TEST_F(KestdTest, SuccessorStartsWhileTheLastRepliesAreBeingTaken)
{
    start();
    RawClient deaf(socketPath());
    for (int number = 0; number < 30; ++number) {
        deaf.send(client::encodeFrame(seepromRequest(0x8001, 0, 65536)), MSG_DONTWAIT);
    }
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    daemon().signal(SIGTERM);
    const auto until = std::chrono::steady_clock::now() + patience;
    while (std::filesystem::exists(socketPath())) {
        ASSERT_GT(until, std::chrono::steady_clock::now());
    }
    Daemon successor(folder(), configured());
    EXPECT_TRUE(successor.isReady()) << successor.errors();
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    EXPECT_EQ(0, daemon().end());
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    EXPECT_EQ(0, successor.stop());
}

TEST_F(KestdTest, SocketLeftBehindIsReplacedAndALivingOneIsNot)
{
    start();
    daemon().signal(SIGKILL);
    EXPECT_EQ(256 + SIGKILL, daemon().end());
    EXPECT_TRUE(std::filesystem::exists(socketPath()));
    start();
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    const RunResult second = run("kestd", configured());
    EXPECT_EQ(1, second.exit);
    EXPECT_NE(std::string::npos, second.errors.find("another service listens there")) << second.errors;
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
}

/// From now on the kernel refuses locks of open files to this process and its children. @return whether this could be
/// arranged
bool exhaustLocks()
{
#ifdef SYS_fcntl64
    constexpr std::uint32_t call = SYS_fcntl64;
#else
    constexpr std::uint32_t call = SYS_fcntl;
#endif
    // The command is the lower half of the second argument
    constexpr std::uint32_t lowHalf = std::endian::native == std::endian::little ? 0 : 4;
    constexpr std::uint32_t command = offsetof(seccomp_data, args) + 8 + lowHalf;
    std::array<sock_filter, 6> filter{
        {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 3), BPF_STMT(BPF_LD | BPF_W | BPF_ABS, command),
         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, F_OFD_SETLK, 0, 1), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOLCK),
         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)}};
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

TEST_F(KestdTest, AFailedLockIsNotTakenForAnotherService)
{
    if (isEmulated()) {
        GTEST_SKIP() << "the emulator's own calls would be filtered";
    }
    constexpr int notAllowed = 99;
    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        if (!exhaustLocks()) {
            _exit(notAllowed);
        }
        const RunResult result = run("kestd", configured({"--socket", socketPath()}));
        writeFile(folder() / "said", result.errors);
        _exit(result.exit);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == notAllowed) {
        GTEST_SKIP() << "no permission to filter system calls";
    }
    EXPECT_EQ(1, WEXITSTATUS(status));
    const std::string said = readFile(folder() / "said");
    EXPECT_NE(std::string::npos, said.find(".lock: No locks available")) << said;
    EXPECT_EQ(std::string::npos, said.find("another service")) << said;
}

TEST_F(KestdTest, SocketGivenAtTheCommandLine)
{
    Daemon daemon(folder(), configured({"--socket", (folder() / "deep/er/other.socket").string()}));
    ASSERT_TRUE(daemon.isReady());
    client::serviceConnection connection(folder() / "deep/er/other.socket");
    EXPECT_TRUE(connection.readSeeprom(someLocation, 0, 4));
    struct stat status {
    };
    EXPECT_EQ(0, stat((folder() / "deep/er/other.socket").c_str(), &status));
    EXPECT_EQ(0666u, status.st_mode & 0777);
    EXPECT_EQ(0, daemon.stop());
}

TEST_F(KestdTest, SocketHandedOver)
{
    const int listening = boundSocket(folder() / "handed.socket", SOCK_STREAM);
    // before the service starts
    RawClient early(folder() / "handed.socket");
    EXPECT_TRUE(early.send(seepromRequest(0x8001, 0, 4)));
    start(listening);
    close(listening);
    EXPECT_EQ(part(0, 4), early.receive()->payload);
    client::serviceConnection connection(folder() / "handed.socket");
    EXPECT_TRUE(connection.readSeeprom(someLocation, 0, 4));
    EXPECT_EQ(0, daemon().stop());
    // it belongs to its maker
    EXPECT_TRUE(std::filesystem::exists(folder() / "handed.socket"));
    EXPECT_FALSE(std::filesystem::exists(socketPath()));
}

TEST_F(KestdTest, WhatIsHandedOverMustBeAListeningSocket)
{
    const int datagrams = boundSocket(folder() / "datagrams.socket", SOCK_DGRAM);
    Daemon daemon(folder(), configured(), datagrams);
    EXPECT_EQ(1, daemon.end());
    EXPECT_NE(std::string::npos, daemon.errors().find("no listening Unix stream socket"));
    close(datagrams);
}

TEST_F(KestdTest, WatchdogIsFed)
{
    start(-1, {{"WATCHDOG_USEC", "100000"}});
    for (int number = 0; number < 3; ++number) {
        EXPECT_TRUE(daemon().says("WATCHDOG=1"));
    }
    daemon().signal(SIGTERM);
    EXPECT_TRUE(daemon().says("STOPPING=1"));
    EXPECT_EQ(0, daemon().end());
}

TEST_F(KestdTest, WrongConfigurationAtStartAndAtReload)
{
    writeFile(folder() / "wrong.toml", "state = 5\n");
    const RunResult refused = run("kestd", {"--config", (folder() / "wrong.toml").string()});
    EXPECT_EQ(2, refused.exit);
    EXPECT_NE(std::string::npos, refused.errors.find("wrong.toml:1:9: key 'state'")) << refused.errors;
    start();
    configure("max_clients = \"many\"");
    EXPECT_TRUE(daemon().reload());
    EXPECT_NE(std::string::npos, daemon().errors().find("service.max_clients")) << daemon().errors();
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
}

TEST_F(KestdTest, ReloadChangesTheLimits)
{
    start();
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    configure("max_payload = 512");
    EXPECT_TRUE(daemon().reload());
    RawClient client(socketPath());
    frame request = seepromRequest(0x8001, 0, 4);
    request.payload.resize(513);
    EXPECT_TRUE(client.send(request));
    EXPECT_EQ(0x80001603u, client.receive()->returnCode);
}

TEST_F(KestdTest, ReloadChangesTheReadMode)
{
    start();
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
    configure("", "HWareMode");
    EXPECT_TRUE(daemon().reload());
    // there is no such device
    EXPECT_EQ(outcome::failed, connect().readSeeprom(someLocation, 0, 4).what);
    configure("");
    EXPECT_TRUE(daemon().reload());
    EXPECT_TRUE(connect().readSeeprom(someLocation, 0, 4));
}

TEST(KestdOptions, HelpVersionAndWrongUse)
{
    const RunResult help = run("kestd", {"--help"});
    EXPECT_EQ(0, help.exit);
    for (const char* text : {"--config", "--socket", "--version", "SIGTERM", "SIGHUP"}) {
        EXPECT_NE(std::string::npos, help.output.find(text)) << text;
    }
    EXPECT_EQ(0, run("kestd", {"--version"}).exit);
    EXPECT_TRUE(run("kestd", {"--version"}).output.starts_with("kestd "));
    EXPECT_EQ(2, run("kestd", {"--nonsense"}).exit);
    EXPECT_EQ(2, run("kestd", {"surplus"}).exit);
    EXPECT_EQ(2, run("kestd", {"--config", "/no/such/file"}).exit);
}

TEST(KestdOptions, ImpossibleSocketsAreRefused)
{
    TemporaryFolder folder;
    writeFile(folder.path() / "kest.toml", "state = \"state\"\n");
    const RunResult tooLong =
        run("kestd", {"--config", (folder.path() / "kest.toml").string(), "--socket", std::string(200, 'x')});
    EXPECT_EQ(1, tooLong.exit);
    EXPECT_NE(std::string::npos, tooLong.errors.find("107 bytes"));
    const RunResult nowhere =
        run("kestd", {"--config", (folder.path() / "kest.toml").string(), "--socket", "/proc/none/kestd.socket"});
    EXPECT_EQ(1, nowhere.exit);
    EXPECT_NE(std::string::npos, nowhere.errors.find("/proc/none/kestd.socket"));
}

} // namespace
} // namespace kest::test
