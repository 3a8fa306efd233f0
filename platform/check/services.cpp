/// Checks of the registry, the VPD service and its buffers.
#include <algorithm>
#include <array>
#include <cstring>

#include "platform/check/run.h"
#include "platform/registry.h"
#include "platform/tavo.h"

namespace kest::check
{
namespace
{

constexpr const char* root = "qorn/P3_Root";
constexpr std::uint8_t untouched = 0xA5;

constexpr std::size_t roomForValues = 64;

/// A registry read into a buffer that shows what was left alone.
struct registryRead {
    std::array<std::uint8_t, roomForValues> buffer{};
    unsigned int size;
    ownedEntry entry{};

    registryRead(const char* key, unsigned int room) : size(room)
    {
        buffer.fill(untouched);
        entry.reset(UtilReg::read(key, buffer.data(), size, false, nullptr));
    }
    bool isUntouched() const
    {
        return std::ranges::all_of(buffer, [](std::uint8_t byte) { return byte == untouched; });
    }
};

void failedEntry(run& run, const char* what, const ownedEntry& entry)
{
    if (run.holds(what, entry != nullptr)) {
        run.holds("the entry of a failure has an SRC", entry->getSRC(0) != nullptr);
        run.holds("the entry of a failure has a return code", entry->getRC() != 0);
    }
}

/// Whether there is a value, which leaves a byte of the buffer.
bool hasValue(run& run)
{
    const std::string value = run.port.registryValue != nullptr ? run.port.registryValue : "";
    return run.has("key of its registry", run.port.registryKey != nullptr) &&
           run.holds("the port names a value of 1 to 63 bytes", !value.empty() && value.size() < roomForValues);
}

void knownKey(run& run)
{
    if (!hasValue(run)) {
        return;
    }
    const std::string value = run.port.registryValue;
    const registryRead read(run.port.registryKey, roomForValues);
    run.holds("a key that is set is read", read.entry == nullptr);
    run.same("size of the value", static_cast<long long>(value.size()), read.size);
    run.holds("the value's bytes are in the buffer", std::memcmp(read.buffer.data(), value.data(), value.size()) == 0);
    run.same("byte behind the value", untouched, read.buffer[value.size()]);
}

void missingKey(run& run)
{
    const registryRead read(run.port.missingKey, 16);
    failedEntry(run, "a key that is not set is an entry", read.entry);
    run.same("size after the failure", 16, read.size);
    run.holds("the buffer is unchanged after the failure", read.isUntouched());
}

void smallBuffer(run& run)
{
    if (!hasValue(run)) {
        return;
    }
    const auto room = static_cast<unsigned int>(std::strlen(run.port.registryValue)) - 1;
    const registryRead read(run.port.registryKey, room);
    failedEntry(run, "a value that does not fit is an entry", read.entry);
    run.same("size after the failure", room, read.size);
    run.holds("the buffer is unchanged after the failure", read.isUntouched());
}

/// A part of a persisted copy.
struct copyRead {
    unsigned char* data = nullptr;
    unsigned int length;
    ownedEntry entry{};

