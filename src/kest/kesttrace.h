/// Tracing into the library's own buffer, "kest".
///
/// Every text record carries a hash of its message, a format that begins with " %s", the source line, and the tracing
/// function's name as first argument. The same message has the same hash wherever it is traced; scripts/check-traces
/// finds two messages that share one.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/trace.h"

namespace kest
{

/// The buffer "kest". Made at load; never released.
extern trace_wobu_descriptor kest_trace;

/// Hash of a trace message (32-bit FNV-1a), made at compile time.
consteval std::uint32_t traceHash(std::string_view message)
{
    std::uint32_t hash = 0x811C9DC5;
    for (const char character : message) {
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x01000193u;
    }
    return hash;
}

/// The node is absent: traced wherever ENODEV is reported.
constexpr std::uint32_t hashNodeAbsent = 0x05B69EAF;

/// Traces a message of the function `name`. @param format  literal, of the arguments after the name
#define KEST_TRACE_AT(line, hash, format, name, ...)                                                                   \
    trace_wobu_write_all(kest_trace, hash, " %s" format, line, 0, name __VA_OPT__(, ) __VA_ARGS__)
/// The same, with the source line.
#define KEST_TRACE(hash, format, ...) KEST_TRACE_AT(__LINE__, hash, format, __VA_ARGS__)

/// Traces a function's entry, and at the end of its scope its exit. Declare it first, so that its exit trace is the
/// last.
class traceScope
{
public:
    explicit traceScope(const char* function, int line = __builtin_LINE()) : m_function(function), m_line(line)
    {
        KEST_TRACE_AT(m_line, traceHash("entry"), "", m_function);
    }
    traceScope(const traceScope&) = delete;
    traceScope& operator=(const traceScope&) = delete;
    ~traceScope() { KEST_TRACE_AT(m_line, traceHash("exit"), "", m_function); }

private:
    const char* m_function;
    int m_line;
};

} // namespace kest
