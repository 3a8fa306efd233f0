#include "platform/host/configuration/configuration.h"

#include <atomic>
#include <cerrno>
#include <exception>
#include <list>
#include <mutex>
#include <optional>
#include <unistd.h>
#include <utility>

#include "base/fork.h"
#include "platform/host/configuration/configurationfile.h"
#include "platform/host/trace/rings.h"

namespace kest::host
{

namespace
{

constexpr const char* systemFile = "/etc/kest/kest.toml";

/// One reading of the configuration. References that callers got point into it.
struct reading {
    configuration value;
    std::string error;
};

/// Never destroyed: objects of static storage may ask for the configuration as late as they like.
struct processConfiguration {
    static processConfiguration& instance()
    {
        static auto* const made = new processConfiguration;
        return *made;
    }
    void beforeFork() { guard.lock(); }
    void afterFork(bool /*inChild*/) { guard.unlock(); }

    std::mutex guard;
    std::optional<std::filesystem::path> chosen; ///< by useConfigurationFile()
    std::list<reading> kept;
    std::atomic<const reading*> current{nullptr};

private:
    processConfiguration() { watchForks<processConfiguration>(); }
};
[[maybe_unused]] const processConfiguration& madeAtLoad = processConfiguration::instance();

processConfiguration& process() { return processConfiguration::instance(); }

/// Reads the file that counts for this process. A file that nobody named need not be there.
reading readChosen(const std::optional<std::filesystem::path>& chosen)
{
    const char* named = environment("KEST_CONFIG");
    std::filesystem::path file = chosen ? *chosen : named != nullptr ? named : systemFile;
    configurationResult result;
    if (!chosen && named == nullptr && access(systemFile, F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
        complete(result.value);
    } else {
        result = readConfiguration(file);
    }
    return {std::move(result.value), std::move(result.error)};
}

const reading& currentReading()
{
    processConfiguration& state = process();
    if (const reading* found = state.current.load(std::memory_order_acquire)) {
        return *found;
    }
    const reading* made = nullptr;
    {
        const std::scoped_lock lock(state.guard);
        if (const reading* found = state.current.load(std::memory_order_relaxed)) {
            return *found;
        }
        made = &state.kept.emplace_back(readChosen(state.chosen));
        state.current.store(made, std::memory_order_release);
    }
    // without the lock: it takes another
    useTraceFolder(made->value.traceFolder);
    return *made;
}

} // namespace

const configuration& currentConfiguration() { return currentReading().value; }

const std::string& configurationError() { return currentReading().error; }

bool useConfigurationFile(const std::filesystem::path& file)
{
    processConfiguration& state = process();
    const std::scoped_lock lock(state.guard);
    const bool early = state.current.load(std::memory_order_relaxed) == nullptr;
    if (early) {
        state.chosen = file;
    }
    return early;
}

namespace
{

std::string reload()
{
    processConfiguration& state = process();
    std::filesystem::path traceFolder;
    {
        const std::scoped_lock lock(state.guard);
        reading fresh = readChosen(state.chosen);
        if (!fresh.error.empty()) {
            return fresh.error;
        }
        traceFolder = fresh.value.traceFolder;
        state.current.store(&state.kept.emplace_back(std::move(fresh)), std::memory_order_release);
    }
    useTraceFolder(traceFolder);
    return {};
}

} // namespace

std::string reloadConfiguration() noexcept
{
    try {
        return reload();
    } catch (const std::exception&) {
        // short enough to need none
        return "no memory";
    }
}

} // namespace kest::host
