/// The floor of the message service: what any service that reads from a copy has to do.
#pragma once

#include <filesystem>

namespace kest::bench
{

/// Serves any number of clients at a socket, on the event loop that the service uses, too. Each frame is handed to a
/// worker, which opens the copy, reads what is asked for, closes the copy and sends the reply. Checks nothing. Never
/// returns.
void runEcho(const std::filesystem::path& socket, const std::filesystem::path& copy);

} // namespace kest::bench
