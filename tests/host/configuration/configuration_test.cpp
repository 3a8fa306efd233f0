#include "platform/host/configuration/configuration.h"
#include "platform/host/configuration/configurationfile.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

#include "tests/host/host_support.h"
#include "tests/places.h"

namespace kest::test
{

namespace
{

using host::configuration;
using host::configurationResult;
using host::readConfiguration;

/// Read while the program's static objects are made: the library's trace buffer needs the configuration that early.
const std::size_t stateFolderAtLoad = host::currentConfiguration().stateFolder.string().size();

class Configuration : public testing::Test
{
protected:
    /// The message about a file with this text, without the file's name.
    std::string errorOf(const std::string& text)
    {
        const std::filesystem::path file = folder.write("wrong.toml", text);
        const configurationResult result = readConfiguration(file);
        EXPECT_TRUE(result.error.empty() || result.value.file.empty()) << "a file with an error gives the defaults";
        const std::string name = file.string() + ":";
        return result.error.starts_with(name) ? result.error.substr(name.size()) : result.error;
    }
    configuration valueOf(const std::string& text)
    {
        const configurationResult result = readConfiguration(folder.write("right.toml", text));
        EXPECT_EQ("", result.error);
        return result.value;
    }
    struct WrongFile {
        const char* text;
        const char* message;
    };
    void expectMessages(const std::vector<WrongFile>& files)
    {
        for (const WrongFile& file : files) {
            EXPECT_EQ(file.message, errorOf(file.text)) << file.text;
        }
    }
    HostFolder folder;
};

TEST_F(Configuration, WorksDuringStaticInitialisation) { EXPECT_LT(0U, stateFolderAtLoad); }

TEST_F(Configuration, EmptyFileGivesTheDefaults)
{
    const configuration value = valueOf("");
    EXPECT_EQ("/run/lock/kest", value.lockFolder);
    EXPECT_EQ("", value.machineFolder);
    EXPECT_FALSE(value.machineRealTime);
    EXPECT_FALSE(value.setAdapterTimeout);
    EXPECT_EQ(10000U, value.errorLogMaxEntries);
    EXPECT_EQ(0U, value.wearLimit);
    EXPECT_EQ(67108864U, value.errorLogMaxBytes);
    EXPECT_EQ("/var/tmp/kest-" + std::to_string(geteuid()), value.errorLogSpoolFolder);
    EXPECT_EQ((std::map<std::string, std::string>{{"tavo/ReadMode", "HWareMode"}}), value.registry);
    EXPECT_TRUE(value.devices.empty());
    for (const auto& node : value.nodes) {
        EXPECT_FALSE(node.mapped());
    }
    EXPECT_EQ(256U, value.service.maxClients);
    EXPECT_EQ(66048U, value.service.maxPayloadBytes);
    EXPECT_EQ(300U, value.service.idleSeconds);
    EXPECT_EQ(30U, value.service.busySeconds);
    EXPECT_EQ(50U, value.undoKeep);
    EXPECT_EQ(90U, value.undoDays);
    EXPECT_TRUE(value.service.readUsers.empty() && value.service.readGroups.empty());
    EXPECT_TRUE(value.service.writeUsers.empty() && value.service.writeGroups.empty());
}

TEST_F(Configuration, EveryKeyIsRead)
{
    const configuration value = valueOf(R"(
        state = "/srv/kest"
        [trace]
        folder = "/srv/trace"
        [errorlog]
        max_entries = 5
        max_size = 1_048_576
        spool = "/srv/spool"
        [wear]
        limit = 100_000
        [undo]
        keep = 7
        days = 0
        [registry]
        "tavo/ReadMode" = "FileMode"
        "other/key" = "text"
        [nodes]
        0 = "sim:riser"
        7 = "/mnt/node7"
        [machine]
        folder = "/srv/machine"
        time = "real"
        [linux]
        set_timeout = true
        lock_folder = "/srv/locks"
        [service]
        socket = "/srv/socket"
        max_clients = 3
        max_payload = 512
        idle_seconds = 0
        busy_seconds = 5
        read_users = ["alice", 1000]
        read_groups = ["vpd"]
        write_users = [0]
        write_groups = []
        max_clients_per_user = 2
        max_working = 9
        max_working_per_user = 4
        raw_users = ["bob"]
        raw_groups = [5]
        [[device]]
        number = 0xFFFFFFFF
        position = 2
        location = "sim:planar,local,1.2"
        name = "planar-vpd"
        [[device]]
        number = 0
        location = "x"
    )");
    EXPECT_EQ("/srv/kest", value.stateFolder);
    EXPECT_EQ("/srv/trace", value.traceFolder);
    EXPECT_EQ(5U, value.errorLogMaxEntries);
    EXPECT_EQ(100000U, value.wearLimit);
    EXPECT_EQ(1048576U, value.errorLogMaxBytes);
    EXPECT_EQ("/srv/spool", value.errorLogSpoolFolder);
    EXPECT_EQ(7U, value.undoKeep);
    EXPECT_EQ(0U, value.undoDays);
    EXPECT_EQ((std::map<std::string, std::string>{{"other/key", "text"}, {"tavo/ReadMode", "FileMode"}}),
              value.registry);
    EXPECT_EQ("riser", value.nodes[0].simNode);
    EXPECT_EQ("", value.nodes[0].pathPrefix);
    EXPECT_FALSE(value.nodes[1].mapped());
    EXPECT_EQ("/mnt/node7", value.nodes[7].pathPrefix);
    EXPECT_EQ("/srv/machine", value.machineFolder);
    EXPECT_TRUE(value.machineRealTime);
    EXPECT_TRUE(value.setAdapterTimeout);
    EXPECT_EQ("/srv/locks", value.lockFolder);
    EXPECT_EQ("/srv/socket", value.service.socket);
    EXPECT_EQ(3U, value.service.maxClients);
    EXPECT_EQ(512U, value.service.maxPayloadBytes);
    EXPECT_EQ(0U, value.service.idleSeconds);
    EXPECT_EQ(5U, value.service.busySeconds);
    EXPECT_EQ((std::vector<std::string>{"alice", "1000"}), value.service.readUsers);
    EXPECT_EQ((std::vector<std::string>{"vpd"}), value.service.readGroups);
    EXPECT_EQ((std::vector<std::string>{"0"}), value.service.writeUsers);
    EXPECT_TRUE(value.service.writeGroups.empty());
    EXPECT_EQ(2U, value.service.maxClientsPerUser);
    EXPECT_EQ(9U, value.service.maxWorking);
    EXPECT_EQ(4U, value.service.maxWorkingPerUser);
    EXPECT_EQ((std::vector<std::string>{"bob"}), value.service.rawUsers);
    EXPECT_EQ((std::vector<std::string>{"5"}), value.service.rawGroups);
    ASSERT_EQ(2U, value.devices.size());
    EXPECT_EQ(4294967295U, value.devices[0].number);
    EXPECT_EQ(2U, value.devices[0].position);
    EXPECT_EQ("sim:planar,local,1.2", value.devices[0].location);
    EXPECT_EQ("planar-vpd", value.devices[0].name);
    EXPECT_EQ(0U, value.devices[1].number);
    EXPECT_EQ(0U, value.devices[1].position);
    EXPECT_EQ("", value.devices[1].name);
}

TEST_F(Configuration, RelativePathsCountFromTheFilesFolder)
{
    const configuration value = valueOf("state = \"there/state\"\nmachine.folder = \"../machine\"");
    EXPECT_EQ(folder.path() / "there/state", value.stateFolder);
    EXPECT_EQ(folder.path() / "there/state/trace", value.traceFolder);
    EXPECT_EQ(folder.path().parent_path() / "machine", value.machineFolder);
    EXPECT_EQ(folder.path() / "there/state/kestd.socket", value.service.socket);
    EXPECT_EQ(folder.path() / "right.toml", value.file);
}

TEST_F(Configuration, TheServicesSocketLiesInTheSystemsPlaceBesideTheSystemsState)
{
    EXPECT_EQ("/run/kest/kestd.socket", valueOf("state = \"/var/lib/kest\"").service.socket);
}

/// Users' own state folders are for what they do themselves. The service that they ask is the system's.
TEST_F(Configuration, WithoutAStateFolderTheSocketIsTheSystemsForEveryUser)
{
    EXPECT_EQ(0, inChild([] {
                  if (!dropRights()) {
                      return 2;
                  }
                  setenv("XDG_STATE_HOME", "/srv/mine", 1);
                  configuration value;
                  host::complete(value);
                  return value.stateFolder == "/srv/mine/kest" && value.service.socket == "/run/kest/kestd.socket" ? 0
                                                                                                                   : 1;
              }));
}

TEST_F(Configuration, OneDeviceMayStandInSeveralPlaces)
{
    EXPECT_EQ(
        2U, valueOf("[[device]]\nnumber = 1\nlocation = \"a\"\n[[device]]\nnumber = 1\nposition = 1\nlocation = \"b\"")
                .devices.size());
}

TEST_F(Configuration, UnknownKeysAreReported)
{
    expectMessages(
        {{"stat = \"x\"",
          "1:1: key 'stat': expected one of the keys state, trace, errorlog, wear, undo, registry, nodes, device, "
          "machine, defaults, linux, service, found an unknown key; did you mean 'state'?"},
         {"[trace]\n  file = 1", "2:3: key 'trace.file': expected one of the keys folder, found an unknown key"},
         {"[errorlog]\nsize = 1",
          "2:1: key 'errorlog.size': expected one of the keys max_entries, max_size, spool, found an unknown key"},
         {"[nodes]\n8 = \"sim:x\"",
          "2:1: key 'nodes.8': expected one of the keys 0, 1, 2, 3, 4, 5, 6, 7, found an unknown key"},
         {"[machine]\nspeed = 1",
          "2:1: key 'machine.speed': expected one of the keys folder, time, found an unknown key"},
         {"[linux]\ntimeout = 1",
          "2:1: key 'linux.timeout': expected one of the keys set_timeout, lock_folder, found an unknown key"},
         {"[service]\nport = 1",
          "2:1: key 'service.port': expected one of the keys socket, max_clients, "
          "max_clients_per_user, max_working, max_working_per_user, max_payload, idle_seconds, busy_seconds, "
          "read_users, read_groups, write_users, write_groups, raw_users, raw_groups, found an unknown key"},
         {"[[device]]\nnumber = 1\nlocation = \"x\"\nplace = 2",
          "4:1: key 'device.place': expected one of the keys number, position, location, name, expect, "
          "width_proved, found an unknown key"},
         {"\"a\\u001Bb\" = 1",
          "1:1: key 'a\\x1Bb': expected one of the keys state, trace, errorlog, wear, undo, registry, nodes, device, "
          "machine, defaults, linux, service, found an unknown key"}});
}

TEST_F(Configuration, WrongTypesAreReported)
{
    expectMessages(
        {{"state = 5",
          "1:9: key 'state': expected a string of 1 to 4095 bytes without control characters, found the integer 5"},
         {"trace = \"x\"", "1:9: key 'trace': expected a table, found the string \"x\""},
         {"trace.folder = true",
          "1:16: key 'trace.folder': expected a string of 1 to 4095 bytes without control characters, found true"},
         {"errorlog = 1", "1:12: key 'errorlog': expected a table, found the integer 1"},
         {"errorlog.max_entries = \"5\"",
          "1:24: key 'errorlog.max_entries': expected an integer from 1 to 10000000, found the string \"5\""},
         {"errorlog.max_size = 2e6", "1:21: key 'errorlog.max_size': expected an integer from 1048576 to "
                                     "1099511627776, found a number with a fraction"},
         {"errorlog.spool = []", "1:18: key 'errorlog.spool': expected a string of 1 to 4095 bytes without "
                                 "control characters, found an empty list"},
         {"registry = 1", "1:12: key 'registry': expected a table, found the integer 1"},
         {"[registry]\n\"tavo/ReadMode\" = 3", "2:19: key 'registry.tavo/ReadMode': expected a string of 1 to "
                                               "4096 bytes without control characters, found the "
                                               "integer 3"},
         {"registry.tavo.ReadMode = \"FileMode\"", "1:10: key 'registry.tavo': expected a string of 1 to 4096 "
                                                   "bytes without control characters, found a table"},
         {"nodes = []", "1:9: key 'nodes': expected a table, found an empty list"},
         {"nodes.0 = 1", "1:11: key 'nodes.0': expected a string of 1 to 4095 bytes without control "
                         "characters, found the integer 1"},
         {"device = \"x\"", "1:10: key 'device': expected tables, each begun by [[device]], found the string \"x\""},
         {"device = [1]", "1:10: key 'device': expected tables, each begun by [[device]], found a list"},
         {"[device]\nnumber = 1", "1:1: key 'device': expected tables, each begun by [[device]], found a table"},
         {"[[device]]\nnumber = \"1\"\nlocation = \"x\"",
          "2:10: key 'device.number': expected an integer from 0 to 4294967295, found the string \"1\""},
         {"[[device]]\nnumber = 1\nposition = 1.5\nlocation = \"x\"",
          "3:12: key 'device.position': expected an integer from 0 to 4294967295, found a number with a fraction"},
         {"[[device]]\nnumber = 1\nlocation = 1979-05-27",
          "3:12: key 'device.location': expected a string of 1 to 255 bytes without control characters, found "
          "a date or time"},
         {"[[device]]\nnumber = 1\nlocation = \"x\"\nname = 5",
          "4:8: key 'device.name': expected a letter and up to 62 letters, digits, '.', '_' or '-', found the "
          "integer 5"},
         {"machine = false", "1:11: key 'machine': expected a table, found false"},
         {"machine.folder = 1", "1:18: key 'machine.folder': expected a string of 1 to 4095 bytes without "
                                "control characters, found the integer 1"},
         {"machine.time = 1", "1:16: key 'machine.time': expected \"fast\" or \"real\", found the integer 1"},
         {"linux = 1", "1:9: key 'linux': expected a table, found the integer 1"},
         {"linux.set_timeout = 1", "1:21: key 'linux.set_timeout': expected true or false, found the integer 1"},
         {"linux.lock_folder = 1", "1:21: key 'linux.lock_folder': expected a string of 1 to 4095 bytes "
                                   "without control characters, found the integer 1"},
         {"service = 1", "1:11: key 'service': expected a table, found the integer 1"},
         {"service.socket = 1", "1:18: key 'service.socket': expected a string of 1 to 107 bytes without "
                                "control characters, found the integer 1"},
         {"service.max_clients = true",
          "1:23: key 'service.max_clients': expected an integer from 1 to 65536, found true"},
         {"service.max_payload = true",
          "1:23: key 'service.max_payload': expected an integer from 512 to 16777216, found true"},
         {"service.idle_seconds = true",
          "1:24: key 'service.idle_seconds': expected an integer from 0 to 4294967, found true"},
         {"service.read_users = \"alice\"",
          "1:22: key 'service.read_users': expected a list of names or numbers, found the string \"alice\""},
         {"service.read_groups = 1",
          "1:23: key 'service.read_groups': expected a list of names or numbers, found the integer 1"},
         {"service.write_users = 1",
          "1:23: key 'service.write_users': expected a list of names or numbers, found the integer 1"},
         {"service.write_groups = 1",
          "1:24: key 'service.write_groups': expected a list of names or numbers, found the integer 1"},
         {"service.read_users = [\"a\", true]", "1:28: key 'service.read_users': expected a string of 1 to 255 "
                                                "bytes without control characters, found true"}});
}

TEST_F(Configuration, WrongValuesAreReported)
{
    expectMessages(
        {{"state = \"\"",
          "1:9: key 'state': expected a string of 1 to 4095 bytes without control characters, found the string \"\""},
         {"state = \"a\\u001B[2Jb\"", "1:9: key 'state': expected a string of 1 to 4095 bytes without control "
                                      "characters, found the string \"a\\x1B[2Jb\""},
         {"errorlog.max_entries = 0",
          "1:24: key 'errorlog.max_entries': expected an integer from 1 to 10000000, found the integer 0"},
         {"errorlog.max_entries = -1",
          "1:24: key 'errorlog.max_entries': expected an integer from 1 to 10000000, found the integer -1"},
         {"errorlog.max_entries = 10000001",
          "1:24: key 'errorlog.max_entries': expected an integer from 1 to 10000000, found the integer 10000001"},
         {"errorlog.max_size = 1000",
          "1:21: key 'errorlog.max_size': expected an integer from 1048576 to 1099511627776, found the integer 1000"},
         {"nodes.3 = \"riser\"",
          "1:11: key 'nodes.3': expected \"sim:\" and the name of a simulated node, or an absolute path, "
          "found the string \"riser\""},
         {"nodes.3 = \"sim:\"",
          "1:11: key 'nodes.3': expected \"sim:\" and the name of a simulated node, or an absolute path, "
          "found the string \"sim:\""},
         {"[[device]]\nlocation = \"x\"",
          "1:1: key 'device.number': expected an integer from 0 to 4294967295, found nothing"},
         {"[[device]]\nnumber = 1", "1:1: key 'device.location': expected a device text, found nothing"},
         {"[[device]]\nnumber = -1\nlocation = \"x\"",
          "2:10: key 'device.number': expected an integer from 0 to 4294967295, found the integer -1"},
         {"[[device]]\nnumber = 4294967296\nlocation = \"x\"",
          "2:10: key 'device.number': expected an integer from 0 to 4294967295, found the integer 4294967296"},
         {"[[device]]\nnumber = 1\nlocation = \"x\"\nname = \"a,b\"",
          "4:8: key 'device.name': expected a letter and up to 62 letters, digits, '.', '_' or '-', found the "
          "string \"a,b\""},
         {"[[device]]\nnumber = 1\nlocation = \"x\"\nname = \"1a\"",
          "4:8: key 'device.name': expected a letter and up to 62 letters, digits, '.', '_' or '-', found the "
          "string \"1a\""},
         {"[[device]]\nnumber = 1\nlocation = \"x\"\n[[device]]\nnumber = 1\nlocation = \"y\"",
          "5:10: key 'device.number': expected a number that no other device has at position 0, found the integer 1"},
         {"[[device]]\nnumber = 1\nlocation = \"x\"\nname = \"a\"\n[[device]]\nnumber = 2\nlocation = "
          "\"x\"\nname = \"a\"",
          "8:8: key 'device.name': expected a name that no other device has, found the string \"a\""},
         {"machine.time = \"slow\"",
          "1:16: key 'machine.time': expected \"fast\" or \"real\", found the string \"slow\""},
         {"service.max_clients = 0",
          "1:23: key 'service.max_clients': expected an integer from 1 to 65536, found the integer 0"},
         {"service.max_payload = 511",
          "1:23: key 'service.max_payload': expected an integer from 512 to 16777216, found the integer 511"},
         {"service.read_users = [-1]",
          "1:23: key 'service.read_users': expected an integer from 0 to 4294967294, found the integer -1"},
         {"service.read_users = [\"\"]", "1:23: key 'service.read_users': expected a string of 1 to 255 bytes "
                                         "without control characters, found the string \"\""}});
}

TEST_F(Configuration, SyntaxErrorsAndTheFirstFaultOfSeveralAreReported)
{
    expectMessages(
        {{"[service]\n  max_clients = x\n",
          "2:17: key 'max_clients': no TOML: error while parsing value: could not determine value type"},
         {"state\n",
          "1:6: key 'state': no TOML: error while parsing key-value pair: expected '=', saw the end of the line"},
         {"state = \"a\"\nstate = \"b\"\n", "2:9: key 'state': no TOML: error while parsing "
                                            "key-value pair: cannot redefine existing string 'state'"},
         // The behaviour of the parser is undefined for these.
         {"state = \"a\"\n[[\n", "2:1: key '[[': expected plain TOML, found a '[' without the name of a table"},
         {"state = \"\xC3\xBC\"\n",
          "1:10: key 'state': expected plain TOML, found a character beyond ASCII outside a comment"},
         {"state = \"\"\"\na\"\"\"\n", "1:9: key 'state': expected plain TOML, found a string of several lines"},
         // The first of several faults is reported, in whatever order the keys are read.
         {"machine.time = 1\nerrorlog.max_entries = 0\nzzz = 1",
          "1:16: key 'machine.time': expected \"fast\" or \"real\", found the integer 1"}});
}

TEST_F(Configuration, OverlongTextsAreRefused)
{
    const std::string big(4096, 'a');
    EXPECT_EQ("1:9: key 'state': expected a string of 1 to 4095 bytes without control characters, found the string \"" +
                  std::string(60, 'a') + "...\"",
              errorOf("state = \"" + big + "\""));
    EXPECT_EQ("3:12: key 'device.location': expected a string of 1 to 255 bytes without control characters, found the "
              "string \"" +
                  std::string(60, 'a') + "...\"",
              errorOf("[[device]]\nnumber = 1\nlocation = \"" + std::string(256, 'a') + "\""));
    EXPECT_EQ("1:18: key 'service.socket': expected a path of at most 107 bytes with the file's folder ahead of it, "
              "found the string \"" +
                  std::string(60, 'a') + "...\"",
              errorOf("service.socket = \"" + std::string(107, 'a') + "\""));
    EXPECT_EQ("", errorOf("[[device]]\nnumber = 1\nlocation = \"" + std::string(255, 'a') + "\""));
}

TEST_F(Configuration, AnUnreadableFileIsReportedByItsPath)
{
    const std::string missing = (folder.path() / "missing.toml").string();
    EXPECT_EQ(missing + ": No such file or directory", readConfiguration(missing).error);
    EXPECT_EQ(folder.path().string() + ": Is a directory", readConfiguration(folder.path()).error);
    const std::string big = folder.write("big.toml", std::string(1048577, '#')).string();
    EXPECT_EQ(big + ": larger than 1048576 bytes", readConfiguration(big).error);
    EXPECT_EQ(0, mkfifo((folder.path() / "fifo").c_str(), 0600));
    EXPECT_EQ((folder.path() / "fifo").string() + ": not a regular file",
              readConfiguration(folder.path() / "fifo").error);
}

TEST_F(Configuration, ReadingItMakesNoFolders)
{
    folder.configure("");
    EXPECT_EQ(folder.path() / "state", host::currentConfiguration().stateFolder);
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "state"));
}

