#include "tools/kestd/listeningsocket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace kest::service
{
namespace
{

constexpr int backlog = 256;
constexpr mode_t ownersAlone = 0600;
/// Everybody may connect. Each request is checked, and a client that is not permitted gets a reply that says so.
constexpr mode_t everybodys = 0666;

std::string because(const std::string& what) { return what + ": " + std::strerror(errno); }

} // namespace

listeningSocket::~listeningSocket()
{
    if (m_lock >= 0) {
        close(m_lock);
    }
}

std::string listeningSocket::make(const std::string& path)
{
    if (path.empty() || path.size() >= sizeof sockaddr_un::sun_path) {
        return "'" + path + "' cannot be a socket: its path has more than 107 bytes, or none";
    }
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty()) {
        std::error_code ignored;
        std::filesystem::create_directories(folder, ignored);
    }
    std::string error = lock(path);
    if (error.empty()) {
        error = listenAt(path);
    }
    return error;
}

std::string listeningSocket::lock(const std::string& path)
{
    struct flock whole {
    };
    whole.l_type = F_WRLCK;
    const std::string file = path + ".lock";
    m_lock = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, ownersAlone);
    if (m_lock < 0) {
        return because(file);
    }
    if (fcntl(m_lock, F_OFD_SETLK, &whole) == 0) {
        return {};
    }
    const bool isHeld = errno == EAGAIN || errno == EACCES;
    return isHeld ? path + ": another service listens there" : because(file);
}

/// The lock is held, so an existing socket has no service.
std::string listeningSocket::listenAt(const std::string& path)
{
    struct stat status {
    };
    if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        unlink(path.c_str());
    }
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (made < 0) {
        return because(path);
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), everybodys) != 0 || listen(made, backlog) != 0) {
        std::string error = because(path);
        close(made);
        return error;
    }
    m_path = path;
    m_descriptor = made;
    return {};
}

void listeningSocket::giveUpName()
{
    unlink(m_path.c_str());
    m_path.clear();
    close(m_lock);
    m_lock = -1;
}

} // namespace kest::service
