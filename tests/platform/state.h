/// What the scripted platform's sources share.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "tests/platform/scripted.h"
#include "tests/sanitizers.h"

namespace scripted
{

enum Operation : std::size_t {
    opOpen,
    opConfig,
    opSeek,
    opRead,
    opWrite,
    opReset,
    opClose,
    opExtract,
    opUnlock,
    opRegistry,
    opCopyRead,
    opCopyWrite,
    opLocation,
    opCount
};

/// One scripted answer. `result` is the operation's result; without a value, all that was asked for.
struct Answer {
    std::optional<int> result;
    std::optional<int> error;
    Bytes data;
    std::optional<unsigned> length;
    std::optional<EntryShape> entry;
};

struct Handle {
    bool byTest = false;
    bool closeAsked = false;
    bool closed = false;
    std::vector<Bytes> locks; ///< lock records, as far as kind and address
};

struct Buffer {
    std::string name;
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t size = 0;
    bool live = true;
    bool ffdc = false;
};

/// A countdown to the n-th call.
struct Countdown {
    int left = 0;
    bool strikes() { return left > 0 && --left == 0; }
};

struct Platform::Impl {
    mutable std::recursive_mutex mutex;

    struct Line {
        unsigned kind;
        std::string text;
        int sourceLine;
    };
    std::vector<Line> lines;
    std::string loadLog;
    bool loaded = false;
    void (*exitHandler)(void*) = nullptr; ///< of the library's trace buffer
    std::vector<TraceRecord> traceRecords;
    std::vector<ConfigCall> configs;
    std::vector<Bytes> written;
    std::vector<unsigned> sleeps;

    std::array<std::deque<Answer>, opCount> script;
    bool healthy = false;

    Countdown fault;
    int faultError = 0;
    bool faultPersistent = false, faultMet = false;
    unsigned faultKinds = kindLayer;
    std::string failedCall;
    Countdown mallocFault, entryFault;

    std::map<std::uint32_t, Handle> handles;
    std::uint32_t lastHandle = 0;
    std::vector<std::unique_ptr<Buffer>> buffers;
    std::map<std::string, int> bufferNumbers;
    std::vector<std::shared_ptr<EntryRecord>> entries;
    std::map<void*, bool> entryMemory; ///< by block: whether it is in use
    bool quiet = false; ///< an entry is being made by the platform
    int expectedFfdc = 0;

    void write(unsigned kind, const std::string& text, int sourceLine = 0);
    /// Takes the operation's next answer. Fails the test when there is none and the platform is not in the healthy
    /// state.
    std::optional<Answer> next(Operation operation, const std::string& call);
    /// The errno with which the call is to fail now; nothing when it is not.
    std::optional<int> struck(unsigned kind, const std::string& call);
    Buffer& newBuffer(const std::string& family, std::size_t size, const std::uint8_t* data);
    ErrlEntry* entryOf(const EntryShape& wanted);
};

/// The state, also during static initialisation and after main.
inline Platform::Impl& state() { return Platform::instance().impl(); }

/// A value that no test expects. Code that reads `errno` too late gets it.
constexpr int staleErrno = 4000;

std::string hexText(std::uint32_t value); ///< 0x1F
std::string quoted(std::string_view text); ///< "text", special characters escaped
std::string quoted(const char* text); ///< null for null
std::string bytesText(const std::uint8_t* data, std::size_t n); ///< 3 bytes: 01 02 03
std::string srcText(const Src& src);
/// User details: a flat address list, printable text, or bytes.
std::string detailsText(const Bytes& data, std::uint8_t subsection);

/// Blocks of new (std::nothrow) and malloc(): see allocation.cpp.
int trackedAllocations();
void forgetAllocations();
void failAllocation(int n);
/// Errors that were found when blocks were released: array new released by delete, bytes written beyond the end, and
/// such. Empties the list.
std::vector<std::string> allocationErrors();

} // namespace scripted
