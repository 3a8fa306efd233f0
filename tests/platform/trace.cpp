/// The trace facility and the messages.
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tests/platform/state.h"

using namespace scripted;

extern "C" {
// The linker directs the library's and the tests' calls of the ABI function to the first name, and calls of the second
// name to the ABI's own.
int __wrap___cxa_atexit(void (*function)(void*), void* argument, void* library) noexcept; // NOLINT: the linker's name
int __real___cxa_atexit(void (*function)(void*), void* argument, void* library) noexcept; // NOLINT: the linker's name
}

struct trace_wobu_buffer {
    std::string name;
};

struct NetcMessage::State {
    std::vector<char> payload;
};

namespace
{

constexpr std::uint32_t entryHash = 0xCAC3D793, exitHash = 0xCDED1A85; ///< of the messages "entry" and "exit"

/// A buffer was just made. The next exit handler belongs to it, unless it takes an argument like the destructor of an
/// object.
constinit bool bufferIsNew = false;

/// The argument of one conversion, as text. `at` is the position after the '%', and is moved to the end of the
/// conversion.
std::string argumentText(const char*& at, std::va_list& arguments)
{
    while (*at != '\0' &&
           (std::strchr("-+ #0.", *at) != nullptr || std::isdigit(static_cast<unsigned char>(*at)) != 0)) {
        ++at;
    }
    int longs = 0;
    for (; *at == 'l' || *at == 'h' || *at == 'z'; ++at) {
        longs += *at == 'l' ? 1 : *at == 'z' ? 3 : 0;
    }
    const char conversion = *at == '\0' ? '\0' : *at++;
    unsigned long long value = 0;
    switch (conversion) {
    case 's':
        return quoted(va_arg(arguments, const char*));
    case 'p':
        return va_arg(arguments, const void*) == nullptr ? "null" : "pointer";
    case 'c':
        return std::string{"'"} + static_cast<char>(va_arg(arguments, int)) + "'";
    case 'd':
    case 'i':
        return std::to_string(longs == 0   ? va_arg(arguments, int)
                              : longs == 1 ? va_arg(arguments, long)
                              : longs == 2 ? va_arg(arguments, long long)
                                           : static_cast<long long>(va_arg(arguments, std::ptrdiff_t)));
    case 'u':
    case 'x':
    case 'X':
        value = longs == 0   ? va_arg(arguments, unsigned)
                : longs == 1 ? va_arg(arguments, unsigned long)
                : longs == 2 ? va_arg(arguments, unsigned long long)
                             : va_arg(arguments, std::size_t);
        if (conversion == 'u') {
            return std::to_string(value);
        } else {
            std::array<char, 24> out{};
            std::snprintf(out.data(), out.size(), "0x%llX", value);
            return out.data();
        }
    default:
        ADD_FAILURE() << "trace format with a conversion that the trace facility does not have: " << conversion;
        return "?";
    }
}

template <class Value>
Value headerField(const Bytes& header, std::size_t at)
{
    Value value{};
    std::memcpy(&value, header.data() + at, sizeof value);
    return value;
}

} // namespace

int trace_wobu_init_buffer(trace_wobu_descriptor* descriptor, const char* name, unsigned int size)
{
    // never destroyed, like the platform
    static auto* const buffers = new std::map<std::string, trace_wobu_buffer>;
    *descriptor = &buffers->try_emplace(name, trace_wobu_buffer{name}).first->second;
    state().write(kindBuffer, "trace_wobu_init_buffer(" + quoted(name) + ", " + std::to_string(size) + ")");
    bufferIsNew = true;
    return 0;
}

int __wrap___cxa_atexit(void (*function)(void*), void* argument, void* library) noexcept
{
    if (bufferIsNew && argument == nullptr) {
        state().exitHandler = function;
        state().write(kindBuffer,
                      std::string{"__cxa_atexit(function, null, "} + (library == nullptr ? "null" : "library") + ")");
    }
    bufferIsNew = false;
    return __real___cxa_atexit(function, argument, library);
}

