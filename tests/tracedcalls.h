/// The system calls of a piece of work, seen from outside by ptrace.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace kest::test
{

struct TracedCalls {
    std::vector<std::uint64_t> numbers; ///< of the system calls, in their order
    bool worked = false; ///< what the work returned
    std::string refusal; ///< why nothing could be traced here; empty when it could
};

/// Runs `work` three times in a child and traces the last time: the first ones let memory, tables and folders be made.
///
/// An ioctl that asks for an adapter's functions, or moves messages on a bus, does not reach the kernel. It is answered
/// as by an adapter of plain messages on whose bus every device acknowledges; a byte read is the number of its place in
/// its message. So /dev/null will do as an adapter's node.
/// @param work  returns whether it worked
TracedCalls traceCalls(const std::function<bool()>& work);

/// Makes `folder`/dev/i2c-0 such a node, and writes `folder`/kest.toml, in which node 0 is that folder. The locks and all
/// state lie in the folder, too. @return the configuration's path. Throws std::filesystem::filesystem_error.
std::filesystem::path makeTracedAdapter(const std::filesystem::path& folder);

} // namespace kest::test
