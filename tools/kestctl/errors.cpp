#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>

#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/store.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/outputfile.h"
#include "tools/common/when.h"
#include "tools/kestctl/codes.h"
#include "tools/kestctl/records.h"

namespace kest::tools
{
namespace
{

using nlohmann::ordered_json;

constexpr std::uint32_t wordModule = 1;
constexpr std::uint32_t wordReason = 2;
constexpr std::uint32_t wordSubsystem = 3;
constexpr std::uint32_t wordUserData = 4;

host::entryFilter storeFilter(const errorsFilter& wanted)
{
    host::entryFilter filter;
    if (!wanted.since.empty()) {
        filter.sinceMs = parseTime(wanted.since, "--since");
    }
    filter.severity = wanted.severity;
    if (wanted.component) {
        filter.component = static_cast<std::uint16_t>(*wanted.component);
    }
    filter.limit = wanted.limit;
    return filter;
}

/// Whether this user may read the log's files. One that is not there hinders nobody.
bool mayReadLog()
{
    const std::filesystem::path& folder = host::currentConfiguration().stateFolder;
    return std::ranges::all_of(std::array{"errors.db", "errors.spool"}, [&folder](const char* name) {
        return access((folder / name).c_str(), R_OK) == 0 || errno != EACCES;
    });
}

/// The log's entries; what is missing is told and spoils the exit code, but not the rest. Throws a `failure` when this
/// user may read none of them.
std::vector<host::loggedEntry> entriesOf(const host::entryFilter& filter, int& code)
{
    host::entryList list = host::listEntries(filter);
    if (!list.error.empty()) {
        failure why{.what = list.error, .step = "read the error log"};
        if (!mayReadLog()) {
            why.code = exitRefused;
            why.tryThis = "run it as a user who may read it";
        }
        if (why.code == exitRefused && list.entries.empty()) {
            throw why;
        }
        std::fputs((failureLine("kestctl", why) + "\n").c_str(), stderr);
        code = why.code;
    }
    return std::move(list.entries);
}

std::string hex(const std::vector<std::uint8_t>& bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += fmt::format("{:02x}", byte);
    }
    return text;
}

bool isText(const std::vector<std::uint8_t>& bytes)
{
    return !bytes.empty() && std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
}

std::string asText(const std::vector<std::uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

/// A code with its name: "0x1311 nothing answers".
std::string named(const std::string& number, const char* name) { return *name == 0 ? number : number + " " + name; }

/// The component whose module made an SRC.
std::uint32_t componentOf(const host::loggedSrc& src) { return src.words[wordModule] >> 16; }
std::uint32_t moduleOf(const host::loggedSrc& src) { return src.words[wordModule] & 0xFFFFU; }

ordered_json srcJson(const host::loggedSrc& src)
{
    const std::uint32_t module = moduleOf(src);
    return {{"words", src.words},
            {"creator", src.creator},
            {"module", module},
            {"module_name", moduleText(componentOf(src), module)},
            {"reason", src.words[wordReason]},
            {"reason_text", reasonText(src.words[wordReason])},
            {"subsystem", src.words[wordSubsystem]},
            {"user_data",
             {src.words[wordUserData], src.words[wordUserData + 1], src.words[wordUserData + 2],
              src.words[wordUserData + 3]}}};
}

template <typename Items, typename Show>
ordered_json listJson(const Items& items, Show show)
{
    ordered_json list = ordered_json::array();
    for (const auto& item : items) {
        list.push_back(show(item));
    }
    return list;
}

ordered_json headJson(const host::loggedEntry& entry)
{
    const std::string device = host::deviceOf(entry);
    return {{"id", entry.plid},
            {"committed", timeText(entry.committedMs)},
            {"created", timeText(entry.createdMs)},
            {"severity", entry.severity},
            {"return_code", entry.returnCode},
            {"creator", entry.creator},
            {"process", entry.process},
            {"process_id", entry.processId},
            {"action", entry.commitAction},
            {"device", device.empty() ? ordered_json(nullptr) : ordered_json(device)},
            {"reason", entry.srcs.empty() ? 0 : entry.srcs.front().words[wordReason]},
            {"reason_text", entry.srcs.empty() ? "" : reasonText(entry.srcs.front().words[wordReason])}};
}

ordered_json entryJson(const host::loggedEntry& entry)
{
    ordered_json result = headJson(entry);
    result["event_type"] = entry.eventType;
    result["incomplete"] = entry.incomplete;
    result["srcs"] = listJson(entry.srcs, srcJson);
    result["callouts"] = listJson(entry.callouts, [](const host::loggedCallout& callout) -> ordered_json {
        return {{"priority", callout.priority},
                {"procedure", callout.procedure},
                {"text", procedureText(callout.procedure)}};
    });
    result["fru_callouts"] = listJson(entry.fruCallouts, [](const host::loggedFruCallout& callout) -> ordered_json {
        return {{"priority", callout.priority}, {"fru", callout.fru}};
    });
    result["software_errors"] =
        listJson(entry.softwareErrors, [](const host::loggedSoftwareError& error) -> ordered_json {
            return {{"component", error.component},
                    {"return_code", error.returnCode},
                    {"module", error.word1},
                    {"site", error.word2}};
        });
    result["user_details"] = listJson(entry.userDetails, [](const host::loggedDetails& details) -> ordered_json {
        ordered_json row{{"component", details.component},
                         {"version", details.version},
                         {"subsection", details.subsection},
                         {"name", subsectionText(details.component, details.subsection)},
                         {"hex", hex(details.bytes)}};
        if (isText(details.bytes)) {
            row["text"] = asText(details.bytes);
        }
        return row;
    });
    result["traces"] = listJson(entry.traces, [](const host::loggedTrace& trace) -> ordered_json {
        return {{"buffer", trace.buffer}, {"text", trace.text}};
    });
    return result;
}

/// A text for people, escaped, that takes at most so many bytes: what is too long loses its middle, since both ends of
/// a device text tell devices apart.
std::string shortened(const std::string& text, std::size_t most)
{
    constexpr std::string_view gap = "...";
    const auto inside = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; };
    std::string shown = escaped(text);
    if (shown.size() <= most) {
        return shown;
    }
    std::size_t head = (most - gap.size()) / 2;
    std::size_t tail = shown.size() - (most - gap.size() - head);
    while (head > 0 && inside(shown[head])) {
        --head;
    }
    while (tail < shown.size() && inside(shown[tail])) {
        ++tail;
    }
    return shown.substr(0, head).append(gap).append(shown.substr(tail));
}

/// Two lines of at most 80 columns: reasons and device texts do not fit into one.
void showRow(const host::loggedEntry& entry)
{
    constexpr std::size_t deviceColumns = 38;
    const std::uint32_t reason = entry.srcs.empty() ? 0 : entry.srcs.front().words[wordReason];
    const std::string device = host::deviceOf(entry);
    standardOutput().text(fmt::format(
        "{} {:.19}  {:08X}  {}\n{:<11}{}\n", standardOutput().paint(colour::bold, fmt::format("0x{:08X}", entry.plid)),
        timeText(entry.committedMs), entry.returnCode, device.empty() ? "-" : shortened(device, deviceColumns), "",
        named(fmt::format("{:04X}", reason), reasonText(reason))));
}

void line(const std::string& name, const std::string& value)
{
    standardOutput().text(fmt::format("{:<16}{}\n", name, value));
}

void showSrc(std::size_t index, const host::loggedSrc& src)
{
    const std::uint32_t module = moduleOf(src);
    line(fmt::format("SRC {}", index + 1),
         named(fmt::format("0x{:04X}", src.words[wordReason]), reasonText(src.words[wordReason])));
    line("  module", named(std::to_string(module), moduleText(componentOf(src), module)));
    line("  subsystem",
         named(fmt::format("0x{:02X}", src.words[wordSubsystem]), subsystemText(src.words[wordSubsystem])));
    line("  user data", fmt::format("{:08X} {:08X} {:08X} {:08X}", src.words[wordUserData], src.words[wordUserData + 1],
                                    src.words[wordUserData + 2], src.words[wordUserData + 3]));
}

void showDetails(const host::loggedDetails& details)
{
    const std::string name = subsectionText(details.component, details.subsection);
    line("details " + std::to_string(details.subsection), name.empty() ? "user details" : name);
    if (isText(details.bytes)) {
        standardOutput().text("  " + escaped(asText(details.bytes)) + "\n");
        return;
    }
    constexpr std::size_t columns = 16;
    for (std::size_t at = 0; at < details.bytes.size(); at += columns) {
        const auto end = std::min(at + columns, details.bytes.size());
        std::string row = fmt::format("  {:04x} ", at);
        for (std::size_t index = at; index < end; ++index) {
            row += fmt::format(" {:02x}", details.bytes[index]);
        }
        standardOutput().text(row + "\n");
    }
}

/// Each line of a text, escaped and indented.
void showLines(const std::string& text)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        standardOutput().text("  " + escaped(line) + "\n");
    }
}

