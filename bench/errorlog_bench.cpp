/// Commits of error entries a second, against SQLite alone, which inserts and commits the same bytes with the same
/// settings.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sqlite3.h>
#include <string>
#include <vector>

#include "platform/errl.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/errorlog/json.h"
#include "platform/host/errorlog/store.h"
#include "platform/trace.h"

namespace
{

constexpr int rounds = 20;
constexpr int entriesPerRound = 100;
// only the fastest rounds count: now and then a disk takes milliseconds for one request
constexpr int roundsThatCount = 18;

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

/// SQLite by itself, with the settings of the error log.
class bareStore
{
public:
    explicit bareStore(const std::filesystem::path& file)
    {
        require(sqlite3_open(file.c_str(), &m_connection) == SQLITE_OK, "SQLite does not open");
        run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; CREATE TABLE bare(id INTEGER PRIMARY KEY, body TEXT "
            "NOT NULL)");
        require(sqlite3_prepare_v2(m_connection, "INSERT INTO bare(body) VALUES(?)", -1, &m_insert, nullptr) ==
                    SQLITE_OK,
                "no statement");
    }
    bareStore(const bareStore&) = delete;
    bareStore& operator=(const bareStore&) = delete;
    ~bareStore()
    {
        sqlite3_finalize(m_insert);
        sqlite3_close(m_connection);
    }
    void add(const std::string& body)
    {
        sqlite3_bind_text64(m_insert, 1, body.data(), body.size(), SQLITE_STATIC, SQLITE_UTF8);
        require(sqlite3_step(m_insert) == SQLITE_DONE, sqlite3_errmsg(m_connection));
        sqlite3_reset(m_insert);
    }

private:
    void run(const char* text)
    {
        require(sqlite3_exec(m_connection, text, nullptr, nullptr, nullptr) == SQLITE_OK, sqlite3_errmsg(m_connection));
    }
    sqlite3* m_connection = nullptr;
    sqlite3_stmt* m_insert = nullptr;
};

/// Both stores take the same entries, in turns, so that other work of the disk slows both.
void measure(const std::filesystem::path& folder, std::vector<double>& oursSeconds, std::vector<double>& bareSeconds)
{
    bareStore bare(folder / "bare.db");
    for (int round = 0; round <= rounds; ++round) {
        entries ours;
        for (int number = 0; number < entriesPerRound; ++number) {
            ours.push_back(typicalEntry());
        }
        const auto begin = std::chrono::steady_clock::now();
        for (const auto& entry : ours) {
            entry->commit(0x1300, ERRL_ACTION_REPORT);
        }
        const auto middle = std::chrono::steady_clock::now();
        std::vector<std::string> bodies;
        for (const auto& entry : ours) {
            bodies.push_back(kest::host::toLine(kest::host::describeEntry(*entry)));
        }
        const auto bareBegin = std::chrono::steady_clock::now();
        for (const std::string& body : bodies) {
            bare.add(body);
        }
        // the first round makes the files and does not count
        if (round > 0) {
            oursSeconds.push_back(seconds(middle - begin));
            bareSeconds.push_back(seconds(std::chrono::steady_clock::now() - bareBegin));
        }
    }
}

double timeThatCounts(std::vector<double> rounds)
{
    std::ranges::sort(rounds);
    return std::accumulate(rounds.begin(), rounds.begin() + roundsThatCount, 0.0);
}

} // namespace

int main()
{
    std::string name = (std::filesystem::temp_directory_path() / "kest-bench-XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr, "no folder");
    const std::filesystem::path folder = name;
    std::ofstream(folder / "kest.toml")
        << "state = \"state\"\nerrorlog.max_entries = 1000000\nerrorlog.max_size = 1073741824\n";
    require(kest::host::useConfigurationFile(folder / "kest.toml"), "the configuration has been read already");

    std::vector<double> oursSeconds;
    std::vector<double> bareSeconds;
    fillTraces();
    measure(folder, oursSeconds, bareSeconds);
    const double ours = timeThatCounts(std::move(oursSeconds));
    const double bare = timeThatCounts(std::move(bareSeconds));
    const kest::host::entryList list = kest::host::listEntries();
    require(list.error.empty() && list.entries.size() == (rounds + 1) * entriesPerRound, "entries are missing");
    std::filesystem::remove_all(folder);

    constexpr double count = roundsThatCount * entriesPerRound;
    std::cout << nlohmann::json{{"errorlog.commits_ratio", bare / ours},
                                {"errorlog.commits_per_s", count / ours},
                                {"errorlog.bare_commits_per_s", count / bare}}
              << '\n';
    return 0;
}
