#include "tools/kestd/trace.h"

namespace kest::service
{

trace_wobu_descriptor serviceTrace()
{
    constexpr unsigned traceBytes = 8192;
    static const trace_wobu_descriptor ring = [] {
        trace_wobu_descriptor made = nullptr;
        trace_wobu_init_buffer(&made, "kestd", traceBytes);
        return made;
    }();
    return ring;
}

} // namespace kest::service
