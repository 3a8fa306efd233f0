#include "tools/kestctl/simnew.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fmt/core.h>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "sim/demo.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/embedded.h"

namespace kest::tools
{
namespace
{

struct simNewOptions {
    std::string folder;
};

/// What an image of the demo machine begins with.
struct demoContent {
    const char* image;
    const char* file; ///< of examples/images
};

constexpr std::array demoContents{
    demoContent{"system.bin", "tlvinfo-4096-switch.bin"},
    demoContent{"panel.bin", "edid-128-dell-e178wfp-vga.bin"},
    demoContent{"firmware.bin", "composite-65536-spd-records.bin"},
    demoContent{"power.bin", "spd-1024-ddr5-M425R1GB4BB0.bin"},
    demoContent{"riser.bin", "spd-512-ddr4-M471A1G44AB0.bin"},
    demoContent{"fan.bin", "cal-256-scope-x24c02.bin"},
};

std::span<const unsigned char> embedded(std::string_view name)
{
    const auto files = embeddedFiles();
    const auto found = std::ranges::find(files, name, &embeddedFile::name);
    if (found == files.end()) {
        throw failure{.code = exitFailed, .what = fmt::format("'{}' is not part of this program", name)};
    }
    return found->bytes;
}

/// Makes a file that must not be there yet.
void writeNew(const std::filesystem::path& path, std::span<const unsigned char> bytes)
{
    std::FILE* file = std::fopen(path.c_str(), "wbx");
    bool good = file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    int error = errno;
    if (file != nullptr && std::fclose(file) != 0 && good) {
        good = false;
        error = errno;
    }
    if (!good) {
        throw std::system_error{error, std::generic_category()};
    }
}

/// A folder with a private name, removed with all that is left in it: a machine that can't be finished leaves nothing
/// behind.
class privateFolder
{
public:
    /// @param beside  existing folder in which it is made
    explicit privateFolder(const std::filesystem::path& beside)
    {
        std::string name = (beside / ".kest-new-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error{errno, std::generic_category()};
        }
        m_path = name;
    }
    privateFolder(const privateFolder&) = delete;
    privateFolder& operator=(const privateFolder&) = delete;
    ~privateFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    [[nodiscard]] const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

/// @return whether the folder is there, empty. Its parents are made.
bool isThere(const std::filesystem::path& folder)
{
    if (folder.has_parent_path()) {
        std::filesystem::create_directories(folder.parent_path());
    }
    if (!std::filesystem::exists(folder)) {
        return false;
    }
    if (!std::filesystem::is_directory(folder)) {
        throw std::system_error{ENOTDIR, std::generic_category()};
    }
    if (!std::filesystem::is_empty(folder)) {
        throw failure{.code = exitRefused,
                      .what = "there is something in it already, which is not overwritten",
                      .tryThis = "name a new folder",
                      .device = folder.string(),
                      .step = "sim new"};
    }
    return true;
}

void writeMachine(const std::filesystem::path& folder)
{
    std::map<std::string, std::vector<std::uint8_t>> contents;
    for (const demoContent& content : demoContents) {
        const auto bytes = embedded(content.file);
        contents[content.image] = {bytes.begin(), bytes.end()};
    }
    sim::writeDemoMachine(folder, contents);
    writeNew(folder / "kest.toml", embedded("kest.toml"));
}

/// Makes the machine elsewhere and moves it into place when it is whole.
void makeMachine(const std::filesystem::path& folder)
{
    const bool there = isThere(folder);
    const privateFolder place(there ? folder : folder.has_parent_path() ? folder.parent_path() : ".");
    // One level down: the private folder is its owner's alone, the machine has the usual permissions
    const std::filesystem::path made = place.path() / "machine";
    std::filesystem::create_directory(made);
    writeMachine(made);
    if (!there) {
        std::filesystem::rename(made, folder);
        return;
    }
    // The folder itself stays: it may be a link, a mount point or somebody's working folder
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(made)) {
        files.push_back(entry.path());
    }
    for (const auto& file : files) {
        std::filesystem::rename(file, folder / file.filename());
    }
}

/// Refuses a folder that has anything in it.
int runSimNew(const context& shared, const simNewOptions& options)
{
    const std::filesystem::path folder = options.folder;
    try {
        makeMachine(folder.has_filename() ? folder : folder.parent_path());
    } catch (const std::system_error& why) {
        throw systemFailure(why.code().value(), "make machine", options.folder);
    }
    const std::string configuration = std::filesystem::absolute(folder / "kest.toml").lexically_normal().string();
    if (shared.json) {
        standardOutput().json({{"folder", options.folder}, {"config", configuration}});
    } else {
        standardOutput().text(
            fmt::format("made a demo machine; use it by\n  export KEST_CONFIG={}\n  kestctl topology\n",
                        escaped(shellWord(configuration))));
    }
    return exitDone;
}

} // namespace

void addSimNew(command area, context& shared)
{
    const auto options = std::make_shared<simNewOptions>();
    command verb = addVerb(area, "new", "write a demo machine and its configuration into a new folder");
    verb.text("DIR", options->folder, "folder to make", "").required();
    verb.whenGiven([&shared, options] {
        shared.needsConfiguration = false;
        shared.action = [&shared, options] { return runSimNew(shared, *options); };
    });
}

} // namespace kest::tools
