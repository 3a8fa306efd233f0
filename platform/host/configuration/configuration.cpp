#include "platform/host/configuration/configuration.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <toml++/toml.h>
#include <unistd.h>

#include "base/files.h"
#include "base/fork.h"
#include "base/tomltext.h"
#include "platform/host/trace/rings.h"

namespace kest::host
{

namespace
{

constexpr const char* systemFile = "/etc/kest/kest.toml";
constexpr const char* systemState = "/var/lib/kest";
constexpr const char* systemSocket = "/run/kest/kestd.socket";
constexpr std::size_t longestFileBytes = 1 << 20;
// of a wrong value that is shown
constexpr std::size_t longestFoundBytes = 60;
constexpr std::size_t longestPathBytes = 4095;
// what a socket address holds
constexpr std::size_t longestSocketBytes = 107;
constexpr std::size_t longestLocation = 255;
constexpr std::size_t longestNameBytes = 63;
constexpr std::size_t longestRegistryText = 4096;
constexpr std::size_t longestAccountBytes = 255;

/// Text for a message of one line: at most `longestFoundBytes`, with what a terminal would act on as \xHH.
std::string shown(std::string_view text)
{
    std::string result;
    for (const char character : text.substr(0, longestFoundBytes)) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte < 0x7F) {
            result += character;
        } else {
            result += fmt::format("\\x{:02X}", byte);
        }
    }
    return text.size() > longestFoundBytes ? result + "..." : result;
}

std::string describe(const toml::node& node)
{
    std::string text;
    if (const auto* string = node.as_string()) {
        text = fmt::format("the string \"{}\"", shown(string->get()));
    } else if (const auto* integer = node.as_integer()) {
        text = fmt::format("the integer {}", integer->get());
    } else if (const auto* boolean = node.as_boolean()) {
        text = boolean->get() ? "true" : "false";
    } else if (node.is_floating_point()) {
        text = "a number with a fraction";
    } else if (node.is_table()) {
        text = "a table";
    } else if (const auto* array = node.as_array()) {
        text = array->empty() ? "an empty list" : "a list";
    } else {
        text = "a date or time";
    }
    return text;
}

/// What stands before the '=' of a line; the whole line without one.
std::string_view keyOfLine(std::string_view text, toml::source_index number)
{
    for (toml::source_index line = 1; line < number && text.find('\n') != text.npos; ++line) {
        text.remove_prefix(text.find('\n') + 1);
    }
    text = text.substr(0, std::min(text.find('='), text.find('\n')));
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return text.substr(0, text.find_last_not_of(" \t\r") + 1);
}

/// The parser's description of a fault, to follow a colon. It has the end of a line as an escape, which the programs
/// that show it would escape again.
std::string parsersWords(std::string_view description)
{
    constexpr std::string_view lineEnd = "'\\n'";
    std::string words(description);
    if (words.starts_with("Error ")) {
        words.front() = 'e';
    }
    if (const auto at = words.find(lineEnd); at != words.npos) {
        words.replace(at, lineEnd.size(), "the end of the line");
    }
    return words;
}

/// Reads one file into a configuration and keeps the first fault of it.
class fileReader
{
public:
    fileReader(std::filesystem::path file, configuration& target) : m_file(std::move(file)), m_target(target) {}

    void read(std::string_view text);
    /// @return the fault that stands first in the file, empty when there is none
    [[nodiscard]] const std::string& error() const { return m_error; }
    void fail(toml::source_position at, std::string_view key, const std::string& what);
    void fail(toml::source_position at, std::string_view key, const std::string& expected, const std::string& found)
    {
        fail(at, key, fmt::format("expected {}, found {}", expected, found));
    }

private:
    using keyReader = std::function<void(const std::string& key, const toml::node&)>;
    struct keyRow {
        std::string_view name;
        keyReader read;
    };

    void wrong(const std::string& key, const toml::node& node, const std::string& expected)
    {
        fail(node.source().begin, key, expected, describe(node));
    }
    void section(const std::string& prefix, const toml::node& node, std::span<const keyRow> rows);

