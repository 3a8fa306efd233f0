/// The scripted platform: every function and class of the platform interface, for tests of the library.
///
/// It keeps one ordered log of all calls and answers them from a script. A test fails on calls that the script does not
/// expect, on answers left over, and on anything handed out that was not released exactly once. README.md shows how a
/// test uses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/errl.h"
#include "platform/mern.h"
#include "platform/netc.h"
#include "platform/registry.h"
#include "platform/tavo.h"
#include "platform/trace.h"

namespace scripted
{

using Bytes = std::vector<std::uint8_t>;

/// "01 a0 ff" as bytes; blanks are skipped.
Bytes hex(std::string_view digits);
/// The bytes of a text, without terminator.
Bytes text(std::string_view text);
/// A word in host byte order, as the layer's 4-byte items hold it.
Bytes word(std::uint32_t value);
/// `count` bytes that count up from `first`.
Bytes counting(std::size_t count, std::uint8_t first = 0);

/// The kind of a log line, by which views of the log are selected.
enum Kind : unsigned {
    kindLayer = 1U << 0, ///< MernInitialize, mern_iic_*
    kindService = 1U << 1, ///< VPD service: reads, writes, location texts
    kindRegistry = 1U << 2,
    kindEntry = 1U << 3, ///< construction, changes, commits and deletion of entries
    kindQuery = 1U << 4, ///< calls that change nothing: getSRC, getRC, plid, creator, tavo_util_free of null
    kindMemory = 1U << 5, ///< tavo_malloc, tavo_util_free
    kindMessage = 1U << 6, ///< NetcMessage::setData
    kindSleep = 1U << 7, ///< usleep
    kindTrace = 1U << 8, ///< traces but entry and exit
    kindScope = 1U << 9, ///< entry and exit traces
    kindBuffer = 1U << 10, ///< trace_wobu_init_buffer, and the exit handler registered with it
    kindAll = ~0U
};

/// One SRC of an entry, with the arguments it was made from.
struct Src {
    std::uint8_t module = 0;
    std::uint16_t reason = 0;
    std::uint32_t word1 = 0, word2 = 0, word3 = 0, word4 = 0; ///< user data 1-4
    std::uint32_t subsystem = EPUB_SUBSYSTEM_SOFTWARE;
    std::uint16_t component = 0x1300;
    std::uint32_t type = SRCI_TYPE_SERVICE_PROCESSOR;
    std::uint32_t flags = 0;
    std::uint32_t serviceCode = SERVICE_CODE_KEST;
    bool operator==(const Src&) const = default;
};
void PrintTo(const Src& src, std::ostream* stream);

struct UserDetails {
    std::uint16_t component = 0x1300;
    std::uint8_t version = 1;
    std::uint8_t subsection = 0;
    Bytes data = {};
    bool operator==(const UserDetails&) const = default;
};
struct SoftwareError {
    std::uint16_t component = 0x1300;
    std::uint32_t returnCode = 0;
    std::uint16_t word1 = 0, word2 = 0;
    std::uint32_t reserved = 0;
    bool operator==(const SoftwareError&) const = default;
};
/// Of a procedure or a FRU: `id` is the procedure, or the FRU's identifier.
struct Callout {
    std::uint32_t priority = 1, id = 0;
    bool operator==(const Callout&) const = default;
};
struct CollectedTrace {
    std::string name;
    unsigned bytes = 0;
    bool operator==(const CollectedTrace&) const = default;
};
struct Commit {
    std::uint16_t component = 0x1300, action = 0;
    bool operator==(const Commit&) const = default;
};

/// Everything in an entry; kept after its commit and deletion.
struct EntryRecord {
    int number = 0; ///< entry1, entry2, ... in order of construction
    bool byPlatform = false;
    bool deleted = false;
    std::uint16_t creator = 0x1300;
    std::uint32_t plid = 0;
    std::uint32_t severity = ERRL_SEV_UNRECOVERED;
    std::uint32_t eventType = 0;
    std::uint32_t termState = 0;
    std::optional<std::uint32_t> returnCode;
    std::vector<Src> srcs = {};
    std::vector<UserDetails> userDetails;
    std::vector<SoftwareError> softwareErrors;
    std::vector<Callout> callouts; ///< procedure callouts
    std::vector<Callout> fruCallouts;
    std::vector<CollectedTrace> traces;
    std::vector<Commit> commits;
    unsigned wordCount = 8; ///< the count that SrciSrc::getHexData() returns

