/// The message service: it accepts clients, knows the rules, and ends cleanly.
#pragma once

#include <asio/basic_socket_acceptor.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tools/kestd/dispatch.h"
#include "tools/kestd/events.h"
#include "tools/kestd/listeningsocket.h"
#include "tools/kestd/places.h"
#include "tools/kestd/rules.h"
#include "tools/kestd/session.h"
#include "tools/kestd/workers.h"

namespace kest::service
{

class messageService : public sessionHost
{
public:
    messageService();
    messageService(const messageService&) = delete;
    messageService& operator=(const messageService&) = delete;
    ~messageService();

    /// Takes over a listening socket, or makes one at `path`. @return what went wrong, empty when nothing did
    std::string listen(int handedDescriptor, const std::string& path);

    /// Serves until SIGTERM or SIGINT, and then until everything accepted has been answered.
    /// @return what went wrong, empty when nothing did
    std::string run();

    workerPool& workers() override { return m_workers; }
    refusalLog& refusals() override { return m_refusals; }
    [[nodiscard]] std::uint64_t generation() const override { return m_generation.load(std::memory_order_acquire); }
    [[nodiscard]] std::shared_ptr<const serviceRules> rules() const override;
    void remove(clientSession& session) override;

    /// Accepts a few of those who have connected. For the service's own job.
    void acceptSome();

private:
    using unixStream = asio::local::stream_protocol;
    using unixAcceptor = asio::basic_socket_acceptor<unixStream, asio::io_context::executor_type>;

    void useConfiguration();
    void awaitClients();
    void takeClients();
    /// Calls `step` once the time has passed, on the thread that waits for events.
    void after(eventTimer& timer, std::chrono::steady_clock::duration pause, void (messageService::*step)());
    void pauseAccepting(int error);
    /// @return 0, or why none was
    int acceptOne();
    void admit(clientSession::clientSocket socket);
    void add(const std::shared_ptr<clientSession>& session);
    void doLater(std::function<void()> body);
    void awaitSignal();
    void reload();
    void stop();
    void tidy();
    void tellAlive();
    void feedWatchdog();

    clientPlaces m_places; ///< outlives the sessions, which the context may hold
    asio::io_context m_context;
    workerPool m_workers;
    refusalLog m_refusals;
    unixAcceptor m_acceptor;
    eventSignals m_signals;
    eventTimer m_acceptTimer;
    eventTimer m_tidyTimer;
    eventTimer m_watchdogTimer;
    std::optional<std::chrono::microseconds> m_watchdog;
    bool m_hangs = false; ///< a request, as the manager was told; for event handlers alone
    std::mutex m_reloading; ///< one at a time
    std::shared_ptr<serviceJob> m_listener;
    std::mutex m_listening; ///< of the acceptor and its timer
    listeningSocket m_ownSocket; ///< the one that this process made, if it did
    std::atomic<std::uint64_t> m_generation{0};
    mutable std::mutex m_lock; ///< of all that follows
    std::shared_ptr<const serviceRules> m_rules;
    std::map<clientSession*, std::shared_ptr<clientSession>> m_clients;
    bool m_stopping = false;
    bool m_tidying = false;
};

} // namespace kest::service
