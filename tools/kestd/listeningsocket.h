/// The socket at which the service listens, unless one was handed over.
#pragma once

#include <string>

namespace kest::service
{

/// A Unix stream socket with a name. A lock beside it shows whether a service still runs, or left the socket behind.
class listeningSocket
{
public:
    listeningSocket() = default;
    listeningSocket(const listeningSocket&) = delete;
    listeningSocket& operator=(const listeningSocket&) = delete;
    ~listeningSocket();

    /// Makes the socket and its folder. @return what went wrong, empty when nothing did
    [[nodiscard]] std::string make(const std::string& path);
    /// The descriptor of the socket that was made, owned by the caller from now on.
    [[nodiscard]] int descriptor() const { return m_descriptor; }

    /// Whether a socket was made and still has its name.
    [[nodiscard]] bool isOurs() const { return !m_path.empty(); }
    /// Removes the name and the lock, so that a successor can begin.
    void giveUpName();

private:
    std::string lock(const std::string& path);
    std::string listenAt(const std::string& path);

    std::string m_path; ///< empty: none was made
    int m_lock = -1;
    int m_descriptor = -1;
};

} // namespace kest::service