void showEntry(const host::loggedEntry& entry)
{
    line("entry", standardOutput().paint(colour::bold, fmt::format("0x{:08X}", entry.plid)));
    line("committed", timeText(entry.committedMs));
    line("severity", named(fmt::format("0x{:02X}", entry.severity), severityText(entry.severity)));
    line("return code", fmt::format("0x{:08X}", entry.returnCode));
    line("process", fmt::format("{} ({})", escaped(entry.process), entry.processId));
    line("commit action", fmt::format("0x{:04X}", entry.commitAction));
    for (std::size_t index = 0; index < entry.srcs.size(); ++index) {
        showSrc(index, entry.srcs[index]);
    }
    for (const host::loggedCallout& callout : entry.callouts) {
        line("callout", fmt::format("priority {}, procedure {}", callout.priority,
                                    named(std::to_string(callout.procedure), procedureText(callout.procedure))));
    }
    for (const host::loggedFruCallout& callout : entry.fruCallouts) {
        line("part callout", fmt::format("priority {}, device number 0x{:04X}", callout.priority, callout.fru));
    }
    for (const host::loggedSoftwareError& error : entry.softwareErrors) {
        line("step failed",
             fmt::format("return code 0x{:08X}, module {}, site {}", error.returnCode,
                         named(std::to_string(error.word1), moduleText(error.component, error.word1)), error.word2));
    }
    for (const host::loggedDetails& details : entry.userDetails) {
        showDetails(details);
    }
    for (const host::loggedTrace& trace : entry.traces) {
        line("trace", escaped(trace.buffer));
        showLines(trace.text);
    }
    if (entry.incomplete) {
        line("incomplete", "an item is missing for lack of memory");
    }
}

