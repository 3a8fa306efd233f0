#include "tools/kestctl/complete.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>

#include "platform/host/configuration/configuration.h"

namespace kest::tools
{
namespace
{

constexpr const char* linuxBuses = "/dev/i2c-";

/// Values that are always the same, by the name that the help gives them.
struct fixedWords {
    std::string_view value;
    std::string_view words; ///< with a blank behind each
};
constexpr std::array fixedValues{
    fixedWords{.value = "MODE", .words = "hardware file mixed registry "},
    fixedWords{.value = "WHEN", .words = "auto always never "},
    fixedWords{.value = "NODE", .words = "L 0 1 2 3 4 5 6 7 "},
    fixedWords{.value = "OPERATION", .words = "low high on off blink0 blink1 copy "},
    fixedWords{.value = "FUNCTION", .words = "input output prescaler0 duty0 prescaler1 duty1 polarity0 polarity1 "},
    fixedWords{.value = "FORMAT", .words = "tlvinfo fru "},
    fixedWords{.value = "WAY", .words = "read write "},
    fixedWords{.value = "KIND",
               .words = "nack nack-data hold-sda hold-scl short arbitration corrupt stuck-write-cycle gone hub-status "
                        "hub-silent hub-bad-first-byte hub-hold-sda hub-hold-scl power-cut "},
};

void addFixed(std::string_view words, std::vector<std::string>& to)
{
    while (!words.empty()) {
        const std::size_t blank = words.find(' ');
        to.emplace_back(words.substr(0, blank));
        words.remove_prefix(blank + 1);
    }
}

void addDevices(std::vector<std::string>& to)
{
    for (const host::deviceEntry& entry : host::currentConfiguration().devices) {
        to.push_back(entry.name.empty() ? std::to_string(entry.number) : entry.name);
    }
}

/// The kernel's adapters that are there, and the buses of the device table. The machine is not opened for more.
void addBuses(std::vector<std::string>& to)
{
    for (const host::deviceEntry& entry : host::currentConfiguration().devices) {
        to.push_back(entry.location.substr(0, entry.location.find_first_of(",@")));
    }
    std::error_code error;
    for (std::filesystem::directory_iterator file("/dev", error), end; !error && file != end; file.increment(error)) {
        if (file->path().native().starts_with(linuxBuses)) {
            to.push_back(file->path().native());
        }
    }
}

/// @param value  its name in the help
void addValues(const std::string& value, std::vector<std::string>& to)
{
    const auto* fixed = std::ranges::find(fixedValues, value, &fixedWords::value);
    if (fixed != fixedValues.end()) {
        addFixed(fixed->words, to);
    } else if (value == "DEVICE" || value == "COPY") {
        addDevices(to);
    } else if (value == "BUS") {
        addBuses(to);
    } else if (value == "FILE" || value == "PATH" || value == "OTHER") {
        to.emplace_back(":files");
    } else if (value == "DIR" || value == "DIRECTORY") {
        to.emplace_back(":folders");
    }
}

/// The configuration that the command line names.
void useNamedConfiguration(const std::vector<std::string>& words)
{
    constexpr std::string_view option = "--config";
    for (std::size_t at = 0; at + 1 < words.size(); ++at) {
        if (words[at] == option) {
            host::useConfigurationFile(words[at + 1]);
        } else if (words[at].starts_with(option) && words[at].substr(option.size(), 1) == "=") {
            host::useConfigurationFile(words[at].substr(option.size() + 1));
        }
    }
}

bool staysOneLine(const std::string& word)
{
    return std::ranges::none_of(
        word, [](char letter) { return static_cast<unsigned char>(letter) < ' ' || letter == '\x7F'; });
}

} // namespace

std::vector<std::string> completionLines(const commandLine& line, const std::vector<std::string>& words)
{
    useNamedConfiguration(words);
    const commandLine::completion due = line.complete(words);
    std::vector<std::string> candidates = due.words;
    addValues(due.value, candidates);
    const std::string& typed = words.empty() ? std::string() : words.back();
    std::vector<std::string> lines;
    for (const std::string& each : candidates) {
        const bool forShell = each.starts_with(':');
        const std::string whole = forShell ? each : due.before + each;
        if (forShell || (whole.starts_with(typed) && staysOneLine(whole))) {
            lines.push_back(whole);
        }
    }
    std::ranges::sort(lines);
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}

} // namespace kest::tools