    std::optional<std::string> text(const std::string& key, const toml::node& node, std::size_t longest);
    std::optional<std::uint64_t> number(const std::string& key, const toml::node& node, std::uint64_t least,
                                        std::uint64_t most);
    keyReader path(std::filesystem::path& target, std::size_t longest = longestPathBytes);
    template <typename Number>
    keyReader integer(Number& target, std::uint64_t least, std::uint64_t most);
    keyReader truth(bool& target);
    keyReader accounts(std::vector<std::string>& target);
    keyReader tableOf(std::vector<keyRow> rows);

    void readRegistry(const std::string& key, const toml::node& node);
    void readNodes(const std::string& key, const toml::node& node);
    void readNode(const std::string& key, const toml::node& node, nodeMapping& target);
    void readDevices(const std::string& key, const toml::node& node);
    void readDevice(const std::string& key, const toml::table& table);
    void readName(const std::string& key, const toml::node& node, std::string& target);
    void checkUnique(const std::string& key, const toml::table& table, const deviceEntry& device);

    std::filesystem::path m_file;
    configuration& m_target;
    std::string m_error;
    toml::source_position m_errorAt{};
};

void fileReader::fail(toml::source_position at, std::string_view key, const std::string& what)
{
    if (m_error.empty() || at < m_errorAt) {
        m_errorAt = at;
        m_error = fmt::format("{}:{}:{}: key '{}': {}", m_file.string(), at.line, at.column, shown(key), what);
    }
}

void fileReader::section(const std::string& prefix, const toml::node& node, std::span<const keyRow> rows)
{
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        wrong(prefix, node, "a table");
    } else {
        for (const auto& [key, value] : *table) {
            const std::string_view name = key.str();
            const std::string whole = prefix.empty() ? std::string(name) : fmt::format("{}.{}", prefix, name);
            const auto row = std::ranges::find(rows, name, &keyRow::name);
            if (row != rows.end()) {
                row->read(whole, value);
            } else {
                std::string known;
                for (const keyRow& other : rows) {
                    known += fmt::format("{}{}", known.empty() ? "" : ", ", other.name);
                }
                fail(key.source().begin, whole, "one of the keys " + known, "an unknown key");
            }
        }
    }
}

std::optional<std::string> fileReader::text(const std::string& key, const toml::node& node, std::size_t longest)
{
    const auto* string = node.as_string();
    const bool good = string != nullptr && !string->get().empty() && string->get().size() <= longest &&
                      std::ranges::none_of(string->get(), [](char character) {
                          return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
                      });
    if (!good) {
        wrong(key, node, fmt::format("a string of 1 to {} bytes without control characters", longest));
    }
    return good ? std::optional(string->get()) : std::nullopt;
}

std::optional<std::uint64_t> fileReader::number(const std::string& key, const toml::node& node, std::uint64_t least,
                                                std::uint64_t most)
{
    const auto* integer = node.as_integer();
    const bool good = integer != nullptr && integer->get() >= 0 &&
                      static_cast<std::uint64_t>(integer->get()) >= least &&
                      static_cast<std::uint64_t>(integer->get()) <= most;
    if (!good) {
        wrong(key, node, fmt::format("an integer from {} to {}", least, most));
    }
    return good ? std::optional(static_cast<std::uint64_t>(integer->get())) : std::nullopt;
}

fileReader::keyReader fileReader::path(std::filesystem::path& target, std::size_t longest)
{
    return [this, &target, longest](const std::string& key, const toml::node& node) {
        if (const auto value = text(key, node, longest)) {
            const auto whole = (m_file.parent_path() / *value).lexically_normal();
            if (whole.string().size() > longest) {
                wrong(key, node, fmt::format("a path of at most {} bytes with the file's folder ahead of it", longest));
            } else {
                target = whole;
            }
        }
    };
}

