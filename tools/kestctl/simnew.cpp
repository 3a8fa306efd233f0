#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sim/template.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/kestctl/embedded.h"
#include "tools/kestctl/sim.h"

namespace kest::tools
{
namespace
{

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
    if (found == files.end())
        throw failure{.code = exitFailed, .what = fmt::format("'{}' is not part of this program", name)};
    return found->bytes;
}

/// Makes a file that must not be there yet.
void writeNew(const std::filesystem::path& path, std::span<const unsigned char> bytes)
{
    std::FILE* file  = std::fopen(path.c_str(), "wbx");
    bool       good  = file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    int        error = errno;
    if (file != nullptr && std::fclose(file) != 0 && good) {
        good  = false;
        error = errno;
    }
    if (!good)
        throw systemFailure(error, "write", path.string());
}

void makeFolder(const std::filesystem::path& folder)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    const bool empty = !error && std::filesystem::is_empty(folder, error);
    if (error)
        throw systemFailure(error.value(), "make folder", folder.string());
    if (!empty)
        throw failure{.code    = exitRefused,
                      .what    = "there is something in it already, which is not overwritten",
                      .tryThis = "name a new folder",
                      .device  = folder.string(),
                      .step    = "sim new"};
}

} // namespace

int runSimNew(const context& shared, const simNewOptions& options)
{
    const std::filesystem::path folder = options.folder;
    makeFolder(folder);
    std::map<std::string, std::vector<std::uint8_t>> contents;
    for (const demoContent& content : demoContents) {
        const auto bytes        = embedded(content.file);
        contents[content.image] = {bytes.begin(), bytes.end()};
    }
    sim::writeDemoMachine(folder, contents);
    writeNew(folder / "kest.toml", embedded("kest.toml"));
    const std::string configuration = std::filesystem::absolute(folder / "kest.toml").lexically_normal().string();
    if (shared.json)
        standardOutput().json({{"folder", options.folder}, {"config", configuration}});
    else
        standardOutput().text(
            fmt::format("made a demo machine; use it by\n  export KEST_CONFIG={}\n  kestctl topology\n",
                        escaped(shellWord(configuration))));
    return exitDone;
}

} // namespace kest::tools