/// A file that is there whole or, for "-", standard output.
class exportFile
{
public:
    explicit exportFile(const std::string& name)
    {
        if (name != "-") {
            m_file.emplace(name, "export");
        }
    }
    void line(const ordered_json& value)
    {
        const std::string text = value.dump(-1, ' ', true, ordered_json::error_handler_t::replace) + "\n";
        if (m_file) {
            m_file->write(std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
        } else {
            standardOutput().text(text);
        }
    }
    void finish()
    {
        if (m_file) {
            m_file->finish();
        }
    }

private:
    std::optional<outputFile> m_file;
};

/// Whether this user may change the log's files.
bool mayChangeLog()
{
    const std::filesystem::path& folder = host::currentConfiguration().stateFolder;
    const std::filesystem::path database = folder / "errors.db";
    return access(folder.c_str(), W_OK | X_OK) == 0 && (access(database.c_str(), W_OK) == 0 || errno == ENOENT);
}

} // namespace

int runErrorsList(const context& shared, const errorsListOptions& options)
{
    int code = exitDone;
    const auto entries = entriesOf(storeFilter(options.filter), code);
    if (shared.json) {
        standardOutput().json({{"entries", listJson(entries, headJson)}});
    } else if (entries.empty()) {
        const errorsFilter& filter = options.filter;
        const bool all = filter.since.empty() && !filter.severity && !filter.component;
        // else nobody knows
        if (code == exitDone) {
            standardOutput().text(all ? "no error entries\n" : "no error entries match\n");
        }
    } else {
        standardOutput().text("entry      committed (UTC)      code      device\n           first reason\n");
        for (const host::loggedEntry& entry : entries) {
            showRow(entry);
        }
    }
    return code;
}

int runErrorsShow(const context& shared, const errorsShowOptions& options)
{
    int code = exitDone;
    host::entryFilter filter;
    if (options.id == "last") {
        filter.limit = 1;
    } else {
        filter.plid = static_cast<std::uint32_t>(parseNumber(options.id, "entry", 0xFFFFFFFF));
    }
    const auto entries = entriesOf(filter, code);
    if (entries.empty()) {
        throw failure{.code = exitFailed,
                      .what = "no such error entry",
                      .tryThis = "'kestctl errors list' shows them",
                      .device = options.id};
    }
    if (shared.json) {
        standardOutput().json(entryJson(entries.front()));
    } else {
        showEntry(entries.front());
    }
    return code;
}

int runErrorsExport(const context& shared, const errorsExportOptions& options)
{
    int code = exitDone;
    const auto entries = entriesOf(storeFilter(options.filter), code);
    exportFile file(options.file);
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        file.line(entryJson(*entry));
    }
    file.finish();
    if (options.file != "-" && shared.json) {
        standardOutput().json({{"file", options.file}, {"entries", entries.size()}});
    } else if (options.file != "-") {
        standardOutput().text(fmt::format("{} entries written to {}\n", entries.size(), escaped(options.file)));
    }
    return code;
}

int runErrorsClear(const context& shared, const errorsClearOptions& options)
{
    confirm("All error entries will be deleted.", options.yes);
    const std::string error = host::clearEntries();
    if (!error.empty()) {
        throw failure{.code = mayChangeLog() ? exitFailed : exitRefused, .what = error, .step = "clear the error log"};
    }
    if (shared.json) {
        standardOutput().json({{"cleared", true}});
    }
    return exitDone;
}

} // namespace kest::tools
