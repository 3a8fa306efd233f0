/// Commits of error entries a second, against SQLite alone, which inserts and commits the same rows, with the same
/// indexes and settings, by prepared statements.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "bench/scratchfolder.h"
#include "platform/errl.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/errorlog/entrystore.h"
#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/sqlite/layout.h"
#include "platform/host/errorlog/store.h"
#include "platform/trace.h"

namespace
{

constexpr int rounds = 60;
constexpr int entriesPerRound = 100;
constexpr int curveRounds = 15;

using entries = std::vector<std::unique_ptr<ErrlEntry>>;

double seconds(std::chrono::steady_clock::duration time) { return std::chrono::duration<double>(time).count(); }

void require(bool good, const std::string& what)
{
    if (!good) {
        std::cerr << "errorlog_bench: " << what << '\n';
        std::exit(1);
    }
}

/// @return an entry like that of a failed read: two SRCs, callouts, the texts of its device, traces
std::unique_ptr<ErrlEntry> typicalEntry()
{
    std::unique_ptr<ErrlEntry> entry(new ErrlEntry(0x1300, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE,
                                                   SRCI_TYPE_SERVICE_PROCESSOR, 0, 13, SERVICE_CODE_KEST, 0x1311, 6, 0,
                                                   256, 0, EPUB_SUBSYSTEM_IIC_DEVICE, SRCI_TERM_NONE));
    entry->CollectTrace("IIC", 500);
    entry->CollectTrace("kest", 500);
    entry->addUsrDtls("kestwobu.cpp", 12, 0x1300, 1, 2);
    entry->setRC(0x40001311);
    entry->addProcedureCallout(SRCI_PRIORITY_HIGH, EPUB_PROCEDURE_IIC);
    entry->addSRC(0x1300, SRCI_TYPE_SERVICE_PROCESSOR, 0, 15, SERVICE_CODE_KEST, 0x1312, 6, 0, 256, 0,
                  EPUB_SUBSYSTEM_IIC_DEVICE);
    entry->CollectTrace("kest", 500);
    entry->addUsrDtls("kestseeprom.cpp", 15, 0x1300, 1, 2);
    entry->addUsrDtls("/dev/i2c-1,local,1.3", 20, 0x1300, 1, 7);
    entry->addSwErr(0x1300, 0x40001311, 15, 120, 0);
    entry->addProcedureCallout(SRCI_PRIORITY_HIGH, EPUB_PROCEDURE_SOFTWARE);
    return entry;
}

void fillTraces()
{
    for (const char* name : {"IIC", "kest"}) {
        trace_wobu_descriptor ring = nullptr;
        require(trace_wobu_init_buffer(&ring, name, 8092) == 0, "no trace buffer");
        for (int line = 0; line < 50; ++line) {
            trace_wobu_write_all(ring, 0x12345678, " %s,%d,%d", line, 0, "kest_wobuRead", 256, line);
        }
    }
}

/// SQLite by itself, with the error log's rows, indexes and settings, and a prepared statement for each.
class bareStore
{
public:
    explicit bareStore(const std::filesystem::path& file)
    {
        require(sqlite3_open_v2(file.c_str(), &m_connection,
                                SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr) == SQLITE_OK,
                "SQLite does not open");
        run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL");
        for (const kest::host::layoutObject& each : kest::host::layout) {
            if (std::string_view(each.type) != "trigger") {
                run(each.text);
            }
        }
        run("INSERT INTO totals VALUES(0, 0)");
        m_begin = prepared("BEGIN IMMEDIATE");
        m_insert = prepared("INSERT INTO entries(plid, committed_ms, severity, component, body) VALUES(?, ?, ?, ?, ?)");
        m_count = prepared("UPDATE totals SET entries = entries + 1, bytes = bytes + ?");
        m_commit = prepared("COMMIT");
    }
    bareStore(const bareStore&) = delete;
    bareStore& operator=(const bareStore&) = delete;
    ~bareStore()
    {
        for (sqlite3_stmt* statement : {m_begin, m_insert, m_count, m_commit}) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(m_connection);
    }
    void add(const kest::host::entryRow& row)
    {
        sqlite3_bind_int64(m_insert, 1, row.keys.plid);
        sqlite3_bind_int64(m_insert, 2, row.keys.committedMs);
        sqlite3_bind_int64(m_insert, 3, row.keys.severity);
        sqlite3_bind_int64(m_insert, 4, row.keys.creator);
        sqlite3_bind_text64(m_insert, 5, row.line.data(), row.line.size(), SQLITE_STATIC, SQLITE_UTF8);
        sqlite3_bind_int64(m_count, 1, static_cast<std::int64_t>(row.line.size()));
        for (sqlite3_stmt* statement : {m_begin, m_insert, m_count, m_commit}) {
            require(sqlite3_step(statement) == SQLITE_DONE, sqlite3_errmsg(m_connection));
            sqlite3_reset(statement);
        }
    }

private:
    void run(const char* text)
    {
        require(sqlite3_exec(m_connection, text, nullptr, nullptr, nullptr) == SQLITE_OK, sqlite3_errmsg(m_connection));
    }
    sqlite3_stmt* prepared(const char* text)
    {
        sqlite3_stmt* statement = nullptr;
        require(sqlite3_prepare_v2(m_connection, text, -1, &statement, nullptr) == SQLITE_OK,
                sqlite3_errmsg(m_connection));
        return statement;
    }
    sqlite3* m_connection = nullptr;
    sqlite3_stmt* m_begin = nullptr;
    sqlite3_stmt* m_insert = nullptr;
    sqlite3_stmt* m_count = nullptr;
    sqlite3_stmt* m_commit = nullptr;
};

entries makeBatch()
{
    entries made;
    for (int number = 0; number < entriesPerRound; ++number) {
        made.push_back(typicalEntry());
    }
    return made;
}

double commitAll(const entries& some)
{
    const auto begin = std::chrono::steady_clock::now();
    for (const auto& entry : some) {
        entry->commit(0x1300, ERRL_ACTION_REPORT);
    }
    return seconds(std::chrono::steady_clock::now() - begin);
}

/// The lines are formed before the clock runs.
double addAll(bareStore& bare, const entries& some)
{
    std::vector<std::string> lines;
    std::vector<kest::host::entryRow> rows;
    lines.reserve(some.size());
    for (const auto& entry : some) {
        const kest::host::loggedEntry facts = kest::host::describeEntry(*entry);
        lines.push_back(kest::host::toLine(facts));
        rows.push_back({kest::host::keysOf(facts), lines.back()});
    }
    const auto begin = std::chrono::steady_clock::now();
    for (const kest::host::entryRow& row : rows) {
        bare.add(row);
    }
    return seconds(std::chrono::steady_clock::now() - begin);
}

struct figures {
    std::vector<double> ratios;
    std::vector<double> oursSeconds;
    std::vector<double> bareSeconds;
};

/// Both stores take the same entries, in turns, so that other work of the machine slows both.
figures measure(const std::filesystem::path& folder)
{
    bareStore bare(folder / "bare.db");
    figures found;
    for (int round = 0; round <= rounds; ++round) {
        const entries some = makeBatch();
        // each is first every other time: the second finds the processor warm
        const bool oursFirst = round % 2 == 0;
        double ours = oursFirst ? commitAll(some) : 0;
        const double floor = addAll(bare, some);
        ours = oursFirst ? ours : commitAll(some);
        // the first round makes the files and does not count
        if (round > 0) {
            found.ratios.push_back(floor / ours);
            found.oursSeconds.push_back(ours);
            found.bareSeconds.push_back(floor);
        }
    }
    return found;
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Commits a second with more and more entries in the log.
nlohmann::json measureCurve(const std::filesystem::path& database)
{
    commitAll(makeBatch());
    sqlite3* connection = nullptr;
    require(sqlite3_open(database.c_str(), &connection) == SQLITE_OK, "SQLite does not open");
    nlohmann::json points = nlohmann::json::array();
    std::size_t held = entriesPerRound;
    for (const std::size_t wanted : {10000U, 50000U, 100000U, 200000U}) {
        // the rows of entries that were committed, again and again
        const std::string fill = "INSERT INTO entries(plid, committed_ms, severity, component, body) WITH RECURSIVE "
                                 "n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                                 std::to_string(wanted - held) +
                                 ") SELECT plid, committed_ms, severity, component, body FROM n JOIN entries ON id = "
                                 "1 + i % 100; PRAGMA wal_checkpoint(TRUNCATE)";
        require(sqlite3_exec(connection, fill.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
                sqlite3_errmsg(connection));
        std::vector<double> times;
        for (int round = 0; round < curveRounds; ++round) {
            times.push_back(commitAll(makeBatch()));
        }
        points.push_back({wanted, entriesPerRound / median(times)});
        held = wanted + curveRounds * entriesPerRound;
    }
    sqlite3_close(connection);
    return points;
}

/// In memory where there is such a folder: it is the work that is measured, and not a disk.
std::filesystem::path placeOfWork()
{
    const std::filesystem::path memory = "/dev/shm";
    return access(memory.c_str(), W_OK) == 0 ? memory : std::filesystem::temp_directory_path();
}

} // namespace

// With an argument it measures the curve instead.
int main(int argc, char**)
{
    const kest::bench::scratchFolder scratch(placeOfWork());
    const std::filesystem::path& folder = scratch.path();
    std::ofstream(folder / "kest.toml")
        << "state = \"state\"\nerrorlog.max_entries = 1000000\nerrorlog.max_size = 1073741824\n";
    require(kest::host::useConfigurationFile(folder / "kest.toml"), "the configuration has been read already");

    fillTraces();
    nlohmann::json told;
    if (argc > 1) {
        told["curve.errorlog.commits_per_s"] = measureCurve(folder / "state" / "errors.db");
    } else {
        const figures found = measure(folder);
        const kest::host::entryList list = kest::host::listEntries();
        require(list.error.empty() && list.entries.size() == (rounds + 1) * entriesPerRound, "entries are missing");
        told = {{"errorlog.commits_ratio", median(found.ratios)},
                {"errorlog.commits_per_s", entriesPerRound / median(found.oursSeconds)},
                {"errorlog.bare_commits_per_s", entriesPerRound / median(found.bareSeconds)}};
    }
    std::cout << told << '\n';
    return 0;
}
