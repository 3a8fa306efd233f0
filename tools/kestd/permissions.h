/// Who may read and write through the service.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/host/configuration/configuration.h"

namespace kest::service
{

/// The process at the other end of a connection, as the kernel reports it.
struct peerProcess {
    uid_t uid = static_cast<uid_t>(-1);
    pid_t pid = 0;
    std::vector<gid_t> groups; ///< that the process had when it connected
};

/// @return the peer of a connected socket; with an impossible user when there is none. Never waits
peerProcess peerOf(int descriptor);

struct permissionSet {
    bool read = false;
    bool write = false;
    bool raw = false; ///< may name any device, not only those of the device table; permits nothing by itself
    [[nodiscard]] bool any() const { return read || write; }
};

/// The permissions of a configuration. Root and the user that the service runs as may read and write the devices of the
/// device table.
class permissionTable
{
public:
    /// Asks the user database. An unknown name permits nobody and is listed in unknown().
    explicit permissionTable(const host::serviceSettings& settings);

    [[nodiscard]] permissionSet of(const peerProcess& peer) const;
    [[nodiscard]] const std::vector<std::string>& unknown() const { return m_unknown; }

private:
    struct accountList {
        std::vector<uid_t> users;
        std::vector<gid_t> groups;
        [[nodiscard]] bool has(const peerProcess& peer) const;
    };
    accountList accountsOf(const std::vector<std::string>& users, const std::vector<std::string>& groups);

    uid_t m_owner;
    std::vector<std::string> m_unknown;
    accountList m_read;
    accountList m_write;
    accountList m_raw;
};

} // namespace kest::service