void trace_wobu_write_all(trace_wobu_descriptor descriptor, std::uint32_t hash, const char* format, int line, int type,
                          ...)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const int before = errno;
    TraceRecord record;
    record.hash = hash;
    record.line = line;
    record.format = format;
    std::va_list arguments;
    va_start(arguments, type);
    for (const char* at = std::strchr(format, '%'); at != nullptr; at = std::strchr(at, '%')) {
        if (*++at == '%') {
            ++at;
            continue;
        }
        record.arguments.push_back(argumentText(at, arguments));
    }
    va_end(arguments);

    std::array<char, 16> number{};
    std::snprintf(number.data(), number.size(), "0x%08X", hash);
    std::string call = std::string{"trace("} + number.data() + ", " + quoted(format);
    for (const std::string& argument : record.arguments) {
        call += ", " + argument;
    }
    call += ")";
    EXPECT_TRUE(descriptor != nullptr && descriptor->name == "kest")
        << call << ": into a buffer other than the library's";
    EXPECT_TRUE(record.format.starts_with(" %s") && record.arguments.front() != "null")
        << call << ": no function's name";
    EXPECT_EQ(0, type) << call;
    EXPECT_LT(0, line) << call;
    platform.write(hash == entryHash || hash == exitHash ? kindScope : kindTrace, call, line);
    platform.traceRecords.push_back(std::move(record));
    errno = before;
}

void trace_wobu_write2(trace_wobu_descriptor descriptor, int type, unsigned int headerSize, const void* header,
                       unsigned int dataSize, const void* data)
{
    Platform::Impl& platform = state();
    const std::scoped_lock lock{platform.mutex};
    const int before = errno;
    TraceRecord record;
    record.binary = true;
    if (header != nullptr) {
        record.header.assign(static_cast<const std::uint8_t*>(header),
                             static_cast<const std::uint8_t*>(header) + headerSize);
    }
    if (data != nullptr) {
        record.data.assign(static_cast<const std::uint8_t*>(data), static_cast<const std::uint8_t*>(data) + dataSize);
    }
    std::string call = "trace2(";
    if (record.header.size() == 12) {
        record.hash = headerField<std::uint32_t>(record.header, 4);
        record.line = headerField<std::int32_t>(record.header, 8);
        call += "n " + std::to_string(headerField<std::uint16_t>(record.header, 0)) + ", tag " +
                hexText(headerField<std::uint16_t>(record.header, 2)) + ", hash " + hexText(record.hash);
    } else {
        call += bytesText(record.header.data(), record.header.size());
    }
    call += ", " + bytesText(record.data.data(), record.data.size()) + ")";
    EXPECT_TRUE(descriptor != nullptr && descriptor->name == "kest")
        << call << ": into a buffer other than the library's";
    EXPECT_EQ(0, type) << call;
    EXPECT_EQ(dataSize, record.data.size()) << call << ": data without a pointer";
    platform.write(kindTrace, call, record.line);
    platform.traceRecords.push_back(std::move(record));
    errno = before;
}

NetcMessage::NetcMessage() : m_state(new State) {}
NetcMessage::~NetcMessage() { delete m_state; }
char* NetcMessage::dataPointer() const { return m_state->payload.empty() ? nullptr : m_state->payload.data(); }
unsigned int NetcMessage::dataSize() const { return static_cast<unsigned int>(m_state->payload.size()); }

bool NetcMessage::setData(const char* data, unsigned int size)
{
    m_state->payload.assign(data, data + size);
    return true;
}

namespace scripted
{

Message::Message(std::string name, std::uint16_t identifierGiven, std::uint16_t typeGiven, Bytes contents)
    : payload(std::move(contents)), m_name(std::move(name))
{
    identifier = identifierGiven;
    type = typeGiven;
}

char* Message::dataPointer() const
{
    return payload.empty() ? nullptr : reinterpret_cast<char*>(const_cast<std::uint8_t*>(payload.data()));
}

unsigned int Message::dataSize() const { return static_cast<unsigned int>(payload.size()); }

bool Message::setData(const char* data, unsigned int size)
{
    payload.assign(data, data + size);
    state().write(kindMessage, m_name + ".setData(" + detailsText(payload, 0) + ")");
    if (refusesData) {
        payload.clear();
    }
    return !refusesData;
}

StandardError::StandardError() { testing::internal::CaptureStderr(); }

StandardError::~StandardError()
{
    if (m_catching) {
        testing::internal::GetCapturedStderr();
    }
}

std::string StandardError::text()
{
    m_catching = false;
    return testing::internal::GetCapturedStderr();
}

} // namespace scripted
