#include "tools/kestctl/seepromdumpall.h"

#include <algorithm>
#include <cstdio>
#include <fmt/core.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>

#include "base/folders.h"
#include "platform/host/configuration/configuration.h"
#include "tools/common/dumpfile.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/heldread.h"
#include "tools/common/interrupt.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/busbars.h"
#include "tools/kestctl/dumpworker.h"

namespace kest::tools
{
namespace
{

/// Between two looks at progress and signals.
constexpr int pollMs = 100;

int tell(const failure& why)
{
    std::fputs((failureLine("kestctl", why) + "\n").c_str(), stderr);
    return why.code;
}

/// Dumps one device, in the process of its bus.
int dumpOne(const seepromOptions& from, const plannedDump& planned)
{
    try {
        seeprom chip = openSeeprom(planned.device, from);
        const byteRange range = chip.range(0, std::nullopt);
        const byteVector bytes =
            readHeld(chip, range, "dump", {.use = operationUse::read, .doing = "seeprom dump", .waitNs = from.waitNs});
        const std::string text = dumpText(dumpOf(chip, range.offset, bytes));
        std::error_code none;
        if (preferred().dryRun && !std::filesystem::exists(planned.file.parent_path(), none)) {
            // it would be made
            return exitDone;
        }
        writeOutput(planned.file.string(), std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()),
                    true);
        return exitDone;
    } catch (const failure& why) {
        return tell(why);
    } catch (const std::bad_alloc&) {
        return tell({.code = exitFailed, .what = "out of memory", .device = planned.device, .step = "dump"});
    } catch (const std::exception& why) {
        return tell({.code = exitFailed, .what = why.what(), .device = planned.device, .step = "dump"});
    }
}

/// Memory in which each worker shows how far it is.
class progressBoard
{
public:
    explicit progressBoard(std::size_t buses) : m_bytes(std::max<std::size_t>(buses, 1) * sizeof(sharedProgress))
    {
        m_room = mmap(nullptr, m_bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (m_room == MAP_FAILED) {
            throw std::bad_alloc();
        }
        std::uninitialized_value_construct_n(static_cast<sharedProgress*>(m_room), buses);
    }
    progressBoard(const progressBoard&) = delete;
    progressBoard& operator=(const progressBoard&) = delete;
    ~progressBoard() { munmap(m_room, m_bytes); }
    [[nodiscard]] sharedProgress& of(std::size_t bus) const { return static_cast<sharedProgress*>(m_room)[bus]; }

private:
    std::size_t m_bytes;
    void* m_room = nullptr;
};

/// One run of the command.
class dumpRun
{
public:
    dumpRun(bool json, std::vector<busDumps> plan) : m_json(json), m_plan(std::move(plan)), m_board(m_plan.size()) {}

    int run(const dumpWorker::dumper& dump);

private:
    void awaitWorkers();
    void takeEnds(std::size_t bus);
    void takeLines(std::size_t bus);
    void drawBars();
    void passSignal();
    void report(const plannedDump& each, int code);

    bool m_json;
    std::vector<busDumps> m_plan;
    progressBoard m_board; ///< outlives the workers
    std::vector<dumpWorker> m_workers; ///< one a bus
    busBars m_bars;
    jsonList m_rows;
    int m_worst = exitDone;
    bool m_passed = false; ///< a signal, to the workers
};

int dumpRun::run(const dumpWorker::dumper& dump)
{
    m_workers.reserve(m_plan.size());
    for (std::size_t bus = 0; bus < m_plan.size(); ++bus) {
        m_workers.emplace_back(m_plan[bus], m_board.of(bus), dump);
    }
    // behind the last fork: it has a thread
    const interruptWatch watch;
    awaitWorkers();
    for (dumpWorker& worker : m_workers) {
        m_worst = std::max(m_worst, worker.wait());
    }
    m_bars.clear();
    if (const int signal = interruptSignal()) {
        m_worst = std::max(m_worst, static_cast<int>(interruption(signal, "", "").code));
    }
    if (m_json) {
        standardOutput().json({{"devices", m_rows}});
    }
    return m_worst;
}

/// Until all of them have closed their pipes.
void dumpRun::awaitWorkers()
{
    for (bool open = true; open;) {
        std::vector<pollfd> waits;
        for (const dumpWorker& worker : m_workers) {
            waits.push_back({worker.ends(), POLLIN, 0});
            waits.push_back({worker.lines(), POLLIN, 0});
        }
        poll(waits.data(), waits.size(), pollMs);
        for (std::size_t bus = 0; bus < m_workers.size(); ++bus) {
            if (waits[2 * bus].revents != 0) {
                takeEnds(bus);
            }
            if (waits[2 * bus + 1].revents != 0) {
                takeLines(bus);
            }
        }
        passSignal();
        drawBars();
        open = std::ranges::any_of(m_workers,
                                   [](const dumpWorker& each) { return each.ends() >= 0 || each.lines() >= 0; });
    }
}

void dumpRun::takeEnds(std::size_t bus)
{
    dumpEnd end{};
    if (m_workers[bus].take(end) && end.index < m_plan[bus].dumps.size()) {
        report(m_plan[bus].dumps[end.index], end.code);
    }
}

void dumpRun::takeLines(std::size_t bus)
{
    std::string text;
    if (m_workers[bus].take(text)) {
        m_bars.clear();
        std::fputs(text.c_str(), stderr);
    }
}

void dumpRun::report(const plannedDump& each, int code)
{
    m_worst = std::max(m_worst, code);
    if (m_json) {
        m_rows.push_back(
            {{"device", each.device}, {"output", each.file.string()}, {"length", each.bytes}, {"exit_code", code}});
        addDryRunField(m_rows.back());
    } else if (code == exitDone) {
        m_bars.clear();
        standardOutput().text(fmt::format("{}: {} {}in {}\n", escaped(each.device), sizeText(each.bytes),
                                          preferred().dryRun ? "would be " : "", escaped(each.file.string())));
        standardOutput().flush();
    }
}

void dumpRun::drawBars()
{
    std::vector<busBar> bars;
    for (std::size_t bus = 0; bus < m_plan.size(); ++bus) {
        const sharedProgress& shown = m_board.of(bus);
        bars.push_back({.bus = m_plan[bus].bus, .done = shown.before + shown.now, .total = m_plan[bus].bytes()});
    }
    m_bars.draw(bars);
}

/// Once: two would end a worker in the middle of a file.
void dumpRun::passSignal()
{
    const int signal = interruptSignal();
    if (signal != 0 && !m_passed) {
        m_passed = true;
        for (const dumpWorker& worker : m_workers) {
            worker.pass(signal);
        }
    }
}

} // namespace

int dumpAll(const context& shared, const seepromOptions& from, const std::filesystem::path& folder)
{
    std::vector<busDumps> plan = planDumps(host::currentConfiguration().devices, folder);
    if (plan.empty()) {
        throw failure{.code = exitAbsent,
                      .what = "the device table has no SEEPROM",
                      .tryThis = "'kestctl devices' shows the table",
                      .step = "dump"};
    }
    const int error = preferred().dryRun ? 0 : makeFolders(folder);
    if (error != 0) {
        throw systemFailure(error, "dump", folder.string());
    }
    return dumpRun(shared.json, std::move(plan)).run([&from](const plannedDump& each) { return dumpOne(from, each); });
}

} // namespace kest::tools
