#include "tools/common/recoverywatch.h"

#include <fmt/core.h>
#include <string>

#include "platform/host/trace/collect.h"
#include "platform/trace.h"

namespace kest::tools
{
namespace
{

constexpr unsigned bufferBytes = 8092;
constexpr const char* marker = "kestctl hub read";

int nextNumber()
{
    static int number = 0;
    return ++number;
}

} // namespace

recoveryWatch::recoveryWatch() : m_number(nextNumber())
{
    trace_wobu_descriptor buffer = nullptr;
    trace_wobu_init_buffer(&buffer, "kest", bufferBytes);
    trace_wobu_write_all(buffer, 0, " %s,%d", __LINE__, 0, marker, m_number);
}

bool recoveryWatch::recovered() const
{
    const std::string lines = host::collectTrace("kest", bufferBytes);
    const std::size_t from = lines.rfind(fmt::format("{},{}", marker, m_number));
    return from == std::string::npos || lines.find("kest_checkAndHandle922HubErr,", from) != std::string::npos;
}

} // namespace kest::tools
