/// The process's trace rings: where they are kept.
///
/// A ring is made in memory. Making it reads and opens nothing, so it can be made while the process is still being
/// loaded. When the configuration is read for the first time, the rings move into files and stay readable after a
/// crash.
///
/// A child of a fork does not share them. It goes on with a copy of its parent's rings in memory, and gets files of its
/// own when it reads its configuration again or calls useTraceFolder(). (A child that only runs another program needs
/// none.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

namespace kest::host
{

/// Moves all rings, present and future, into files of this folder, which is made for the first of them. No line is
/// lost, not even of threads that trace meanwhile. Never fails: a ring without a file stays where it is, and a line in
/// it says why. For the folder that is already in use, only rings without a file are tried again. Makes system calls;
/// any thread may call it. Without memory rings stay where they are. If memory runs out in the middle of a move, lines
/// that are being written then may be missing.
void useTraceFolder(const std::filesystem::path& folder) noexcept;

/// Bytes of a ring of this process, laid out as in its file. Empty when there is none of that name.
std::vector<std::uint8_t> copyRing(const char* name);

} // namespace kest::host
