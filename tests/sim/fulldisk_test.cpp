/// A machine on a full disk.
#include "sim/demo.h"
#include "tests/sim/machinetest.h"

#include <csignal>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kest::sim::test
{

namespace
{

enum OutcomeOfChild {
    fine,
    opened,
    notAllowed,
    threwLater,
};

/// @return the child's exit status, or 256 and the signal that ended it
template <typename Body>
int inChild(Body body)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// @return why the machine can't be opened, empty when it can
std::string troubleOf(const std::filesystem::path& folder)
{
    try {
        openMachine(folder, false);
        return "";
    } catch (const std::exception& why) {
        return why.what();
    }
}

constexpr const char* oneExpander =
    "[[bus]]\nname = \"planar\"\n[[chip]]\nbus = \"planar\"\ntype = \"PCA9552\"\naddress = 0xC0\n";

TEST(FullDisk, ANewMachineIsAnErrorEveryTimeItIsOpened)
{
    const Folder home;
    const int result = inChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", home.path.c_str(), "tmpfs", 0, "size=1m") != 0) {
            return notAllowed;
        }
        home.put("machine.toml", oneExpander);
        std::ofstream filler(home.path / "filler", std::ios::binary);
        while (filler << std::string(4096, 'x') << std::flush) {}
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (troubleOf(home.path).find("No space left on device") == std::string::npos) {
                return opened;
            }
        }
        filler.close();
        std::filesystem::remove(home.path / "filler");
        return troubleOf(home.path).empty() ? fine : threwLater;
    });
    if (result == notAllowed) {
        GTEST_SKIP() << "no right to mount";
    }
    EXPECT_EQ(fine, result);
}

TEST(FullDisk, ANewDemoMachineSaysWhyItCannotBeWritten)
{
    const Folder home;
    EXPECT_EQ(fine, inChild([&] {
                  const rlimit limit{1024, 1024};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  try {
                      writeDemoMachine(home.path / "demo", {});
                  } catch (const std::runtime_error& why) {
                      const std::string firmware = (home.path / "demo/firmware.bin").string();
                      return why.what() == firmware + ": cannot be written: File too large" ? fine : threwLater;
                  }
                  return opened;
              }));
}

TEST(FullDisk, ALimitOnFileSizesIsAnErrorAndNoSignal)
{
    const Folder home;
    home.put("machine.toml", oneExpander);
    EXPECT_EQ(fine, inChild([&] {
                  const rlimit limit{1024, 1024};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  return troubleOf(home.path).find("File too large") == std::string::npos ? opened : fine;
              }));
    EXPECT_EQ("", troubleOf(home.path));
}

} // namespace

} // namespace kest::sim::test
