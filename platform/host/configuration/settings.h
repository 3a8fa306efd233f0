/// What the host platform can be configured to do.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace kest::host
{

/// Bytes that a device has at an offset.
struct expectedBytes {
    std::uint32_t offset = 0;
    std::vector<std::uint8_t> bytes; ///< at least one
};

/// One row of the VPD service's device table.
struct deviceEntry {
    std::uint32_t number = 0; ///< of 0, messages in file and mixed mode: they carry no number
    std::uint32_t position = 0; ///< number and position together are unique
    std::string location; ///< device text, at most 255 bytes
    std::string name; ///< for people; unique
    std::vector<expectedBytes> expect = {}; ///< by which the part is known; empty: not by these
    std::string expectFormat = {}; ///< name of the format of its contents; empty: any
    bool widthProved = false; ///< writes need no proof of the type's offset width
};

/// What a node number stands for. Unmapped nodes have both empty.
struct nodeMapping {
    std::string pathPrefix; ///< put before a `/dev/i2c-N` path
    std::string simNode; ///< node of the simulated machine whose buses `sim:` paths name
    [[nodiscard]] bool mapped() const { return !pathPrefix.empty() || !simNode.empty(); }
};

/// By node number.
using nodeMap = std::array<nodeMapping, 8>;

/// Limits and permissions of the message service.
struct serviceSettings {
    /// Default: /run/kest/kestd.socket; stateFolder / "kestd.socket" where the file names another state folder.
    std::filesystem::path socket;
    std::uint32_t maxClients = 256;
    std::uint32_t maxClientsPerUser = 64;
    std::uint32_t maxWorking = 64; ///< requests in work at the same time
    std::uint32_t maxWorkingPerUser = 16;
    std::uint32_t maxPayloadBytes = 65536 + 512; ///< a request's payload: 64 KiB of data and its head
    std::uint32_t idleSeconds = 300; ///< a silent client is dropped after this; 0 never
    std::uint32_t busySeconds = 30; ///< how long a request waits for a device that others have; 0 not at all
    std::vector<std::string> readUsers; ///< user names or numbers that may read besides the owner and root
    std::vector<std::string> readGroups;
    std::vector<std::string> writeUsers;
    std::vector<std::string> writeGroups;
    std::vector<std::string> rawUsers; ///< may name any device, not only those of the device table
    std::vector<std::string> rawGroups;
};

/// What kestctl does where its command line does not say otherwise.
struct commandDefaults {
    bool quiet = false;
    std::uint32_t verbose = 0; ///< 0 to 2
    bool json = false;
    std::string colour = "auto"; ///< or "always", "never"
    std::uint64_t timeoutNs = 0; ///< of a whole command; 0 none
    std::uint64_t waitNs = 30'000'000'000; ///< for others who have a device
    bool retries = true;
    std::uint32_t voted = 1; ///< reads whose majority counts: odd, 3 to 15; 1 no vote
    bool verify = true; ///< read back and compare what was written
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
    std::uint64_t wearLimit = 0; ///< page writes in a group of pages that are warned of when there are more; 0 none
    std::uint32_t undoKeep = 50; ///< undo files of one device; 0 all
    std::uint32_t undoDays = 90; ///< undo files that are older go, but for a device's latest; 0 none
    std::map<std::string, std::string> registry; ///< key to value; always has "tavo/ReadMode"
    nodeMap nodes;
    std::vector<deviceEntry> devices;
    serviceSettings service;
    commandDefaults defaults;
};

/// Fills in the settings that the file left open and that depend on others.
void complete(configuration& value);

/// @return the value of an environment variable; null when it is unset or empty, or when the process may not trust its
/// environment
const char* environment(const char* name);

} // namespace kest::host
