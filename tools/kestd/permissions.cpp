#include "tools/kestd/permissions.h"

#include <algorithm>
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

constexpr std::size_t firstRecordBytes = 4096; // of the user database; doubled until a record fits
constexpr std::size_t lastRecordBytes  = 1 << 20;

/// Calls one of the database's reentrant look-ups with a buffer that is large enough. @return whether there was a record
template <typename Record, typename Lookup>
bool lookUp(Record& record, std::vector<char>& buffer, const Lookup& lookup)
{
    Record* found  = nullptr;
    int     result = ERANGE;
    for (std::size_t bytes = firstRecordBytes; result == ERANGE && bytes <= lastRecordBytes; bytes *= 2) {
        buffer.resize(bytes);
        result = lookup(&record, buffer.data(), buffer.size(), &found);
    }
    return found != nullptr;
}

std::optional<std::uint32_t> numberOf(const std::string& text)
{
    std::uint32_t number = 0;
    const auto    parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    return parsed.ec == std::errc() && parsed.ptr == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::optional<uid_t> userOf(const std::string& name)
{
    std::optional<uid_t> user = numberOf(name);
    std::vector<char>    buffer;
    passwd               record{};
    if (!user &&
        lookUp(record, buffer, [&name](auto... arguments) { return getpwnam_r(name.c_str(), arguments...); })) {
        user = record.pw_uid;
    }
    return user;
}

std::optional<gid_t> groupOf(const std::string& name)
{
    std::optional<gid_t> number = numberOf(name);
    std::vector<char>    buffer;
    group                record{};
    if (!number &&
        lookUp(record, buffer, [&name](auto... arguments) { return getgrnam_r(name.c_str(), arguments...); })) {
        number = record.gr_gid;
    }
    return number;
}

/// All groups of a user, the given one among them.
std::vector<gid_t> groupsOf(uid_t user, gid_t group)
{
    std::vector<gid_t> groups{group};
    std::vector<char>  buffer;
    passwd             record{};
    if (lookUp(record, buffer, [user](auto... arguments) { return getpwuid_r(user, arguments...); })) {
        int count = 64;
        groups.resize(static_cast<std::size_t>(count));
        while (getgrouplist(record.pw_name, group, groups.data(), &count) < 0 &&
               count > static_cast<int>(groups.size())) {
            groups.resize(static_cast<std::size_t>(count));
        }
        groups.resize(std::min(groups.size(), static_cast<std::size_t>(std::max(count, 0))));
    }
    return groups;
}

} // namespace

Peer peerOf(int descriptor)
{
    Peer      peer;
    ucred     credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
        peer.uid    = credentials.uid;
        peer.pid    = credentials.pid;
        peer.groups = groupsOf(credentials.uid, credentials.gid);
    }
    return peer;
}

Permissions::Permissions(const host::serviceSettings& settings)
    : m_owner(geteuid()), m_read(accountsOf(settings.readUsers, settings.readGroups)),
      m_write(accountsOf(settings.writeUsers, settings.writeGroups))
{
}

Permission Permissions::of(const Peer& peer) const
{
    const bool all = peer.uid == 0 || peer.uid == m_owner;
    return {all || m_read.has(peer), all || m_write.has(peer)};
}

bool Permissions::Accounts::has(const Peer& peer) const
{
    const auto isListed = [this](gid_t group) { return std::ranges::find(groups, group) != groups.end(); };
    return std::ranges::find(users, peer.uid) != users.end() || std::ranges::any_of(peer.groups, isListed);
}

Permissions::Accounts Permissions::accountsOf(const std::vector<std::string>& users,
                                              const std::vector<std::string>& groups)
{
    Accounts   accounts;
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
