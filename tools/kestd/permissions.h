/// Who may read and write through the service.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/host/configuration/configuration.h"

namespace kest::service
{

/// The process at the other end of a connection, as the kernel vouches for it.
struct Peer {
    uid_t uid = static_cast<uid_t>(-1);
    pid_t pid = 0;
    std::vector<gid_t> groups; ///< that the process had when it connected
};

/// @return the peer of a connected socket; with an impossible user when there is none. Never waits
Peer peerOf(int descriptor);

struct Permission {
    bool read = false;
    bool write = false;
    bool raw = false; ///< to name any device; else those of the device table. Nothing by itself
    [[nodiscard]] bool any() const { return read || write; }
};

/// The permissions of a configuration. Root and the user that the service runs as may read and write the devices of the
/// device table.
class Permissions
{
public:
    /// Asks the user database. A name that it does not know permits nobody and is noted in unknown().
    explicit Permissions(const host::serviceSettings& settings);

    [[nodiscard]] Permission of(const Peer& peer) const;
    [[nodiscard]] const std::vector<std::string>& unknown() const { return m_unknown; }

private:
    struct Accounts {
        std::vector<uid_t> users;
        std::vector<gid_t> groups;
        [[nodiscard]] bool has(const Peer& peer) const;
    };
    Accounts accountsOf(const std::vector<std::string>& users, const std::vector<std::string>& groups);

    uid_t m_owner;
    std::vector<std::string> m_unknown;
    Accounts m_read;
    Accounts m_write;
    Accounts m_raw;
};

} // namespace kest::service