    copyRead(std::uint32_t device, unsigned int wanted, unsigned int offset) : length(wanted)
    {
        entry.reset(tavo_read_data_persistancy(root, device, nullptr, &data, &length, offset));
    }
    copyRead(const copyRead&) = delete;
    copyRead& operator=(const copyRead&) = delete;
    ~copyRead() { tavo_util_free(reinterpret_cast<void**>(&data)); }
    std::span<const std::uint8_t> part(unsigned int offset = 0) const
    {
        return {data + (data != nullptr ? offset : 0), data != nullptr && length > offset ? length - offset : 0};
    }
};

ownedEntry writeCopy(run& run, std::uint32_t device, std::span<const std::uint8_t> data, unsigned int offset)
{
    auto length = static_cast<unsigned int>(data.size());
    ownedEntry entry(tavo_write_data_persistancy(root, device, nullptr, data.data(), &length, offset));
    run.same("length after a write of a copy", static_cast<long long>(data.size()), length);
    return entry;
}

void readsCopy(run& run)
{
    if (!run.has("persisted copy", run.port.hasCopy)) {
        return;
    }
    const copyRead all(run.port.copyNumber, 0, 0);
    if (run.holds("a copy is read", all.entry == nullptr && all.data != nullptr) &&
        run.holds("length 0 gives all of it", all.length >= 64)) {
        const copyRead part(run.port.copyNumber, 16, 8);
        run.same("a part of the copy", all.part(8).first(16), part.part());
        const copyRead rest(run.port.copyNumber, 16, all.length - 4);
        run.same("a read across the end", all.part(all.length - 4), rest.part());
    }
}

void copyEnd(run& run)
{
    if (!run.has("persisted copy", run.port.hasCopy)) {
        return;
    }
    const unsigned int size = copyRead(run.port.copyNumber, 0, 0).length;
    for (const unsigned int offset : {size, size + 1, ~0U}) {
        const copyRead read(run.port.copyNumber, 16, offset);
        failedEntry(run, "a read at or past the end is an entry", read.entry);
        run.same("length after the failure", 16, read.length);
        run.holds("there are no data after the failure", read.data == nullptr);
    }
}

void missingCopy(run& run)
{
    if (!run.has("number of no device", run.port.hasMissingNumber)) {
        return;
    }
    const copyRead read(run.port.missingNumber, 16, 0);
    run.holds("no copy is no failure of a read", read.entry == nullptr);
    run.same("length without a copy", 0, read.length);
    run.holds("there are no data without a copy", read.data == nullptr);
    failedEntry(run, "a write without a copy is an entry", writeCopy(run, run.port.missingNumber, pattern(4, 1), 0));
    run.same("length after the refused write", 0, copyRead(run.port.missingNumber, 0, 0).length);
}

void writesCopy(run& run)
{
    if (!run.has("persisted copy", run.port.hasCopy)) {
        return;
    }
    const copyRead before(run.port.copyNumber, 0, 0);
    if (!run.holds("a copy is read", before.length >= 64)) {
        return;
    }
    bytes expected(before.part().begin(), before.part().end());
    const bytes changed = pattern(5, static_cast<std::uint8_t>(expected[3] + 1));
    std::ranges::copy(changed, expected.begin() + 3);
    run.holds("a write inside the copy succeeds", writeCopy(run, run.port.copyNumber, changed, 3) == nullptr);
    run.same("the copy after the write", expected, copyRead(run.port.copyNumber, 0, 0).part());
    failedEntry(run, "a write past the end is an entry",
                writeCopy(run, run.port.copyNumber, pattern(4, 9), before.length - 2));
    failedEntry(run, "a write far past the end is an entry", writeCopy(run, run.port.copyNumber, changed, ~0U));
    run.same("the copy after refused writes", expected, copyRead(run.port.copyNumber, 0, 0).part());
    run.holds("the copy's old bytes are put back",
              writeCopy(run, run.port.copyNumber, before.part().subspan(3, changed.size()), 3) == nullptr);
}

void locations(run& run)
{
    if (!run.has("device with a location", run.port.location != nullptr)) {
        return;
    }
    char* text = nullptr;
    const ownedEntry entry(TAVO_get_dev_addr_string(run.port.locatedNumber, &text, zelPosition{}, false));
    run.holds("the location of a device is found", entry == nullptr && text != nullptr);
    run.same("location", run.port.location, text != nullptr ? text : "none");
    tavo_util_free(reinterpret_cast<void**>(&text));
    run.holds("the text's pointer is null after tavo_util_free()", text == nullptr);
}

void missingLocation(run& run)
{
    if (!run.has("number of no device", run.port.hasMissingNumber)) {
        return;
    }
    char somewhere = 'x';
    char* text = &somewhere;
    failedEntry(run, "the location of no device is an entry",
                ownedEntry(TAVO_get_dev_addr_string(run.port.missingNumber, &text, zelPosition{}, false)));
    run.holds("the text is null after the failure", text == nullptr);
}

void buffers(run& run)
{
    constexpr unsigned int size = 1000;
    for (int round = 0; round < 3; ++round) {
        void* memory = tavo_malloc(size);
        if (!run.holds("there is memory", memory != nullptr)) {
            return;
        }
        run.same("a new buffer", bytes(size, 0), {static_cast<std::uint8_t*>(memory), size});
        std::memset(memory, 0xFF, size);
        tavo_util_free(&memory);
        run.holds("the pointer is null after tavo_util_free()", memory == nullptr);
    }
}

void emptyBuffers(run& run)
{
    void* first = tavo_malloc(0);
    void* second = tavo_malloc(0);
    run.holds("size 0 gives a pointer", first != nullptr && second != nullptr);
    run.holds("size 0 gives a pointer of its own each time", first != second);
    tavo_util_free(&first);
    tavo_util_free(&second);
    tavo_util_free(&second);
    tavo_util_free(nullptr);
}

constexpr std::array checks{
    check{"registry: a value is read, and nothing behind it written", knownKey},
    check{"registry: a key that is not set is an entry and changes nothing", missingKey},
    check{"registry: a value that does not fit is an entry and changes nothing", smallBuffer},
    check{"copies: a copy is read whole, in part and across its end", readsCopy},
    check{"copies: a read at or past the end is an entry", copyEnd},
    check{"copies: a device without a copy reads as length 0 and is not written", missingCopy},
    check{"copies: a write changes its bytes alone, or nothing", writesCopy},
    check{"locations: a device number has its text", locations},
    check{"locations: an unknown number is an entry", missingLocation},
    check{"memory: buffers are zeroed, and freed by pointer to pointer", buffers},
    check{"memory: size 0 and null are no special cases", emptyBuffers},
};

} // namespace

std::span<const check> serviceChecks() { return checks; }

} // namespace kest::check
