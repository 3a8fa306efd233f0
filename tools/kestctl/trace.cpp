#include "tools/kestctl/trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fmt/core.h>
#include <optional>

#include "base/hex.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/trace/reader.h"
#include "platform/host/trace/render.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/json.h"
#include "tools/common/output.h"
#include "tools/common/when.h"
#include "tools/kestctl/area.h"

namespace kest::tools
{
namespace
{

struct traceOptions {
    std::optional<std::uint32_t> pid; ///< one process
    std::string buffer; ///< one buffer: "kest", "IIC"; empty all
    std::uint32_t last = 0; ///< the latest so many records; 0 all
    bool list = false; ///< the rings, not their records
    std::string folder; ///< of rings to read instead of the configured one
};

constexpr std::int64_t nsPerMs = 1'000'000;
// shown of a binary record
constexpr std::size_t bytesOfBinary = 32;

struct shownRecord {
    host::ringInfo ring;
    host::traceRecord record;
};

/// Reports a file that could not be read. The rest is shown all the same, and the exit code is that of the first such
/// file.
void tell(const host::ringContents& ring, int& code)
{
    failure why = systemFailure(ring.errorNumber, "trace", ring.info.file.string());
    why.what = ring.error + "; left out";
    std::fputs((failureLine("kestctl", why) + "\n").c_str(), stderr);
    code = code == exitDone ? why.code : code;
}

std::vector<host::ringInfo> ringsOf(const traceOptions& options, int& code)
{
    const std::filesystem::path folder =
        options.folder.empty() ? host::currentConfiguration().traceFolder : std::filesystem::path(options.folder);
    std::error_code error;
    if (!options.folder.empty() && !std::filesystem::is_directory(folder, error)) {
        throw wrongUse("'" + options.folder + "' is no folder");
    }
    auto [rings, skipped] = host::listRingsAndOthers(folder);
    for (const host::ringContents& ring : skipped) {
        tell(ring, code);
    }
    std::erase_if(rings, [&options](const host::ringInfo& ring) {
        return (options.pid && ring.pid != *options.pid) || (!options.buffer.empty() && ring.buffer != options.buffer);
    });
    return rings;
}

jsonValue ringJson(const host::ringInfo& ring)
{
    return {{"process_id", ring.pid},
            {"process", ring.processName},
            {"alive", ring.alive},
            {"buffer", ring.buffer},
            {"created", timeText(static_cast<std::int64_t>(ring.createdNs) / nsPerMs)},
            {"file", ring.file.string()}};
}

jsonValue recordJson(const shownRecord& shown)
{
    const host::traceRecord& record = shown.record;
    jsonValue row{{"time_ns", record.timeNs},
                  {"process_id", shown.ring.pid},
                  {"process", shown.ring.processName},
                  {"buffer", shown.ring.buffer},
                  {"thread", record.thread},
                  {"hash", record.hash},
                  {"line", record.line},
                  {"cut", record.cut}};
    if (record.binary) {
        row.add("header", hexDigits(record.header));
        row.add("data", hexDigits(record.data));
        row.add("data_size", record.dataSize);
    } else {
        row.add("text", record.text);
    }
    return row;
}

void showRings(const context& shared, const std::vector<host::ringInfo>& rings)
{
    if (shared.json) {
        jsonList rows;
        for (const host::ringInfo& ring : rings) {
            rows.push_back(ringJson(ring));
        }
        standardOutput().json({{"rings", rows}});
        return;
    }
    for (const host::ringInfo& ring : rings) {
        standardOutput().text(fmt::format("{:>8} {:<16} {:<6} {:<8} {}\n", ring.pid, escaped(ring.processName),
                                          ring.alive ? "alive" : "ended", escaped(ring.buffer),
                                          timeText(static_cast<std::int64_t>(ring.createdNs) / nsPerMs)));
    }
}

/// The records of rings, oldest first.
std::vector<shownRecord> recordsOf(const std::vector<host::ringInfo>& rings, int& code)
{
    std::vector<shownRecord> records;
    for (const host::ringInfo& ring : rings) {
        host::ringContents contents = host::readRing(ring.file);
        // a process that begins to trace removes old rings: this one may be gone since it was listed
        if (!contents.error.empty() && contents.errorNumber != ENOENT) {
            tell(contents, code);
        }
        for (host::traceRecord& record : contents.records) {
            records.push_back({ring, std::move(record)});
        }
    }
    std::ranges::stable_sort(records, {}, [](const shownRecord& shown) { return shown.record.timeNs; });
    return records;
}

int runTrace(const context& shared, const traceOptions& options)
{
    int code = exitDone;
    const std::vector<host::ringInfo> rings = ringsOf(options, code);
    if (options.list) {
        showRings(shared, rings);
        return code;
    }
    std::vector<shownRecord> records = recordsOf(rings, code);
    if (options.last != 0 && records.size() > options.last) {
        records.erase(records.begin(), records.end() - options.last);
    }
    for (const shownRecord& shown : records) {
        if (shared.json) {
            standardOutput().json(recordJson(shown), -1);
        } else {
            standardOutput().text(fmt::format("{}/{} {:<4} {}\n", escaped(shown.ring.processName), shown.ring.pid,
                                              escaped(shown.ring.buffer),
                                              host::renderRecord(shown.record, bytesOfBinary)));
        }
    }
    return code;
}

} // namespace

void addTrace(command program, context& shared)
{
    const auto options = std::make_shared<traceOptions>();
    command verb = addVerb(program, "trace", "show the traces of running and ended processes, oldest first");
    verb.read(
        "--pid",
        [options](const std::string& text) {
            options->pid =
                static_cast<std::uint32_t>(parseNumber(text, "--pid", std::numeric_limits<std::uint32_t>::max()));
        },
        "only this process", "N");
    verb.text("--buffer", options->buffer, "only this buffer, such as kest or IIC", "NAME");
    verb.number("--last", options->last, "only the latest N records", 1);
    verb.flag("--list", options->list, "list processes and buffers instead");
    verb.text("--folder", options->folder, "read the rings in this folder", "DIR");
    runs(verb, shared, options, runTrace);
}

} // namespace kest::tools