    /// User details of one subsection, in order.
    std::vector<Bytes> details(std::uint8_t subsection) const;
    /// The contents, one line each: "SRC ...", "rc ...", "callout ...", "details ...", "software error ...", "FRU ...",
    /// "commit ...". Begins with a newline, for comparison with a raw string.
    std::string text() const;
};

/// An entry that the platform itself makes, for answers of the registry and the VPD service, or for a test to pass on.
struct EntryShape {
    std::uint32_t returnCode = 0x80004711;
    std::vector<Src> srcs = {{.module = 200, .reason = 0x4711, .word1 = 2, .component = 0x4700}};
    std::uint16_t creator = 0x4700;
    unsigned wordCount = 8;
};

/// One text trace (or, with `binary`, one of trace_wobu_write2).
struct TraceRecord {
    std::uint32_t hash = 0;
    int line = 0;
    std::string format;
    std::vector<std::string> arguments; ///< as text: strings quoted, %d and %u decimal, %x and %X as 0x...
    bool binary = false;
    Bytes header, data; ///< of a binary record
};

/// One configuration call.
struct ConfigCall {
    int direction = 0;
    std::uint32_t item = 0;
    Bytes value = {}; ///< as it was at the call
};

/// The platform. There is one object; the fixture resets it before each test and verifies it afterwards.
class Platform
{
public:
    static Platform& instance();

    // --- script: results of the next calls; each line queues one answer for its operation ---
    Platform& opens();
    Platform& failsOpen(int error); ///< MERN_INVALID except for its sixth word
    Platform& configures(int times = 1);
    Platform& configuresReading(const Bytes& value); ///< copies `value` out, see word()
    Platform& failsConfig(int error, int result = -1);
    Platform& seeks(int times = 1);
    Platform& failsSeek(int error, int result = -1); ///< a result of 0 or more is no failure, whatever errno is
    Platform& reads(const Bytes& data); ///< fails the test when another length is asked for
    Platform& readsShort(const Bytes& data, int error); ///< moves fewer bytes than asked
    Platform& failsRead(int error) { return readsShort({}, error); } ///< moves none
    Platform& writes(int times = 1); ///< moves all
    Platform& writesShort(int count, int error);
    Platform& failsWrite(int error) { return writesShort(0, error); }
    Platform& resets();
    Platform& failsReset(int error, int result = -1);
    Platform& closes();
    Platform& failsClose(int error, int result = -1);
    Platform& extractsFfdc(const Bytes& data);
    Platform& extractsNoFfdc() { return extractsFfdc({}); }
    Platform& failsFfdcExtract(int error);
    Platform& unlocksFfdc();
    Platform& failsFfdcUnlock(int error, int result = -1);
    /// The calls after each failed call of an open handle: extraction (of no data by default) and unlock, both
    /// successful.
    Platform& capturesFfdc(const Bytes& data = {}) { return extractsFfdc(data).unlocksFfdc(); }

    Platform& registryAnswers(const Bytes& value); ///< copies at most the caller's size
    Platform& failsRegistry(const EntryShape& entry = {});
    Platform& readsCopy(const Bytes& data); ///< empty: there is no copy, length 0 and null
    Platform& readsEmptyCopy(); ///< length 0, but with a buffer that must be freed
    /// @param length  what `*length` becomes; without a value it is left unchanged
    Platform& failsCopyRead(const EntryShape& entry = {}, std::optional<unsigned> length = {});
    Platform& writesCopy();
    Platform& failsCopyWrite(const EntryShape& entry = {}, std::optional<unsigned> length = {});
    Platform& answersLocation(const std::string& location);
    Platform& failsLocation(const EntryShape& entry = {});

    // --- behaviour without a script ---
    /// From now on a call without a scripted answer succeeds: reads give the bytes of readHandler (else 0x5A), item 15
    /// gives 3, other items 0, no first-failure data, registry "HWareMode", no persisted copies, location "healthy".
    /// Scripted answers still come first.
    Platform& healthy();
    /// Fills the buffer of each unscripted read and returns the bytes moved: all of `size` for success, or fewer after
    /// it has set errno.
    std::function<int(std::uint8_t* buffer, unsigned size)> readHandler;
    /// Receives each unscripted write and returns the bytes moved.
    std::function<int(const std::uint8_t* data, unsigned size)> writeHandler;
    /// The result of extraction without a script.
    Bytes healthyFfdc;

