/// The trace ring of the service.
#pragma once

#include "platform/trace.h"

namespace kest::service
{

/// Made at first use.
trace_wobu_descriptor serviceTrace();

} // namespace kest::service
