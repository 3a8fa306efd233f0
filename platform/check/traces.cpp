/// Checks of the trace facility.
#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/check/run.h"
#include "platform/trace.h"

namespace kest::check
{
namespace
{

constexpr unsigned int bufferBytes = 8092; ///< as the library asks for
constexpr std::uint32_t hash = 0x1234ABCD;

/// As the library does: a buffer is made, and traced into, before main().
const struct earlyTrace {
    trace_wobu_descriptor buffer = nullptr;
    int result = trace_wobu_init_buffer(&buffer, "check_early", bufferBytes);
    earlyTrace() { trace_wobu_write_all(buffer, hash, " %s", __LINE__, 0, "before main"); }
} early;

trace_wobu_descriptor makeBuffer(run& run, const char* name)
{
    trace_wobu_descriptor buffer = nullptr;
    run.same("result of making a buffer", 0, trace_wobu_init_buffer(&buffer, name, bufferBytes));
    run.holds("a buffer was made", buffer != nullptr);
    return buffer;
}

void beforeMain(run& run)
{
    run.same("result of making a buffer before main()", 0, early.result);
    run.holds("a buffer was made before main()", early.buffer != nullptr);
}

void byName(run& run)
{
    trace_wobu_descriptor again = nullptr;
    const auto* const first = makeBuffer(run, "check_name");
    run.same("result for a name that is in use", 0, trace_wobu_init_buffer(&again, "check_name", 2 * bufferBytes));
    run.holds("the same name is the same buffer, whatever the size", first == again);
    run.holds("another name is another buffer", first != makeBuffer(run, "check_other"));
}

void refuses(run& run)
{
    const trace_wobu_descriptor made = makeBuffer(run, "check_name");
    run.fails("a null descriptor", EINVAL, trace_wobu_init_buffer(nullptr, "check_name", bufferBytes));
    for (const char* name : {"", "a-b", "a b", "of_thirty_two_letters__________X"}) {
        trace_wobu_descriptor buffer = made;
        run.fails(("the name '" + std::string(name) + "'").c_str(), EINVAL,
                  trace_wobu_init_buffer(&buffer, name, bufferBytes));
        run.holds("the descriptor is null after a failure", buffer == nullptr);
    }
    for (const unsigned int size : {0U, 524273U}) {
        trace_wobu_descriptor buffer = made;
        run.fails(("the size " + std::to_string(size)).c_str(), EINVAL,
                  trace_wobu_init_buffer(&buffer, "check_name", size));
    }
}

void noBuffer(run& run)
{
    trace_wobu_write_all(nullptr, hash, " %s", __LINE__, 0, "dropped");
    trace_wobu_write2(nullptr, 0, 4, "head", 4, "data");
    run.holds("traces to a null descriptor are dropped", true);
}

void keepsErrno(run& run)
{
    const trace_wobu_descriptor buffer = makeBuffer(run, "check_errno");
    errno = EDEADLK;
    trace_wobu_write_all(buffer, hash, " %s,%d", __LINE__, 0, "check", 1);
    run.same("errno after a text trace", EDEADLK, errno);
    errno = EDEADLK;
    trace_wobu_write2(buffer, 0, 4, "head", 4, "data");
    run.same("errno after a binary trace", EDEADLK, errno);
}

void oddArguments(run& run)
{
    const trace_wobu_descriptor buffer = makeBuffer(run, "check_odd");
    const std::string longText(5000, 'x');
    const std::string big(20000, 'y');
    trace_wobu_write_all(buffer, hash, " %s", __LINE__, 0, longText.c_str());
    trace_wobu_write_all(buffer, hash, " %s", __LINE__, 0, "");
    trace_wobu_write_all(buffer, hash, " %%%c%5d%-5i%05u%#x%X%p", -1, 0, 'c', -1, -2, 3U, 4U, 5U, &run);
    trace_wobu_write_all(buffer, hash, " %hhx %hd %ld %lld %zu %300s", __LINE__, 0, static_cast<unsigned char>(1),
                         static_cast<short>(2), 3L, 4LL, std::size_t{5}, "6");
    trace_wobu_write_all(buffer, hash, " no argument", __LINE__, 0);
    trace_wobu_write2(buffer, 0, 0, nullptr, 0, nullptr);
    trace_wobu_write2(buffer, 0, 12, longText.data(), static_cast<unsigned int>(big.size()), big.data());
    const ownedEntry entry(makeEntry(0x1309));
    entry->CollectTrace("check_odd", 4096);
    run.holds("long texts, odd widths and empty data are traced and collected", entry != nullptr);
}

void collected(run& run)
{
    if (!run.has("way to read its error log", run.port.committedText != nullptr)) {
        return;
    }
    const trace_wobu_descriptor buffer = makeBuffer(run, "check_collect");
    char text[] = "check-4711";
    trace_wobu_write_all(buffer, hash, " %s,%d,%x", __LINE__, 0, text, -12, 0xBEEFU);
    std::memset(text, 'z', sizeof text - 1);
    const ownedEntry entry(makeEntry(0x1309));
    entry->CollectTrace("check_collect", 500);
    entry->commit(0x1300, ERRL_ACTION_KEEP_FOR_SERVICE);
    run.holds("the entry has the trace's text, as it was when it was traced",
              run.port.committedText(entry->plid()).find(" check-4711,-12,beef") != std::string::npos);
}

void latest(run& run)
{
    if (!run.has("way to read its error log", run.port.committedText != nullptr)) {
        return;
    }
    const trace_wobu_descriptor buffer = makeBuffer(run, "check_latest");
    for (unsigned int number = 0; number < 5000; ++number) {
        trace_wobu_write_all(buffer, hash, " record-%u;", __LINE__, 0, number);
    }
    const ownedEntry entry(makeEntry(0x1309));
    entry->CollectTrace("check_latest", 500);
    entry->commit(0x1300, ERRL_ACTION_KEEP_FOR_SERVICE);
    const std::string text = run.port.committedText(entry->plid());
    run.holds("a full buffer keeps the latest records", text.find("record-4999;") != std::string::npos);
    run.holds("a full buffer drops the oldest records", text.find("record-0;") == std::string::npos);
}

void threads(run& run)
{
    const trace_wobu_descriptor buffer = makeBuffer(run, "check_threads");
    std::array<int, 4> others{};
    std::vector<std::thread> writers;
    writers.reserve(others.size());
    for (int& other : others) {
        writers.emplace_back([buffer, &other] {
            trace_wobu_descriptor own = nullptr;
            for (int count = 0; count < 2000; ++count) {
                trace_wobu_write_all(buffer, hash, " %s,%d", __LINE__, 0, "thread", count);
                trace_wobu_init_buffer(&own, "check_threads", bufferBytes);
                trace_wobu_write2(own, 0, 4, "head", sizeof count, &count);
                other += own == buffer ? 0 : 1;
            }
        });
    }
    for (int count = 0; count < 50; ++count) {
        const ownedEntry entry(makeEntry(0x1309));
        entry->CollectTrace("check_threads", 4096);
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    run.same("times that a thread got another buffer", 0, others[0] + others[1] + others[2] + others[3]);
}

constexpr std::array checks{
    check{"traces: a buffer can be made and used before main()", beforeMain},
    check{"traces: the same name is the same buffer", byName},
    check{"traces: other names and sizes are refused", refuses},
    check{"traces: a null descriptor drops the record", noBuffer},
    check{"traces: errno is left alone", keepsErrno},
    check{"traces: odd arguments do no harm", oddArguments},
    check{"traces: arguments are copied, and collected as text", collected},
    check{"traces: a full buffer keeps the latest records", latest},
    check{"traces: threads trace while another collects", threads},
};

} // namespace

std::span<const check> traceChecks() { return checks; }

} // namespace kest::check
