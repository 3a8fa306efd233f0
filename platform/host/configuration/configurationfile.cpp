#include "platform/host/configuration/configurationfile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <string_view>

#include "base/duration.h"
#include "base/files.h"
#include "platform/host/configuration/deviceplace.h"
#include "platform/host/configuration/expectation.h"
#include "platform/host/configuration/tomlreader.h"

namespace kest::host
{

namespace
{

constexpr std::size_t longestFileBytes = 1 << 20;
// what a socket address holds
constexpr std::size_t longestSocketBytes = 107;
constexpr std::size_t longestLocation = 255;
constexpr std::size_t longestNameBytes = 63;
constexpr std::size_t longestRegistryText = 4096;

/// Reads one file into a configuration.
class fileReader
{
public:
    fileReader(const std::filesystem::path& file, configuration& target) : m_reader(file), m_target(target) {}

    void read(std::string_view text);
    [[nodiscard]] const std::string& error() const { return m_reader.error(); }

private:
    void readRegistry(const std::string& key, const toml::node& node);
    void readNodes(const std::string& key, const toml::node& node);
    void readNode(const std::string& key, const toml::node& node, nodeMapping& target);
    void readDevices(const std::string& key, const toml::node& node);
    void readDevice(const std::string& key, const toml::table& table);
    void readName(const std::string& key, const toml::node& node, std::string& target);
    void checkUnique(const std::string& key, const toml::table& table, const deviceEntry& device);
    void checkPlaces();
    void readTime(const std::string& key, const toml::node& node);
    tomlReader::keyReader defaults();

