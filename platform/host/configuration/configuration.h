/// The host platform's configuration: kest.toml, or defaults. docs/configuration.md describes the file.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace kest::host
{

/// One row of the VPD service's device table.
struct deviceEntry {
    std::uint32_t number = 0; ///< of 0, messages in file and mixed mode: they carry no number
    std::uint32_t position = 0; ///< number and position together are unique
    std::string location; ///< device text, at most 255 bytes
    std::string name; ///< for people; unique
};

/// What a node number stands for. Unmapped nodes have both empty.
struct nodeMapping {
    std::string pathPrefix; ///< put ahead of a `/dev/i2c-N` path
    std::string simNode; ///< node of the simulated machine whose buses `sim:` paths name
    [[nodiscard]] bool mapped() const { return !pathPrefix.empty() || !simNode.empty(); }
};

/// Limits and permissions of the message service.
struct serviceSettings {
    std::filesystem::path
        socket; ///< default: /run/kest/kestd.socket beside /var/lib/kest, else stateFolder / "kestd.socket"
    std::uint32_t maxClients = 256;
    std::uint32_t maxClientsPerUser = 64;
    std::uint32_t maxWorking = 64; ///< requests in work at the same time
    std::uint32_t maxWorkingPerUser = 16;
    std::uint32_t maxPayloadBytes = 65536 + 512; ///< a request's payload: 64 KiB of data and its head
    std::uint32_t idleSeconds = 300; ///< a silent client is dropped after this; 0 never
    std::vector<std::string> readUsers; ///< user names or numbers that may read besides the owner and root
    std::vector<std::string> readGroups;
    std::vector<std::string> writeUsers;
    std::vector<std::string> writeGroups;
    std::vector<std::string> rawUsers; ///< may name any device, not only those of the device table
    std::vector<std::string> rawGroups;
};

struct configuration {
    std::filesystem::path file; ///< empty: built-in defaults
    std::filesystem::path stateFolder; ///< error log, persisted copies, undo files
    std::filesystem::path traceFolder; ///< default: stateFolder / "trace"
    std::filesystem::path lockFolder; ///< of Linux buses: /run/lock/kest
    std::filesystem::path machineFolder; ///< of the simulated machine; empty: none
    bool machineRealTime = false;
    bool setAdapterTimeout = false; ///< change the adapter-wide I2C_TIMEOUT for a transfer, and set it to 1 s after it
    std::uint32_t errorLogMaxEntries = 10000;
    std::uint64_t errorLogMaxBytes = 64ull << 20;
    std::filesystem::path errorLogSpoolFolder; ///< takes entries when stateFolder can't: /var/tmp/kest-UID
    std::map<std::string, std::string> registry; ///< key to value; always has "tavo/ReadMode"
    std::array<nodeMapping, 8> nodes;
    std::vector<deviceEntry> devices;
    serviceSettings service;
};

/// A configuration, or why there is none.
struct configurationResult {
    configuration value; ///< defaults when `error` is not empty
    std::string error; ///< "FILE:LINE:COLUMN: key 'K': expected ..., found ...", or "... 'K': no TOML: ..."
};

/// Reads one file. Relative paths in it count from the file's folder. Of several faults the first in the file is told.
configurationResult readConfiguration(const std::filesystem::path& file);

/// The process's configuration, read at first use from the file given to useConfigurationFile(), $KEST_CONFIG,
/// /etc/kest/kest.toml, else defaults. An unusable file gives the defaults, and configurationError() says why. Any
/// thread, static initialisation included. With it the trace folder is known: the process's trace rings move there.
/// Throws std::bad_alloc when there is no memory for the first reading; the next call tries again.
const configuration& currentConfiguration();
/// @return what was wrong with the file, empty when nothing was
const std::string& configurationError();
/// Names the file ahead of first use (`--config`). @return false when the configuration has been read already
bool useConfigurationFile(const std::filesystem::path& file);
/// Reads the file again and, when it is good, makes it the current one; references handed out before stay valid. The
/// trace follows.
/// @return what was wrong, "no memory" included; empty when nothing was
std::string reloadConfiguration() noexcept;

} // namespace kest::host