TEST_F(Configuration, ABadFileNeverReplacesAGoodOne)
{
    folder.configure("registry.a = \"1\"");
    const configuration& before = host::currentConfiguration();
    folder.write("kest.toml", "stat = 1");
    EXPECT_NE("", host::reloadConfiguration());
    EXPECT_EQ(&before, &host::currentConfiguration());
    EXPECT_EQ("", host::configurationError());
    folder.configure("registry.a = \"2\"");
    EXPECT_EQ("1", before.registry.at("a")) << "what was handed out is kept";
    EXPECT_EQ("2", host::currentConfiguration().registry.at("a"));
    EXPECT_FALSE(host::useConfigurationFile(folder.path() / "kest.toml")) << "too late";
}

/// The state folder of a user without rights, with these two variables in the environment.
int checkStateFolder(const char* stateHome, const char* home, const std::string& expected)
{
    return inChild([&] {
        stateHome != nullptr ? setenv("XDG_STATE_HOME", stateHome, 1) : unsetenv("XDG_STATE_HOME");
        home != nullptr ? setenv("HOME", home, 1) : unsetenv("HOME");
        const bool dropped = dropRights();
        return dropped && readConfiguration("/nowhere").value.stateFolder == expected ? 0 : 1;
    });
}

TEST_F(Configuration, StateOfAUserIsInTheUsersFolder)
{
    if (access("/var/lib/kest", W_OK) == 0 && geteuid() != 0) {
        GTEST_SKIP() << "this user owns the system's state folder";
    }
    EXPECT_EQ(0, checkStateFolder("/x/state", "/home/u", "/x/state/kest"));
    EXPECT_EQ(0, checkStateFolder("relative", "/home/u", "/home/u/.local/state/kest"));
    EXPECT_EQ(0, checkStateFolder(nullptr, "/home/u", "/home/u/.local/state/kest"));
    const std::string user = std::to_string(geteuid() == 0 ? 65534 : geteuid());
    EXPECT_EQ(0, checkStateFolder(nullptr, nullptr, "/var/tmp/kest-" + user + "/state"));
}

