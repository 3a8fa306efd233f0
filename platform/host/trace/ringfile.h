/// Ring files and their folder.
#pragma once

#include <cstddef>
#include <filesystem>

namespace kest::host::trace
{

constexpr const char* ringFileSuffix = ".ring";

/// A trace folder keeps so many files of dead processes, the latest ones. When a process adds its own, older ones are
/// removed.
constexpr std::size_t maximumDeadRings = 64;

/// A mapped ring file. The open descriptor holds a lock, by which readers see that the process is alive.
struct ringFileHandle {
    void* memory = nullptr; ///< never unmapped: writers may hold its address
    int descriptor = -1;
    char path[512] = {};
};

/// Makes a file of zeros, with its room on the disk reserved: a full disk must not stop a writer later.
/// @param folder  must exist, see openFolder()
/// @return `memory` null with `errno`
ringFileHandle createRingFile(const char* folder, const char* bufferName, std::size_t bytes);

/// Closes the file, which remains. Takes no lock and no memory: called between fork and exec.
void closeRingFile(ringFileHandle& file);
/// Closes the file and removes it.
void removeRingFile(ringFileHandle& file) noexcept;

/// Whether the process that writes the file open at `descriptor` is alive.
bool isWriterAlive(int descriptor);

/// Removes the oldest files of dead processes beyond the number that a folder keeps.
void removeOldRings(const std::filesystem::path& folder);

} // namespace kest::host::trace