    tomlReader m_reader;
    configuration& m_target;
    std::vector<toml::source_position> m_locations; ///< of each device of the target
    bool m_realTime = false;
};

void fileReader::readRegistry(const std::string& key, const toml::node& node)
{
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        m_reader.wrong(key, node, "a table");
        return;
    }
    for (const auto& [name, value] : *table) {
        if (const auto found = m_reader.text(fmt::format("{}.{}", key, name.str()), value, longestRegistryText)) {
            m_target.registry[std::string(name.str())] = *found;
        }
    }
}

void fileReader::readNodes(const std::string& key, const toml::node& node)
{
    static constexpr std::array<std::string_view, 8> numbers{"0", "1", "2", "3", "4", "5", "6", "7"};
    std::vector<tomlReader::keyRow> rows;
    for (std::size_t index = 0; index < numbers.size(); ++index) {
        rows.push_back({numbers[index], [this, index](const std::string& whole, const toml::node& value) {
                            readNode(whole, value, m_target.nodes[index]);
                        }});
    }
    m_reader.section(key, node, rows);
}

void fileReader::readNode(const std::string& key, const toml::node& node, nodeMapping& target)
{
    constexpr std::string_view simulated = "sim:";
    const auto value = m_reader.text(key, node, longestPathBytes);
    if (!value) {
        return;
    }
    if (value->starts_with(simulated) && value->size() > simulated.size()) {
        target.simNode = value->substr(simulated.size());
    } else if (value->starts_with('/')) {
        target.pathPrefix = *value;
    } else {
        m_reader.wrong(key, node, "\"sim:\" and the name of a simulated node, or an absolute path");
    }
}

void fileReader::readDevices(const std::string& key, const toml::node& node)
{
    const toml::array* list = node.as_array();
    if (list == nullptr || !list->is_homogeneous(toml::node_type::table)) {
        m_reader.wrong(key, node, "tables, each begun by [[device]]");
        return;
    }
    for (const toml::node& device : *list) {
        readDevice(key, *device.as_table());
    }
}

void fileReader::readDevice(const std::string& key, const toml::table& table)
{
    deviceEntry device;
    const std::vector<tomlReader::keyRow> rows{
        {"number", m_reader.integer(device.number, 0, UINT32_MAX)},
        {"position", m_reader.integer(device.position, 0, UINT32_MAX)},
        {"location",
         [&](const std::string& whole, const toml::node& node) {
             device.location = m_reader.text(whole, node, longestLocation).value_or("");
         }},
        {"name", [&](const std::string& whole, const toml::node& node) { readName(whole, node, device.name); }},
        {"expect", expectation(m_reader, device)},
        {"width_proved", m_reader.truth(device.widthProved)},
    };
    m_reader.section(key, table, rows);
    if (!table.contains("number")) {
        m_reader.fail(table.source().begin, key + ".number", fmt::format("an integer from 0 to {}", UINT32_MAX),
                      "nothing");
    }
    if (!table.contains("location")) {
        m_reader.fail(table.source().begin, key + ".location", "a device text", "nothing");
    }
    if (m_reader.error().empty()) {
        checkUnique(key, table, device);
        m_locations.push_back(table.get("location")->source().begin);
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
        m_reader.wrong(key, node,
                       fmt::format("a letter and up to {} letters, digits, '.', '_' or '-'", longestNameBytes - 1));
    }
}

void fileReader::checkUnique(const std::string& key, const toml::table& table, const deviceEntry& device)
{
    for (const deviceEntry& other : m_target.devices) {
        if (other.number == device.number && other.position == device.position) {
            m_reader.wrong(key + ".number", *table.get("number"),
                           fmt::format("a number that no other device has at position {}", device.position));
        }
        if (!device.name.empty() && other.name == device.name) {
            m_reader.wrong(key + ".name", *table.get("name"), "a name that no other device has");
        }
    }
}

/// Finds devices, or hubs on the way to them, that are at one place with different types. One of the two rows is wrong,
/// and a transfer by the wrong one can change the content of the chip.
void fileReader::checkPlaces()
{
    struct firstUse {
        std::uint32_t type;
        std::size_t row;
    };
    const auto label = [this](std::size_t row) {
        const deviceEntry& device = m_target.devices.at(row);
        return device.name.empty() ? fmt::format("device 0x{:X}", device.number) : device.name;
    };
    std::map<std::string, firstUse> known;
    for (std::size_t row = 0; row < m_target.devices.size(); ++row) {
        for (placedType& each : placesOf(m_target.devices[row].location, m_target.nodes)) {
            const auto [found, isNew] = known.try_emplace(std::move(each.place), firstUse{each.type, row});
            const firstUse& first = found->second;
            if (!isNew && first.type != each.type) {
                m_reader.fail(m_locations.at(row), "device.location",
                              fmt::format("{} has type {:X} at the place where {} (line {}) has type {:X}", label(row),
                                          each.type, label(first.row), m_locations.at(first.row).line, first.type));
            }
        }
    }
}

void fileReader::readTime(const std::string& key, const toml::node& node)
{
    const auto* value = node.as_string();
    if (value != nullptr && (value->get() == "fast" || value->get() == "real")) {
        m_realTime = value->get() == "real";
    } else {
        m_reader.wrong(key, node, "\"fast\" or \"real\"");
    }
}

tomlReader::keyReader fileReader::defaults()
{
    commandDefaults& target = m_target.defaults;
    const auto colour = [this, &target](const std::string& key, const toml::node& node) {
        const auto* value = node.as_string();
        if (value != nullptr && (value->get() == "auto" || value->get() == "always" || value->get() == "never")) {
            target.colour = value->get();
        } else {
            m_reader.wrong(key, node, "\"auto\", \"always\" or \"never\"");
        }
    };
    const auto votes = [this, &target](const std::string& key, const toml::node& node) {
        constexpr std::uint64_t mostReads = 15;
        const auto* value = node.as_integer();
        if (value != nullptr && value->get() >= 1 && value->get() <= static_cast<std::int64_t>(mostReads) &&
            value->get() % 2 == 1) {
            target.voted = static_cast<std::uint32_t>(value->get());
        } else {
            m_reader.wrong(key, node, "an odd integer from 1 to 15");
        }
    };
    return m_reader.tableOf({{"quiet", m_reader.truth(target.quiet)},
                             {"verbose", m_reader.integer(target.verbose, 0, 2)},
                             {"json", m_reader.truth(target.json)},
                             {"colour", colour},
                             {"timeout", m_reader.duration(target.timeoutNs, nsPerDay)},
                             {"wait", m_reader.duration(target.waitNs, nsPerDay)},
                             {"retries", m_reader.truth(target.retries)},
                             {"voted", votes},
                             {"verify", m_reader.truth(target.verify)}});
}

void fileReader::read(std::string_view source)
{
    configuration& target = m_target;
    const tomlReader::keyReader clock = [this](const std::string& key, const toml::node& node) { readTime(key, node); };
    const std::vector<tomlReader::keyRow> rows{
        {"state", m_reader.path(target.stateFolder)},
        {"trace", m_reader.tableOf({{"folder", m_reader.path(target.traceFolder)}})},
        {"errorlog", m_reader.tableOf({{"max_entries", m_reader.integer(target.errorLogMaxEntries, 1, 10'000'000)},
                                       {"max_size", m_reader.integer(target.errorLogMaxBytes, 1 << 20, 1ull << 40)},
                                       {"spool", m_reader.path(target.errorLogSpoolFolder)}})},
        {"wear", m_reader.tableOf({{"limit", m_reader.integer(target.wearLimit, 0, 1ull << 40)}})},
        {"undo", m_reader.tableOf({{"keep", m_reader.integer(target.undoKeep, 0, 1'000'000)},
                                   {"days", m_reader.integer(target.undoDays, 0, 100'000)}})},
        {"registry", [this](const std::string& key, const toml::node& node) { readRegistry(key, node); }},
        {"nodes", [this](const std::string& key, const toml::node& node) { readNodes(key, node); }},
        {"device", [this](const std::string& key, const toml::node& node) { readDevices(key, node); }},
        {"machine", m_reader.tableOf({{"folder", m_reader.path(target.machineFolder)}, {"time", clock}})},
        {"defaults", defaults()},
        {"linux", m_reader.tableOf({{"set_timeout", m_reader.truth(target.setAdapterTimeout)},
                                    {"lock_folder", m_reader.path(target.lockFolder)}})},
        {"service",
         m_reader.tableOf({{"socket", m_reader.path(target.service.socket, longestSocketBytes)},
                           {"max_clients", m_reader.integer(target.service.maxClients, 1, 65536)},
                           {"max_clients_per_user", m_reader.integer(target.service.maxClientsPerUser, 1, 65536)},
                           {"max_working", m_reader.integer(target.service.maxWorking, 1, 1024)},
                           {"max_working_per_user", m_reader.integer(target.service.maxWorkingPerUser, 1, 1024)},
                           {"max_payload", m_reader.integer(target.service.maxPayloadBytes, 512, 16 << 20)},
                           {"idle_seconds", m_reader.integer(target.service.idleSeconds, 0, UINT32_MAX / 1000)},
                           {"busy_seconds", m_reader.integer(target.service.busySeconds, 0, 3600)},
                           {"read_users", m_reader.accounts(target.service.readUsers)},
                           {"read_groups", m_reader.accounts(target.service.readGroups)},
                           {"write_users", m_reader.accounts(target.service.writeUsers)},
                           {"write_groups", m_reader.accounts(target.service.writeGroups)},
                           {"raw_users", m_reader.accounts(target.service.rawUsers)},
                           {"raw_groups", m_reader.accounts(target.service.rawGroups)}})},
    };
    if (m_reader.parse(source, rows)) {
        target.machineRealTime = m_realTime;
    }
    if (m_reader.error().empty()) {
        checkPlaces();
    }
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

} // namespace kest::host
