#include "tools/kestd/permissions.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kest::service
{
namespace
{

// of the user database; doubled until a record fits
constexpr std::size_t firstRecordBytes = 4096;
constexpr std::size_t lastRecordBytes = 1 << 20;

/// Calls one of the user database's reentrant look-ups with a buffer that is large enough. @return whether there was a
/// record
template <typename Record, typename Lookup>
bool lookUp(Record& record, std::vector<char>& buffer, const Lookup& lookup)
{
    Record* found = nullptr;
    int result = ERANGE;
    for (std::size_t bytes = firstRecordBytes; result == ERANGE && bytes <= lastRecordBytes; bytes *= 2) {
        buffer.resize(bytes);
        result = lookup(&record, buffer.data(), buffer.size(), &found);
    }
    return found != nullptr;
}

std::optional<std::uint32_t> numberOf(const std::string& text)
{
    std::uint32_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::optional<uid_t> userOf(const std::string& name)
{
    std::optional<uid_t> user = numberOf(name);
    std::vector<char> buffer;
    passwd record{};
    if (!user &&
        lookUp(record, buffer, [&name](auto... arguments) { return getpwnam_r(name.c_str(), arguments...); })) {
        user = record.pw_uid;
    }
    return user;
}

std::optional<gid_t> groupOf(const std::string& name)
{
    std::optional<gid_t> number = numberOf(name);
    std::vector<char> buffer;
    group record{};
    if (!number &&
        lookUp(record, buffer, [&name](auto... arguments) { return getgrnam_r(name.c_str(), arguments...); })) {
        number = record.gr_gid;
    }
    return number;
}

/// The groups that the peer's process had when it connected. It may have given up groups that the user database has for
/// its user.
std::vector<gid_t> groupsOf(int descriptor, gid_t group)
{
    constexpr std::size_t usualGroups = 64;
    std::vector<gid_t> groups(usualGroups);
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    int result = getsockopt(descriptor, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    // `size` is what it takes
    if (result != 0 && errno == ERANGE) {
        groups.resize(size / sizeof(gid_t));
        result = getsockopt(descriptor, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    }
    groups.resize(result == 0 ? size / sizeof(gid_t) : 0);
    groups.push_back(group);
    return groups;
}

} // namespace

peerProcess peerOf(int descriptor)
{
    peerProcess peer;
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
        peer.uid = credentials.uid;
        peer.pid = credentials.pid;
        peer.groups = groupsOf(descriptor, credentials.gid);
    }
    return peer;
}

permissionTable::permissionTable(const host::serviceSettings& settings)
    : m_owner(geteuid()), m_read(accountsOf(settings.readUsers, settings.readGroups)),
      m_write(accountsOf(settings.writeUsers, settings.writeGroups)),
      m_raw(accountsOf(settings.rawUsers, settings.rawGroups))
{
}

permissionSet permissionTable::of(const peerProcess& peer) const
{
    const bool all = peer.uid == 0 || peer.uid == m_owner;
    return {all || m_read.has(peer), all || m_write.has(peer), m_raw.has(peer)};
}

bool permissionTable::accountList::has(const peerProcess& peer) const
{
    const auto isListed = [this](gid_t group) { return std::ranges::find(groups, group) != groups.end(); };
    return std::ranges::find(users, peer.uid) != users.end() || std::ranges::any_of(peer.groups, isListed);
}

permissionTable::accountList permissionTable::accountsOf(const std::vector<std::string>& users,
                                                         const std::vector<std::string>& groups)
{
    accountList accounts;
    const auto add = [this](auto& list, const auto& number, const std::string& name, const char* what) {
        if (number) {
            list.push_back(*number);
        } else {
            m_unknown.push_back(std::string(what) + " '" + name + "'");
        }
    };
    for (const std::string& name : users) {
        add(accounts.users, userOf(name), name, "user");
    }
    for (const std::string& name : groups) {
        add(accounts.groups, groupOf(name), name, "group");
    }
    return accounts;
}

} // namespace kest::service
