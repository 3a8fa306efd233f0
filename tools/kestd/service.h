/// The message service: its listening socket, its clients, its settings.
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tools/kestd/devices.h"
#include "tools/kestd/dispatch.h"
#include "tools/kestd/permissions.h"
#include "tools/kestd/places.h"
#include "tools/kestd/session.h"
#include "tools/kestd/workers.h"

namespace kest::service
{

/// What a configuration says about the service, worked out. Not changed once it is in use.
struct Settings {
    host::serviceSettings limits;
    Permissions permissions;
    Devices devices;
    std::uint64_t generation = 0;
};

class Service
{
public:
    Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service();

    /// Takes over a listening socket, or makes one at `path`. @return what went wrong, empty when nothing did
    std::string listen(int handedDescriptor, const std::string& path);

    /// Serves until SIGTERM or SIGINT, and then until everything accepted has been answered.
    /// @return what went wrong, empty when nothing did
    std::string run();

    // For the sessions.
    Workers& workers() { return m_workers; }
    RefusalLog& refusals() { return m_refusals; }
    [[nodiscard]] std::uint64_t generation() const { return m_generation.load(std::memory_order_acquire); }
    [[nodiscard]] std::shared_ptr<const Settings> settings() const;
    void remove(Session& session);

    /// Accepts a few of those who have connected. For the service's own job.
    void acceptSome();

private:
    using Protocol = asio::local::stream_protocol;

    std::string makeSocket(const std::string& path);
    void useSettings();
    void awaitClients();
    void pauseAccepting(int error);
    /// @return 0, or why none was
    int acceptOne();
    void admit(Protocol::socket socket);
    void add(const std::shared_ptr<Session>& session);
    void doLater(std::function<void()> body);
    void awaitSignal();
    void reload();
    void stop();
    void tidy();
    void feedWatchdog();

    Places m_places; ///< outlives the sessions, which the context may hold
    asio::io_context m_context;
    Workers m_workers;
    RefusalLog m_refusals;
    Protocol::acceptor m_acceptor;
    asio::signal_set m_signals;
    asio::steady_timer m_acceptTimer;
    asio::steady_timer m_tidyTimer;
    asio::steady_timer m_watchdogTimer;
    std::optional<std::chrono::microseconds> m_watchdog;
    std::mutex m_reloading; ///< one at a time
    std::shared_ptr<Job> m_listener;
    std::mutex m_listening; ///< of the acceptor and its timer
    std::string m_ownPath; ///< of the socket that this process made
    int m_ownLock = -1;
    std::atomic<std::uint64_t> m_generation{0};
    mutable std::mutex m_lock; ///< of all that follows
    std::shared_ptr<const Settings> m_settings;
    std::map<Session*, std::shared_ptr<Session>> m_clients;
    bool m_stopping = false;
    bool m_tidying = false;
};

} // namespace kest::service
