/// Traces. Each buffer keeps its latest 64 lines, formatted as they come. A platform whose traces must cost little
/// stores the arguments instead, and formats when the buffer is read.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "minimal.h"
#include "platform/trace.h"

struct trace_wobu_buffer {
    char name[32]; ///< empty: not in use
    std::size_t written; ///< lines so far; the next one goes to `written` modulo 64
    char lines[64][240];
};

namespace
{

// Nothing here is made at run time: the library's static initialisers trace, too.
constinit std::array<trace_wobu_buffer, 32> buffers{};
constinit std::mutex tracing;
constexpr const char* letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";

/// @return the buffer of that name, else the first free one; null when there is neither
trace_wobu_buffer* find(const char* name)
{
    auto* const found = std::ranges::find_if(buffers, [name](const trace_wobu_buffer& buffer) {
        return buffer.name[0] == '\0' || std::strcmp(buffer.name, name) == 0;
    });
    return found != buffers.end() ? found : nullptr;
}

} // namespace

int trace_wobu_init_buffer(trace_wobu_descriptor* descriptor, const char* name, unsigned int size)
{
    const std::size_t length = name != nullptr ? std::strlen(name) : 0;
    const bool good = descriptor != nullptr && length > 0 && length < sizeof buffers[0].name &&
                      std::strspn(name, letters) == length && size > 0 && size <= 524272;
    const std::lock_guard hold(tracing);
    trace_wobu_buffer* const found = good ? find(name) : nullptr;
    if (descriptor != nullptr) {
        *descriptor = found;
    }
    if (found == nullptr) {
        errno = good ? ENOSPC : EINVAL;
        return -1;
    }
    std::strcpy(found->name, name);
    return 0;
}

void trace_wobu_write_all(trace_wobu_descriptor buffer, std::uint32_t hash, const char* format, int line, int type, ...)
{
    if (buffer == nullptr) {
        return;
    }
    const int entered = errno;
    char text[sizeof buffer->lines[0]];
    const int head = std::snprintf(text, sizeof text, "%08X %d", hash, line);
    va_list arguments;
    va_start(arguments, type);
    std::vsnprintf(text + head, sizeof text - static_cast<std::size_t>(head), format, arguments);
    va_end(arguments);
    const std::lock_guard hold(tracing);
    std::memcpy(buffer->lines[buffer->written++ % 64], text, sizeof text);
    errno = entered;
}

void trace_wobu_write2(trace_wobu_descriptor buffer, int, unsigned int headerSize, const void*, unsigned int dataSize,
                       const void*)
{
    // a real platform keeps the bytes, not only how many they are
    trace_wobu_write_all(buffer, 0, " header of %u bytes, data of %u", 0, 0, headerSize, dataSize);
}

std::string minimal::latestTrace(const char* bufferName, unsigned int bytes)
{
    std::string text;
    const std::lock_guard hold(tracing);
    const trace_wobu_buffer* const buffer = find(bufferName);
    for (std::size_t back = 1; buffer != nullptr && back <= 64 && back <= buffer->written; ++back) {
        const std::string line = std::string(buffer->lines[(buffer->written - back) % 64]) + '\n';
        if (text.size() + line.size() > bytes) {
            break;
        }
        text.insert(0, line);
    }
    return text;
}
