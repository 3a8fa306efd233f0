/// The two write functions. They run anywhere, at any time: they take no lock, no memory and no system call, and leave
/// `errno` alone.
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <sys/types.h>

#include "base/clock.h"
#include "platform/host/trace/formats.h"
#include "platform/host/trace/ring.h"
#include "platform/trace.h"

namespace
{

using namespace kest::host::trace;

constinit std::atomic<std::uint32_t> threadsSeen{0};
constinit thread_local std::uint32_t threadNumber = 0;

std::uint32_t numberOfThread()
{
    if (threadNumber == 0) {
        threadNumber = threadsSeen.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    return threadNumber;
}

/// A record under construction, on the writer's stack. What does not fit is cut, and the record says so.
class draft
{
public:
    /// Adds all bytes, or none: the record is then cut.
    template <typename Value>
    void putValue(Value value)
    {
        if (m_cut || sizeof value > room()) {
            m_cut = true;
            return;
        }
        std::memcpy(m_at, &value, sizeof value);
        m_at += sizeof value;
    }
    /// Adds as many bytes as fit.
    void putSome(const void* bytes, std::size_t count)
    {
        const std::size_t fitting = count < room() ? count : room();
        if (fitting != 0 && !m_cut) {
            std::memcpy(m_at, bytes, fitting);
            m_at += fitting;
        }
        m_cut = m_cut || fitting != count;
    }
    /// Adds a text up to its NUL, at most `most` bytes, and a NUL.
    void putText(const char* text, std::size_t most)
    {
        text = text == nullptr ? "(null)" : text;
        const std::size_t bound = most < maximumTextBytes - 1 ? most : maximumTextBytes - 1;
        const std::size_t length = strnlen(text, bound);
        if (length >= room()) {
            m_cut = true;
            return;
        }
        std::memcpy(m_at, text, length);
        m_at[length] = '\0';
        m_at += length + 1;
    }
    /// The caller writes text itself, from open() to the end that it gives to close().
    char* open() { return m_at; }
    void close(char* end) { m_at = end; }
    void cut() { m_cut = true; }
    [[nodiscard]] bool isCut() const { return m_cut; }

    void writeTo(trace_wobu_buffer& ring, std::uint32_t kind, std::uint32_t hash, std::uint32_t line)
    {
        // the filling, and what lies behind it
        const std::uint64_t zeros = 0;
        std::memcpy(m_at, &zeros, sizeof zeros);
        // while the clock is read, what was put together above reaches the cache, and can be loaded by words at once
        const std::uint64_t time = kest::clockNs(CLOCK_MONOTONIC);
        const std::uint32_t thread = numberOfThread();
        const auto used = static_cast<std::uint32_t>(m_at - payload());
        m_words[wordTimeHigh] = static_cast<std::uint32_t>(time >> 32);
        m_words[wordTimeLow] = static_cast<std::uint32_t>(time);
        m_words[wordHash] = hash;
        m_words[wordLine] = line;
        m_words[wordThread] = thread;
        m_words[wordKind] = kind << 16 | used | (m_cut ? kindCutFlag : 0);
        storage* place = ring.place.load(std::memory_order_acquire);
        // a lane refuses when the ring has just moved: its new place is then known
        for (int attempt = 0;
             attempt < 3 && place != nullptr &&
             !place->lane(thread % laneCount, ring.laneStride)
                  .append(m_words, recordBytes(used) / sizeof(std::uint32_t), ring.laneUnits, ring.seed);
             ++attempt) {
            place = ring.place.load(std::memory_order_acquire);
        }
    }

private:
    char* payload() { return reinterpret_cast<char*>(m_words + recordHeadWords); }
    [[nodiscard]] std::size_t room() { return static_cast<std::size_t>(payload() + maximumPayloadBytes - m_at); }

    // with room for a whole unit of filling
    std::uint32_t m_words[(maximumRecordBytes + unitBytes) / sizeof(std::uint32_t)];
    char* m_at = payload();
    bool m_cut = false;
};

/// Arguments are kept as 4 bytes when the format takes an int, else as 8, whatever the width of a long here.
void putNumber(draft& record, int number) { record.putValue(number); }
void putWide(draft& record, std::uint64_t number) { record.putValue(number); }

std::uint64_t wideArgument(const conversion& wanted, std::va_list& arguments)
{
    if (wanted.letter == 'p') {
        return reinterpret_cast<std::uintptr_t>(va_arg(arguments, void*));
    }
    switch (wanted.modifier) {
    case lengthModifier::longWide:
        return isSigned(wanted.letter) ? static_cast<std::uint64_t>(va_arg(arguments, long))
                                       : va_arg(arguments, unsigned long);
    case lengthModifier::sizeWide:
        return isSigned(wanted.letter) ? static_cast<std::uint64_t>(va_arg(arguments, ssize_t))
                                       : va_arg(arguments, std::size_t);
    default:
        return va_arg(arguments, unsigned long long);
    }
}

/// Stores the arguments of one conversion. @return false when no further argument can be taken
bool putArgument(draft& record, const conversion& wanted, std::va_list& arguments)
{
    int precision = wanted.precisionGiven ? wanted.precision : -1;
    if (wanted.widthIsArgument) {
        putNumber(record, va_arg(arguments, int));
    }
    if (wanted.precisionIsArgument) {
        precision = va_arg(arguments, int);
        putNumber(record, precision);
    }
    switch (wanted.argument) {
    case argumentKind::number:
        putNumber(record, va_arg(arguments, int));
        break;
    case argumentKind::wide:
        putWide(record, wideArgument(wanted, arguments));
        break;
    case argumentKind::text:
        record.putText(va_arg(arguments, const char*),
                       precision < 0 ? maximumTextBytes : static_cast<std::size_t>(precision));
        break;
    case argumentKind::none:
        break;
    case argumentKind::unknown:
        return false;
    }
    return !record.isCut();
}

/// Copies the format, so that a reader needs only the file.
/// @return the format to take the arguments by: the caller's, which can be read at once, or the cut one in the record
const char* putFormat(draft& record, const char* format)
{
    char* const own = record.open();
    const std::size_t length = strnlen(format, maximumTextBytes - 1);
    std::memcpy(own, format, length);
    own[length] = '\0';
    record.close(own + length + 1);
    if (format[length] == '\0') {
        return format;
    }
    record.cut();
    return own;
}

/// Whether the letter alone makes one of the most common conversions.
bool isPlain(char letter) { return letter == 's' || letter == 'd' || letter == 'x' || letter == 'X' || letter == 'u'; }

void putArguments(draft& record, const char* format, std::va_list& arguments)
{
    bool more = true;
    while (more && *format != '\0') {
        if (*format++ != '%') {
            continue;
        }
        if (isPlain(*format)) {
            if (*format++ == 's') {
                record.putText(va_arg(arguments, const char*), maximumTextBytes);
            } else {
                putNumber(record, va_arg(arguments, int));
            }
            more = !record.isCut();
        } else {
            conversion wanted;
            format = parseConversion(format, wanted);
            more = putArgument(record, wanted, arguments);
        }
    }
}

/// The header of the library's own binary records: size, tag "FD", hash and line. A record that begins so gets this
/// hash and line.
struct binaryHead {
    std::uint16_t size, tag;
    std::uint32_t hash, line;
};
constexpr std::uint16_t binaryTag = 0x4644;

} // namespace

void trace_wobu_write_all(trace_wobu_descriptor descriptor, std::uint32_t hash, const char* format, int line,
                          [[maybe_unused]] int type, ...)
{
    if (descriptor == nullptr || format == nullptr) {
        return;
    }
    draft record;
    std::va_list arguments;
    va_start(arguments, type);
    putArguments(record, putFormat(record, format), arguments);
    va_end(arguments);
    record.writeTo(*descriptor, kindText, hash, static_cast<std::uint32_t>(line));
}

void trace_wobu_write2(trace_wobu_descriptor descriptor, int /*type*/, unsigned int headerSize, const void* header,
                       unsigned int dataSize, const void* data)
{
    if (descriptor == nullptr) {
        return;
    }
    draft record;
    binaryHead head{};
    const std::array<std::uint32_t, 2> sizes{header == nullptr ? 0 : headerSize, data == nullptr ? 0 : dataSize};
    record.putValue(sizes);
    record.putSome(header, sizes[0]);
    record.putSome(data, sizes[1]);
    if (sizes[0] == sizeof head) {
        std::memcpy(&head, header, sizeof head);
    }
    const bool known = head.tag == binaryTag;
    record.writeTo(*descriptor, kindBinary, known ? head.hash : 0, known ? head.line : 0);
}
