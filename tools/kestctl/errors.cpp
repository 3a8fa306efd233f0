#include "tools/kestctl/errors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fmt/core.h>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>

#include "platform/errl.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/store.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/json.h"
#include "tools/common/output.h"
#include "tools/common/outputfile.h"
#include "tools/common/preferences.h"
#include "tools/common/when.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/errorjson.h"
#include "tools/kestctl/errortext.h"

namespace kest::tools
{
namespace
{

/// The entries to choose.
struct errorsFilter {
    std::string since; ///< date, time or "2h"; empty: all
    std::optional<std::uint32_t> severity;
    std::optional<std::uint32_t> component;
    std::uint32_t limit = 0; ///< the latest so many; 0 all
};

struct errorsListOptions {
    errorsFilter filter;
};

struct errorsShowOptions {
    std::string id; ///< number, or "last"
};

struct errorsExportOptions {
    errorsFilter filter;
    std::string file = "-";
};

struct errorsClearOptions {
    bool yes = false;
};

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

/// Whether this user may read the log's files. A missing file counts as readable.
bool mayReadLog()
{
    const std::filesystem::path& folder = host::currentConfiguration().stateFolder;
    return std::ranges::all_of(std::array{"errors.db", "errors.spool"}, [&folder](const char* name) {
        return access((folder / name).c_str(), R_OK) == 0 || errno != EACCES;
    });
}

/// The log's entries. If some can't be read, that is reported, the exit code changes, and the rest is shown. Throws a
/// `failure` when this user may read none of them.
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

/// A file that is written whole or not at all; for "-" standard output.
class exportFile
{
public:
    explicit exportFile(const std::string& name)
    {
        if (name != "-") {
            m_file.emplace(name, "export");
        }
    }
    void line(const jsonValue& value)
    {
        const std::string text = value.dump(-1) + "\n";
        if (m_file) {
            m_file->write(std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
        } else if (!preferred().dryRun) {
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

/// Whether this user may change the log's files. Where there is no database, there is nothing to change.
bool mayChangeLog()
{
    const std::filesystem::path& folder = host::currentConfiguration().stateFolder;
    const std::filesystem::path database = folder / "errors.db";
    return access(database.c_str(), W_OK) == 0 ? access(folder.c_str(), W_OK | X_OK) == 0 : errno == ENOENT;
}

int runErrorsList(const context& shared, const errorsListOptions& options)
{
    int code = exitDone;
    const auto entries = entriesOf(storeFilter(options.filter), code);
    if (shared.json) {
        jsonList rows;
        for (const host::loggedEntry& entry : entries) {
            rows.push_back(headJson(entry));
        }
        standardOutput().json({{"entries", rows}});
    } else if (entries.empty()) {
        const errorsFilter& filter = options.filter;
        const bool all = filter.since.empty() && !filter.severity && !filter.component;
        // otherwise it is not known whether there are any
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

/// Writes whole entries as JSON lines, oldest first.
int runErrorsExport(const context& shared, const errorsExportOptions& options)
{
    int code = exitDone;
    const auto entries = entriesOf(storeFilter(options.filter), code);
    exportFile file(options.file);
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        file.line(entryJson(*entry));
    }
    file.finish();
    if (preferred().dryRun) {
        reportWould(shared, {{"file", options.file}, {"entries", entries.size()}},
                    fmt::format("{} entries would be written to {}", entries.size(),
                                options.file == "-" ? "standard output" : escaped(options.file)));
    } else if (options.file != "-" && shared.json) {
        standardOutput().json({{"file", options.file}, {"entries", entries.size()}});
    } else if (options.file != "-") {
        standardOutput().text(fmt::format("{} entries written to {}\n", entries.size(), escaped(options.file)));
    }
    return code;
}

/// What clearing would do.
int rehearseClear(const context& shared)
{
    int code = exitDone;
    const std::size_t entries = entriesOf({}, code).size();
    if (!mayChangeLog()) {
        throw failure{.code = exitRefused, .what = std::strerror(EACCES), .step = "clear the error log"};
    }
    reportWould(shared, {{"cleared", false}, {"entries", entries}},
                fmt::format("{} error {} would be deleted", entries, entries == 1 ? "entry" : "entries"));
    return code;
}

int runErrorsClear(const context& shared, const errorsClearOptions& options)
{
    if (preferred().dryRun) {
        return rehearseClear(shared);
    }
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

std::uint32_t severityOf(const std::string& text)
{
    if (text == "recovered") {
        return ERRL_SEV_RECOVERED;
    }
    if (text == "unrecovered") {
        return ERRL_SEV_UNRECOVERED;
    }
    constexpr std::uint64_t highestSeverity = 0xFF;
    return static_cast<std::uint32_t>(parseNumber(text, "--severity", highestSeverity));
}

void addFilter(command verb, errorsFilter& filter)
{
    constexpr std::uint64_t highestComponent = 0xFFFF;
    verb.text("--since", filter.since, "committed at this time or later: 2024-05-01, 2024-05-01T12:00:00Z, 15m, 2h, 7d",
              "TIME");
    verb.read(
        "--severity", [&filter](const std::string& text) { filter.severity = severityOf(text); },
        "recovered, unrecovered, or a number", "NAME");
    verb.read(
        "--component",
        [&filter](const std::string& text) {
            filter.component = static_cast<std::uint32_t>(parseNumber(text, "--component", highestComponent));
        },
        "made by this component; 0x1300 is the library", "N");
    verb.number("--last", filter.limit, "only the latest N", 1);
}

} // namespace

void addErrors(command program, context& shared)
{
    const command area = addArea(program, "errors", "the error log: what failed, where and why");

    const auto listing = std::make_shared<errorsListOptions>();
    const command list = addVerb(area, "list", "list entries, latest first");
    addFilter(list, listing->filter);
    runs(list, shared, listing, runErrorsList);

    const auto showing = std::make_shared<errorsShowOptions>();
    command show = addVerb(area, "show", "show a whole entry: reasons, callouts, user details, traces");
    show.text("ID", showing->id, "number of the entry, or 'last'", "").required();
    runs(show, shared, showing, runErrorsShow);

    const auto exporting = std::make_shared<errorsExportOptions>();
    command exported = addVerb(area, "export", "write whole entries as JSON, one per line, oldest first");
    exported.text("FILE", exporting->file, "file to write; - or none: standard output", "");
    addFilter(exported, exporting->filter);
    addDryRun(exported);
    runs(exported, shared, exporting, runErrorsExport);

    const auto clearing = std::make_shared<errorsClearOptions>();
    command clear = addVerb(area, "clear", "delete all entries; asks first");
    clear.flag("--yes", clearing->yes, "do not ask");
    addDryRun(clear);
    runs(clear, shared, clearing, runErrorsClear);
}

} // namespace kest::tools
