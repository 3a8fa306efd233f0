/// The error log's last resort: standard error.
#pragma once

#include <string_view>

namespace kest::host
{

/// Tells standard error a text, a second at most: what a full pipe doesn't take until then is given up. Allocates
/// nothing. Any thread; hold no lock that others wait for.
void tellStandardError(std::string_view text) noexcept;

} // namespace kest::host
