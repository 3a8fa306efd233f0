/// What the trace tests share.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/host/trace/image.h"
#include "platform/host/trace/reader.h"
#include "platform/host/trace/render.h"
#include "platform/host/trace/rings.h"
#include "platform/trace.h"
#include "tests/sanitizers.h"
#include "tests/temporaryfolder.h"

namespace kest::test
{

/// A ring of the test's own; each name makes one per process.
trace_wobu_descriptor newRing(const char* name, unsigned size = 8092);

std::vector<host::traceRecord> recordsOf(const char* name);

std::vector<std::string> textsOf(const std::vector<host::traceRecord>& records);

/// Runs `body` in a child process. @return its exit code, or 256 and the signal that ended it
int inChild(const std::function<int()>& body);

} // namespace kest::test
