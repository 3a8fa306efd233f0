/// The failures of requests to the message service.
#pragma once

#include <string>

#include "tools/client/client.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

/// Throws a `failure` unless the request was served. @param step  what was being done: "read by message"
void requireServed(const client::answer& answer, const device& which, const std::string& step);

} // namespace kest::tools