    /// Makes the n-th layer call from now (1: the next) fail with `error`, whatever the script has; with `persistent`,
    /// also each one after it. `kinds` can name other calls that count, too: service and registry calls then return an
    /// entry, tavo_malloc null.
    Platform& failCall(int n, int error, bool persistent = false, unsigned kinds = kindLayer);
    bool faultWasMet() const;
    const std::string& failedCall() const; ///< log line of the (first) call that was made to fail

    Platform& failMalloc(int n = 1); ///< the n-th tavo_malloc() from now returns null
    Platform& failEntryAllocation(int n = 1); ///< the n-th operator new of an entry from now returns null
    Platform& failAllocation(int n = 1); ///< the n-th new (std::nothrow) or malloc() from now returns null

    // --- what a test makes itself, unlogged ---
    mern_t openHandle(); ///< an open device that need not be closed
    ErrlEntry* makeEntry(const EntryShape& entry = {});
    void* makeBuffer(const Bytes& data); ///< like those of the VPD service: release it with tavo_util_free()

    // --- the log ---
    // As text: a newline, then each line with its newline, for comparison with a raw string. An empty log is "\n".
    std::string log(unsigned kinds = kindAll) const;
    std::string calls() const { return log(kindAll & ~(kindTrace | kindScope | kindQuery)); } ///< all calls that act
    std::string layerCalls() const { return log(kindLayer); }
    std::string traces() const { return log(kindTrace); } ///< without entry and exit
    std::string events() const { return log(kindAll & ~(kindScope | kindQuery)); } ///< calls and traces
    std::string tracesWithLines() const; ///< "863 trace(...)"; without entry and exit
    std::vector<std::string> lines(unsigned kinds = kindAll) const;
    void clearLog(); ///< forgets the lines so far; entries, script and allocations stay
    /// What was logged before the first test: the library's static initialisers.
    std::string loadLog() const;
    /// What the library registered with __cxa_atexit() for its trace buffer; null when it did not.
    void (*exitHandler() const)(void*);

    const std::vector<TraceRecord>& traceRecords() const;
    const std::vector<ConfigCall>& configs() const;
    const std::vector<Bytes>& written() const; ///< data of each mern_iic_write()
    const std::vector<unsigned>& sleeps() const; ///< microseconds

    // --- entries ---
    int entryCount() const;
    const EntryRecord&
    entry(int number) const; ///< 1 is the first; an unknown number fails the test and gives an empty record
    const EntryRecord& entry(const ErrlEntry* entry) const;
    int commits() const; ///< of all entries

    // --- what was not released ---
    int openHandles() const; ///< opened by the library and not closed
    int heldLocks() const; ///< locked, and neither unlocked nor closed
    int liveBuffers() const; ///< handed out and not freed, first-failure data included
    int liveFfdc() const;
    int liveEntries() const;
    /// Blocks of new (std::nothrow) and malloc() that are not released. Counted without the address sanitizer, which
    /// finds leaks itself; with it, 0.
    int liveAllocations() const;

    /// The test expects `count` buffers of first-failure data that are not released; fewer or more fail it.
    Platform& expectUnreleasedFfdc(int count = 1);

    /// Fails the test on scripted answers left over and on anything not released, and names it.
    void verify();
    /// Verifies the platform, then forgets everything: for the rounds of a loop within a test.
    void reset();
    /// Forgets everything without verification, and releases what was not released.
    void forget();

    struct Impl;
    Impl& impl() { return *m_impl; }

private:
    Platform();
    Impl* m_impl;
};

/// Fixture: resets the platform before each test and verifies it afterwards, when the members of derived fixtures are
/// gone.
class PlatformTest : public ::testing::Test
{
protected:
    PlatformTest() { platform.forget(); }
    ~PlatformTest() override { platform.verify(); }

    Platform& platform = Platform::instance();
};

/// A message with contents of its own; setData() is logged as `<name>.setData(...)`.
class Message : public NetcMessage
{
public:
    explicit Message(std::string name, std::uint16_t identifier = 0, std::uint16_t type = 0, Bytes payload = {});
    char* dataPointer() const override;
    unsigned int dataSize() const override;
    bool setData(const char* data, unsigned int size) override;

    Bytes payload;
    bool refusesData = false; ///< setData() returns false, as without memory

private:
    std::string m_name;
};

/// Catches what goes to the standard error stream, from construction to text().
class StandardError
{
public:
    StandardError();
    ~StandardError();
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;
    std::string text(); ///< ends the catching

private:
    bool m_catching = true;
};

} // namespace scripted