TEST_F(Configuration, StateOfRootIsInTheSystemsFolder)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    EXPECT_EQ("/var/lib/kest", valueOf("").stateFolder);
}

TEST_F(Configuration, TheDocumentsExampleIsRightAndShowsEveryKey)
{
    std::ifstream page(std::string(sourceFolder) + "/docs/configuration.md");
    const std::string text((std::istreambuf_iterator<char>(page)), {});
    const auto begin = text.find("```toml\n") + 8;
    const std::string example = text.substr(begin, text.find("```", begin) - begin);
    const configuration value = valueOf(example);
    EXPECT_EQ("MixedMode", value.registry.at("tavo/ReadMode"));
    ASSERT_EQ(2U, value.devices.size());
    EXPECT_TRUE(value.devices[0].widthProved);
    EXPECT_FALSE(value.devices[1].widthProved);
    for (const char* key : {"state",        "folder",
                            "max_entries",  "max_size",
                            "spool",        "tavo/ReadMode",
                            "number",       "position",
                            "location",     "name",
                            "time",         "set_timeout",
                            "lock_folder",  "socket",
                            "max_clients",  "max_payload",
                            "idle_seconds", "read_users",
                            "read_groups",  "write_users",
                            "write_groups", "raw_users",
                            "raw_groups",   "max_clients_per_user",
                            "max_working",  "max_working_per_user",
                            "[nodes]",      "expect",
                            "width_proved", "keep",
                            "days",         "busy_seconds"}) {
        EXPECT_NE(example.npos, example.find(key)) << key;
    }
}

} // namespace

} // namespace kest::test