template <typename Number>
fileReader::keyReader fileReader::integer(Number& target, std::uint64_t least, std::uint64_t most)
{
    return [this, &target, least, most](const std::string& key, const toml::node& node) {
        if (const auto value = number(key, node, least, most)) {
            target = static_cast<Number>(*value);
        }
    };
}

fileReader::keyReader fileReader::truth(bool& target)
{
    return [this, &target](const std::string& key, const toml::node& node) {
        if (const auto* value = node.as_boolean()) {
            target = value->get();
        } else {
            wrong(key, node, "true or false");
        }
    };
}

fileReader::keyReader fileReader::accounts(std::vector<std::string>& target)
{
    return [this, &target](const std::string& key, const toml::node& node) {
        if (const toml::array* list = node.as_array()) {
            for (const toml::node& account : *list) {
                if (account.is_integer()) {
                    if (const auto value = number(key, account, 0, UINT32_MAX - 1)) {
                        target.push_back(std::to_string(*value));
                    }
                } else if (const auto name = text(key, account, longestAccountBytes)) {
                    target.push_back(*name);
                }
            }
        } else {
            wrong(key, node, "a list of names or numbers");
        }
    };
}

fileReader::keyReader fileReader::tableOf(std::vector<keyRow> rows)
{
    return [this, rows = std::move(rows)](const std::string& key, const toml::node& node) { section(key, node, rows); };
}

void fileReader::readRegistry(const std::string& key, const toml::node& node)
{
    if (const toml::table* table = node.as_table()) {
        for (const auto& [name, value] : *table) {
            if (const auto found = text(fmt::format("{}.{}", key, name.str()), value, longestRegistryText)) {
                m_target.registry[std::string(name.str())] = *found;
            }
        }
    } else {
        wrong(key, node, "a table");
    }
}

void fileReader::readNodes(const std::string& key, const toml::node& node)
{
    static constexpr std::array<std::string_view, 8> numbers{"0", "1", "2", "3", "4", "5", "6", "7"};
    std::vector<keyRow> rows;
    for (std::size_t index = 0; index < numbers.size(); ++index) {
        rows.push_back({numbers[index], [this, index](const std::string& whole, const toml::node& value) {
                            readNode(whole, value, m_target.nodes[index]);
                        }});
    }
    section(key, node, rows);
}

void fileReader::readNode(const std::string& key, const toml::node& node, nodeMapping& target)
{
    constexpr std::string_view simulated = "sim:";
    if (const auto value = text(key, node, longestPathBytes)) {
        if (value->starts_with(simulated) && value->size() > simulated.size()) {
            target.simNode = value->substr(simulated.size());
        } else if (value->starts_with('/')) {
            target.pathPrefix = *value;
        } else {
            wrong(key, node, "\"sim:\" and the name of a simulated node, or an absolute path");
        }
    }
}

void fileReader::readDevices(const std::string& key, const toml::node& node)
{
    const toml::array* list = node.as_array();
    if (list == nullptr || !list->is_homogeneous(toml::node_type::table)) {
        wrong(key, node, "tables, each begun by [[device]]");
    } else {
        for (const toml::node& device : *list) {
            readDevice(key, *device.as_table());
        }
    }
}

void fileReader::readDevice(const std::string& key, const toml::table& table)
{
    deviceEntry device;
    const std::vector<keyRow> rows{
        {"number", integer(device.number, 0, UINT32_MAX)},
        {"position", integer(device.position, 0, UINT32_MAX)},
        {"location",
         [&](const std::string& whole, const toml::node& node) {
             device.location = text(whole, node, longestLocation).value_or("");
         }},
        {"name", [&](const std::string& whole, const toml::node& node) { readName(whole, node, device.name); }},
    };
    section(key, table, rows);
    if (!table.contains("number")) {
        fail(table.source().begin, key + ".number", fmt::format("an integer from 0 to {}", UINT32_MAX), "nothing");
    }
    if (!table.contains("location")) {
        fail(table.source().begin, key + ".location", "a device text", "nothing");
    }
    if (m_error.empty()) {
        checkUnique(key, table, device);
        m_target.devices.push_back(std::move(device));
    }
}

