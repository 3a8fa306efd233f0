#include "tools/kestctl/simnew.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fmt/core.h>
#include <string>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "sim/demo.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/simtemplates.h"

namespace kest::tools
{
namespace
{

struct simNewOptions {
    std::string folder;
    std::string machine; ///< name of its template
};

/// Makes a file that must not be there yet.
void writeNew(const std::filesystem::path& path, std::string_view bytes)
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

void writeMachine(const std::filesystem::path& folder, const sim::machineTemplate& which)
{
    sim::writeMachine(folder, which.text(), contentsOf(which));
    writeNew(folder / "kest.toml", configurationOf(which));
}

/// Makes the machine elsewhere and moves it into place when it is whole.
void makeMachine(const std::filesystem::path& folder, const sim::machineTemplate& which)
{
    const bool there = isThere(folder);
    const privateFolder place(there ? folder : folder.has_parent_path() ? folder.parent_path() : ".");
    // One level down: the private folder is its owner's alone, the machine has the usual permissions
    const std::filesystem::path made = place.path() / "machine";
    std::filesystem::create_directory(made);
    writeMachine(made, which);
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

/// What making a machine would do. Its folder can be made if the nearest one that is there can be written.
void rehearse(const context& shared, const std::filesystem::path& folder, const sim::machineTemplate& which)
{
    std::filesystem::path nearest = std::filesystem::absolute(folder);
    while (!std::filesystem::exists(nearest)) {
        nearest = nearest.parent_path();
    }
    if (nearest == std::filesystem::absolute(folder)) {
        static_cast<void>(isThere(folder));
    }
    if (!std::filesystem::is_directory(nearest) || access(nearest.c_str(), W_OK | X_OK) != 0) {
        throw systemFailure(std::filesystem::is_directory(nearest) ? errno : ENOTDIR, "make machine", folder.string());
    }
    reportWould(shared, {{"folder", folder.string()}, {"template", std::string(which.name)}},
                fmt::format("{}: a {} machine would be made", escaped(folder.string()), which.name));
}

/// Refuses a folder that has anything in it.
int runSimNew(const context& shared, const simNewOptions& options)
{
    const std::filesystem::path folder = options.folder;
    const sim::machineTemplate& which = findTemplate(options.machine);
    try {
        if (preferred().dryRun) {
            rehearse(shared, folder.has_filename() ? folder : folder.parent_path(), which);
            return exitDone;
        }
        makeMachine(folder.has_filename() ? folder : folder.parent_path(), which);
    } catch (const std::system_error& why) {
        throw systemFailure(why.code().value(), "make machine", options.folder);
    }
    const std::string configuration = std::filesystem::absolute(folder / "kest.toml").lexically_normal().string();
    if (shared.json) {
        standardOutput().json(
            {{"folder", options.folder}, {"config", configuration}, {"template", std::string(which.name)}});
    } else {
        const std::string hint = preferred().quiet
                                     ? ""
                                     : fmt::format("; use it by\n  export KEST_CONFIG={}\n  kestctl topology",
                                                   escaped(shellWord(configuration)));
        standardOutput().text(fmt::format("made a {} machine{}\n", which.name, hint));
    }
    return exitDone;
}

} // namespace

void addSimNew(command area, context& shared)
{
    const auto options = std::make_shared<simNewOptions>();
    options->machine = sim::machineTemplates().front().name;
    command verb = addVerb(area, "new", "write a machine and its configuration into a new folder", templateHelp());
    verb.text("DIR", options->folder, "folder to make", "").required();
    verb.text("--template", options->machine, "what machine: " + templateNames() + "; demo otherwise", "NAME");
    addDryRun(verb);
    verb.whenGiven([&shared, options] {
        shared.needsConfiguration = false;
        shared.action = [&shared, options] { return runSimNew(shared, *options); };
    });
}

} // namespace kest::tools
