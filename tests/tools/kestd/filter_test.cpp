/// The message service under the filters of its unit, as a user without rights.
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

#include "tests/tools/kestd_support.h"

namespace kest::test
{
namespace
{

using client::answer;
using client::outcome;

constexpr const char* direct = "sim:planar,L,2C0256,A0";
constexpr const char* behindHub = "sim:planar,L,922,80,3,2C0128,A2";

struct FaultRow {
    std::vector<std::string> words; ///< arguments of `sim fault add`
    const char* device;
    bool reads;
};
const FaultRow faults[] = {
    {{"nack", "--address", "0xA0"}, direct, true},
    {{"nack", "--address", "0xA0"}, direct, false},
    {{"nack-data", "--address", "0xA0", "--byte", "3"}, direct, false},
    {{"hold-sda", "--value", "100"}, direct, true},
    {{"hold-scl", "--value", "100"}, direct, true},
    {{"hold-scl", "--value", "100"}, direct, false},
    {{"short", "--byte", "1"}, direct, true},
    {{"arbitration", "--byte", "1"}, direct, true},
    {{"stuck-write-cycle", "--address", "0xA0"}, direct, false},
    {{"gone"}, direct, true},
    {{"gone"}, direct, false},
    {{"hub-silent"}, behindHub, true},
    {{"hub-status", "--value", "2"}, behindHub, true},
    {{"hub-status", "--value", "9"}, behindHub, false},
    {{"hub-hold-sda", "--value", "100"}, behindHub, true},
    {{"hub-hold-scl", "--value", "100"}, behindHub, false},
};

class KestdUnderItsUnit : public MachineTest
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can run the service as another user";
        }
        if (underSanitizer) {
            GTEST_SKIP() << "the sanitizers' own system calls are refused";
        }
        if (!std::filesystem::exists(confine())) {
            GTEST_SKIP() << "built without libseccomp";
        }
        std::filesystem::permissions(folder(), std::filesystem::perms(0755));
        for (const auto& entry : std::filesystem::recursive_directory_iterator(machine())) {
            EXPECT_EQ(0, chown(entry.path().c_str(), service, service));
        }
        EXPECT_EQ(0, chown(machine().c_str(), service, users));
        std::filesystem::permissions(machine(), std::filesystem::perms(02770));
    }

    static std::filesystem::path confine() { return std::filesystem::path(programFolder) / "../tests/confine"; }
    /// The sets of system calls of the installed service manager, or of the one in Debian 12 when there is none.
    [[nodiscard]] std::filesystem::path sets() const
    {
        const std::filesystem::path own = folder() / "sets";
        const std::string command = "systemd-analyze syscall-filter >'" + own.string() + "' 2>/dev/null";
        const bool installed = std::system(command.c_str()) == 0;
        return installed ? own : std::filesystem::path(sourceFolder) / "tests/confine/syscall-sets.txt";
    }
    /// @param kills  whether a call that the filter refuses ends the service
    void start(bool kills)
    {
        std::vector<std::string> runner{confine().string()};
        if (kills) {
            runner.emplace_back("--kill");
        }
        for (const std::string& word : {std::string(sourceFolder) + "/packaging/kestd.service.in", sets().string(),
                                        std::to_string(service), std::to_string(service), std::to_string(users)}) {
            runner.push_back(word);
        }
        daemon.emplace(folder(), std::vector<std::string>{"--config", (machine() / "kest.toml").string()}, -1,
                       std::map<std::string, std::string>{}, runner);
        ASSERT_TRUE(daemon->isReady()) << daemon->errors();
    }
    [[nodiscard]] client::serviceConnection connect() const
    {
        return client::serviceConnection(machine() / "state/kestd.socket", patience);
    }
    [[nodiscard]] struct stat about(const std::string& name) const
    {
        struct stat facts {
        };
        EXPECT_EQ(0, lstat((machine() / name).c_str(), &facts)) << name;
        return facts;
    }
    /// Brings about every kind of failure. Each leaves its entry in the log, and afterwards the service reads as
    /// before.
    void failEveryWay()
    {
        client::serviceConnection connection = connect();
        const std::vector<std::uint8_t> data(8, 0x5A);
        for (const FaultRow& fault : faults) {
            std::vector<std::string> words{"sim", "fault", "add"};
            words.insert(words.end(), fault.words.begin(), fault.words.end());
            says(words);
            const answer got = fault.reads ? connection.readSeeprom(fault.device, 0, 8)
                                           : connection.writeSeeprom(fault.device, 0x40, data);
            EXPECT_EQ(outcome::failed, got.what) << fault.words[0] << " " << got.message;
            EXPECT_NE(0U, got.logId) << fault.words[0];
            says({"sim", "fault", "clear"});
            says({"sim", "power-cycle"});
        }
        EXPECT_EQ(outcome::done, connection.readSeeprom(direct, 0, 8).what);
        EXPECT_EQ(outcome::done, connection.readSeeprom(behindHub, 0, 8).what);
    }
    void readAndWrite() const
    {
        const std::vector<std::uint8_t> data{0xC0, 0xFF, 0xEE, 0x00, 0x01};
        client::serviceConnection connection = connect();
        for (const char* device : {direct, behindHub}) {
            EXPECT_EQ(outcome::done, connection.writeSeeprom(device, 0x100, data).what) << device;
            EXPECT_EQ(data, connection.readSeeprom(device, 0x100, 5).data) << device;
        }
        EXPECT_EQ(direct, [&] {
            const answer got = connection.location(0xD001, 0);
            return std::string(got.data.begin(), got.data.end());
        }());
    }

    /// The service's whole work, from its start to its end.
    void serve(bool kills)
    {
        ASSERT_NO_FATAL_FAILURE(start(kills));
        readAndWrite();
        failEveryWay();
        EXPECT_TRUE(daemon->reload());
        readAndWrite();
        EXPECT_EQ(0, daemon->stop()) << daemon->errors();
    }

    static constexpr uid_t service = 61234;
    static constexpr gid_t users = 61300;

    std::optional<Daemon> daemon;
};

TEST_F(KestdUnderItsUnit, ReadsWritesAndFails) { serve(false); }

TEST_F(KestdUnderItsUnit, CallsNothingThatIsRefused) { serve(true); }

TEST_F(KestdUnderItsUnit, ItsSharedFilesAreOpenToAllUsersOfTheBus)
{
    start(true);
    readAndWrite();
    says({"sim", "fault", "add", "nack", "--address", "0xA0"});
    EXPECT_EQ(outcome::failed, connect().readSeeprom(direct, 0, 8).what);
    EXPECT_EQ(0, daemon->stop());
    EXPECT_EQ(service, about("iic.planar.lock").st_uid);
    EXPECT_EQ(users, about("iic.planar.lock").st_gid);
    EXPECT_EQ(S_IFREG | mode_t{0660}, about("iic.planar.lock").st_mode);
}

} // namespace
} // namespace kest::test