void fileReader::readName(const std::string& key, const toml::node& node, std::string& target)
{
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    constexpr std::string_view others = "0123456789._-";
    const auto* string = node.as_string();
    const std::string_view value = string != nullptr ? std::string_view(string->get()) : std::string_view();
    const auto isLetter = [&](char character) { return letters.find(character) != letters.npos; };
    if (!value.empty() && value.size() <= longestNameBytes && isLetter(value.front()) &&
        std::ranges::all_of(
            value, [&](char character) { return isLetter(character) || others.find(character) != others.npos; })) {
        target = value;
    } else {
        wrong(key, node, fmt::format("a letter and up to {} letters, digits, '.', '_' or '-'", longestNameBytes - 1));
    }
}

void fileReader::checkUnique(const std::string& key, const toml::table& table, const deviceEntry& device)
{
    for (const deviceEntry& other : m_target.devices) {
        if (other.number == device.number && other.position == device.position) {
            wrong(key + ".number", *table.get("number"),
                  fmt::format("a number that no other device has at position {}", device.position));
        }
        if (!device.name.empty() && other.name == device.name) {
            wrong(key + ".name", *table.get("name"), "a name that no other device has");
        }
    }
}

void fileReader::read(std::string_view source)
{
    configuration& target = m_target;
    bool fast = true;

    const keyReader clock = [&](const std::string& key, const toml::node& node) {
        const auto* value = node.as_string();
        if (value != nullptr && (value->get() == "fast" || value->get() == "real")) {
            fast = value->get() == "fast";
        } else {
            wrong(key, node, "\"fast\" or \"real\"");
        }
    };
    const std::vector<keyRow> rows{
        {"state", path(target.stateFolder)},
        {"trace", tableOf({{"folder", path(target.traceFolder)}})},
        {"errorlog", tableOf({{"max_entries", integer(target.errorLogMaxEntries, 1, 10'000'000)},
                              {"max_size", integer(target.errorLogMaxBytes, 1 << 20, 1ull << 40)},
                              {"spool", path(target.errorLogSpoolFolder)}})},
        {"registry", [this](const std::string& key, const toml::node& node) { readRegistry(key, node); }},
        {"nodes", [this](const std::string& key, const toml::node& node) { readNodes(key, node); }},
        {"device", [this](const std::string& key, const toml::node& node) { readDevices(key, node); }},
        {"machine", tableOf({{"folder", path(target.machineFolder)}, {"time", clock}})},
        {"linux",
         tableOf({{"set_timeout", truth(target.setAdapterTimeout)}, {"lock_folder", path(target.lockFolder)}})},
        {"service", tableOf({{"socket", path(target.service.socket, longestSocketBytes)},
                             {"max_clients", integer(target.service.maxClients, 1, 65536)},
                             {"max_clients_per_user", integer(target.service.maxClientsPerUser, 1, 65536)},
                             {"max_working", integer(target.service.maxWorking, 1, 1024)},
                             {"max_working_per_user", integer(target.service.maxWorkingPerUser, 1, 1024)},
                             {"max_payload", integer(target.service.maxPayloadBytes, 512, 16 << 20)},
                             {"idle_seconds", integer(target.service.idleSeconds, 0, UINT32_MAX / 1000)},
                             {"read_users", accounts(target.service.readUsers)},
                             {"read_groups", accounts(target.service.readGroups)},
                             {"write_users", accounts(target.service.writeUsers)},
                             {"write_groups", accounts(target.service.writeGroups)},
                             {"raw_users", accounts(target.service.rawUsers)},
                             {"raw_groups", accounts(target.service.rawGroups)}})},
    };
    if (const auto trouble = findTextTrouble(source)) {
        const toml::source_position at{static_cast<toml::source_index>(trouble->line),
                                       static_cast<toml::source_index>(trouble->column)};
        fail(at, keyOfLine(source, at.line), "plain TOML", std::string(trouble->what));
    } else {
        try {
            const toml::table table = toml::parse(source, m_file.string());
            section("", table, rows);
            target.machineRealTime = !fast;
        } catch (const toml::parse_error& problem) {
            const auto at = problem.source().begin;
            fail(at, keyOfLine(source, at.line), "no TOML: " + parsersWords(problem.description()));
        }
    }
}

/// @return the value of an environment variable, null when it is unset or empty or the process may not trust its
/// environment
const char* environment(const char* name)
{
    const char* value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

/// Where state lives when nothing is configured: the system's folder for root and for whoever has been given it, else
/// the user's own.
std::filesystem::path defaultStateFolder()
{
    const char* state = environment("XDG_STATE_HOME");
    const char* home = environment("HOME");
    std::filesystem::path folder;
    if (geteuid() == 0 || access(systemState, W_OK) == 0) {
        folder = systemState;
    } else if (state != nullptr && *state == '/') {
        folder = std::filesystem::path(state) / "kest";
    } else if (home != nullptr && *home == '/') {
        folder = std::filesystem::path(home) / ".local/state/kest";
    } else {
        folder = fmt::format("/var/tmp/kest-{}/state", geteuid());
    }
    return folder;
}

/// Fills in whatever the file left open and depends on other settings.
void complete(configuration& value)
{
    if (value.stateFolder.empty()) {
        value.stateFolder = defaultStateFolder();
    }
    if (value.traceFolder.empty()) {
        value.traceFolder = value.stateFolder / "trace";
    }
    if (value.lockFolder.empty()) {
        value.lockFolder = "/run/lock/kest";
    }
    if (value.errorLogSpoolFolder.empty()) {
        value.errorLogSpoolFolder = fmt::format("/var/tmp/kest-{}", geteuid());
    }
    if (value.service.socket.empty()) {
        value.service.socket = value.stateFolder == systemState ? systemSocket : value.stateFolder / "kestd.socket";
    }
    value.registry.try_emplace("tavo/ReadMode", "HWareMode");
}

/// Why a file could not be read. There is no key to name, so that it reads unlike what is wrong in a file.
std::string unreadable(const std::filesystem::path& file, int error)
{
    std::string why = std::strerror(error);
    if (error == EFBIG) {
        why = fmt::format("larger than {} bytes", longestFileBytes);
    } else if (error == EINVAL) {
        why = "not a regular file";
    }
    return fmt::format("{}: {}", file.string(), why);
}

/// One reading of the configuration: what references handed out point into.
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
    const reading* found = state.current.load(std::memory_order_acquire);
    if (found == nullptr) {
        bool first = false;
        {
            const std::scoped_lock lock(state.guard);
            found = state.current.load(std::memory_order_relaxed);
            first = found == nullptr;
            if (first) {
                found = &state.kept.emplace_back(readChosen(state.chosen));
                state.current.store(found, std::memory_order_release);
            }
        }
        if (first) {
            // without the lock: it takes another
            useTraceFolder(found->value.traceFolder);
        }
    }
    return *found;
}

} // namespace

configurationResult readConfiguration(const std::filesystem::path& file)
{
    configurationResult result;
    std::error_code ignored;
    std::filesystem::path whole = std::filesystem::absolute(file, ignored);
    std::vector<std::uint8_t> bytes;
    fileReader reader(whole.empty() ? file : whole, result.value);
    const int error = readFile(file, longestFileBytes, bytes);
    if (error == 0) {
        reader.read({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
    result.error = error == 0 ? reader.error() : unreadable(whole, error);
    if (result.error.empty()) {
        result.value.file = whole;
    } else {
        result.value = configuration();
    }
    complete(result.value);
    return result;
}

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
    std::string error;
    {
        const std::scoped_lock lock(state.guard);
        reading fresh = readChosen(state.chosen);
        error = fresh.error;
        traceFolder = fresh.value.traceFolder;
        if (error.empty()) {
            state.current.store(&state.kept.emplace_back(std::move(fresh)), std::memory_order_release);
        }
    }
    if (error.empty()) {
        useTraceFolder(traceFolder);
    }
    return error;
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
