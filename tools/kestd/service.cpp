#include "tools/kestd/service.h"

#include <asio/executor_work_guard.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fmt/core.h>
#include <new>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "base/clock.h"
#include "platform/host/trace/hash.h"
#include "platform/trace.h"
#include "tools/kestd/systemd.h"
#include "tools/kestd/trace.h"

namespace kest::service
{
namespace
{

using namespace std::chrono_literals;

/// Before requests have their turn.
constexpr int acceptsAtOnce = 2;
constexpr auto tidyInterval = 1s;
/// When there are no descriptors left.
constexpr auto acceptPause = 100ms;
/// When there is no memory left.
constexpr auto memoryPause = 10ms;
/// Of the watchdog. A request that has been at work for as long is taken for hung.
constexpr int hungIntervals = 10;
/// For a client to take its last replies once the service is to end.
constexpr std::int64_t lastReplyMs = 5000;

void note(const std::string& text) { fmt::print(stderr, "kestd: {}\n", text); }

/// Says that a request hangs, or does so no longer. Without memory nothing is said.
void tellHung(bool hangs, std::chrono::seconds limit) noexcept
{
    try {
        const std::string status =
            hangs ? fmt::format("a request has been at work for {} s and is taken for hung", limit.count())
                  : "the request that was taken for hung has ended";
        note(status);
        notify(("STATUS=" + status).c_str());
    } catch (const std::exception&) {
        return;
    }
}

/// Something to do, without which the service does not end.
class serviceTask : public serviceJob
{
public:
    serviceTask(asio::io_context& context, std::shared_ptr<jobShare> share, std::function<void()> body)
        : serviceJob(std::move(share)), m_work(context.get_executor()), m_body(std::move(body))
    {
    }
    void run() override { m_body(); }

private:
    asio::executor_work_guard<asio::io_context::executor_type> m_work;
    std::function<void()> m_body;
};

/// Accepts the clients that have connected.
class acceptJob : public serviceJob
{
public:
    acceptJob(messageService& service, std::shared_ptr<jobShare> share)
        : serviceJob(std::move(share)), m_service(service)
    {
    }
    void run() override { m_service.acceptSome(); }

private:
    messageService& m_service;
};

/// Does what the service can't run without, as soon as there is memory for it.
template <typename Body>
void insist(const Body& body)
{
    for (;;) {
        try {
            body();
            return;
        } catch (const std::bad_alloc&) {
            std::this_thread::sleep_for(memoryPause);
        }
    }
}

/// Tells a client that there is no room for it. Does not wait for one that does not read that.
void turnAway(int descriptor)
{
    const client::frame reply = refusal({}, client::codeTooManyClients, 0,
                                        "this service has as many clients as it takes, in all or of one user");
    const std::vector<std::uint8_t> bytes = client::encodeFrame(reply);
    (void)send(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::string because(const std::string& what) { return what + ": " + std::strerror(errno); }

} // namespace

void messageService::doLater(std::function<void()> body)
{
    m_workers.submit(std::make_shared<serviceTask>(m_context, m_workers.own(), std::move(body)));
}

messageService::messageService()
    : m_workers(m_context), m_acceptor(m_context), m_signals(m_context), m_acceptTimer(m_context),
      m_tidyTimer(m_context), m_watchdogTimer(m_context), m_watchdog(watchdogInterval()),
      m_listener(std::make_shared<acceptJob>(*this, m_workers.own()))
{
    useConfiguration();
}

messageService::~messageService() = default;

// ------------------------------------------------------------------------------------------------------------- settings

/// Works out the current configuration. Sessions take it over at their next request.
void messageService::useConfiguration()
{
    const auto& current = host::currentConfiguration();
    const auto& limits = current.service;
    auto rules = std::make_shared<const serviceRules>(
        serviceRules{limits, permissionTable(limits), deviceDirectory(current), m_generation.load() + 1});
    m_workers.setLimits(limits.maxWorking, limits.maxWorkingPerUser);
    for (const std::string& name : rules->permissions.unknown()) {
        note("the configuration permits " + name + ", which this machine does not know");
    }
    const std::lock_guard guard(m_lock);
    m_generation.store(rules->generation, std::memory_order_release);
    m_rules = std::move(rules);
}

std::shared_ptr<const serviceRules> messageService::rules() const
{
    const std::lock_guard guard(m_lock);
    return m_rules;
}

void messageService::reload()
{
    const std::lock_guard guard(m_reloading);
    notifyReloading();
    const std::string error = host::reloadConfiguration();
    if (error.empty()) {
        useConfiguration();
        adoptReadMode();
        note("configuration read again");
    } else {
        note(error + " (the configuration stays as it was)");
    }
    notify("READY=1");
}

// ----------------------------------------------------------------------------------------------------- listening socket

std::string messageService::listen(int handedDescriptor, const std::string& path)
{
    if (handedDescriptor >= 0) {
        fcntl(handedDescriptor, F_SETFL, fcntl(handedDescriptor, F_GETFL) | O_NONBLOCK);
        m_acceptor.assign(unixStream(), handedDescriptor);
        return {};
    }
    std::string error = m_ownSocket.make(path);
    if (error.empty()) {
        m_acceptor.assign(unixStream(), m_ownSocket.descriptor());
    }
    return error;
}

// -------------------------------------------------------------------------------------------------------------- clients

/// Accepting takes turns with the requests, so that a client that connects again and again holds up nobody.
void messageService::awaitClients()
{
    insist(
        [this] { m_acceptor.async_wait(unixAcceptor::wait_read, [this](const asio::error_code&) { takeClients(); }); });
}

void messageService::takeClients() { m_workers.submit(m_listener); }

void messageService::after(eventTimer& timer, std::chrono::steady_clock::duration pause, void (messageService::*step)())
{
    insist([&] { timer.start(pause, [this, step] { (this->*step)(); }); });
}

void messageService::acceptSome()
{
    const std::lock_guard guard(m_listening);
    int error = 0;
    if (!m_acceptor.is_open()) {
        return;
    }
    for (int accepted = 0; accepted < acceptsAtOnce && error == 0; ++accepted) {
        error = acceptOne();
    }
    if (error == 0 || error == EAGAIN || error == EWOULDBLOCK) {
        awaitClients();
    } else {
        pauseAccepting(error);
    }
}

/// Without descriptors or memory, clients that connect wait until there are some again.
void messageService::pauseAccepting(int error)
{
    trace_wobu_write_all(serviceTrace(), host::messageHash("no client could be accepted"), " %s,%d", __LINE__, 0,
                         "acceptSome", error);
    after(m_acceptTimer, acceptPause, &messageService::takeClients);
}

int messageService::acceptOne()
{
    const int descriptor = accept4(m_acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) {
        // the client has gone again, or there is none
        return errno == ECONNABORTED || errno == EINTR ? 0 : errno;
    }
    clientSession::clientSocket socket(m_context);
    bool taken = false;
    try {
        socket.assign(unixStream(), descriptor);
        taken = true;
        admit(std::move(socket));
    } catch (const std::exception&) {
        // no memory for this client; a socket that took the descriptor closes it
        if (!taken) {
            close(descriptor);
        }
        trace_wobu_write_all(serviceTrace(), host::messageHash("no memory for a new client"), " %s", __LINE__, 0,
                             "acceptOne");
    }
    return 0;
}

/// Admits a client or turns it away, at once: no client waits in between with a descriptor.
void messageService::admit(clientSession::clientSocket socket)
{
    const auto rules = this->rules();
    peerProcess peer = peerOf(socket.native_handle());
    const bool stranger = !rules->permissions.of(peer).any();
    trace_wobu_write_all(serviceTrace(), host::messageHash("client connected"), " %s,%d,%d", __LINE__, 0, "admit",
                         static_cast<int>(peer.uid), static_cast<int>(peer.pid));
    clientPlace place = m_places.take(peer.uid, stranger, {rules->limits.maxClients, rules->limits.maxClientsPerUser});
    if (place) {
        add(std::make_shared<clientSession>(*this, std::move(socket), std::move(peer), std::move(place)));
    } else {
        turnAway(socket.native_handle());
    }
}

void messageService::add(const std::shared_ptr<clientSession>& session)
{
    bool first = false;
    {
        const std::lock_guard guard(m_lock);
        m_clients.emplace(session.get(), session);
        first = !std::exchange(m_tidying, true);
        if (m_stopping) {
            session->finish();
        }
    }
    m_workers.submit(session);
    if (first) {
        after(m_tidyTimer, 0s, &messageService::tidy);
    }
}

void messageService::remove(clientSession& session)
{
    // its connection is closed after the lock
    std::shared_ptr<clientSession> removed;
    bool last = false;
    {
        const std::lock_guard guard(m_lock);
        const auto found = m_clients.find(&session);
        if (found != m_clients.end()) {
            removed = std::move(found->second);
            m_clients.erase(found);
        }
        last = m_stopping && m_clients.empty();
    }
    if (last) {
        // nothing is left to look after: the service ends at once
        insist([this] { m_tidyTimer.cancelSoon(); });
    }
}

/// Ends clients that keep the service waiting too long. Calls itself again as long as there are clients.
void messageService::tidy()
{
    bool more = false;
    bool stopping = false;
    {
        const std::int64_t now = steadyMs();
        const std::lock_guard guard(m_lock);
        const std::int64_t idleMs = std::int64_t{m_rules->limits.idleSeconds} * 1000;
        for (const auto& [key, client] : m_clients) {
            client->endWhenLate(now, idleMs, m_stopping ? lastReplyMs : idleMs);
        }
        more = m_tidying = !m_clients.empty();
        stopping = m_stopping;
    }
    // its own timer has ended
    if (stopping) {
        tellAlive();
    }
    // without the lock, which is needed to give memory back
    if (more) {
        after(m_tidyTimer, tidyInterval, &messageService::tidy);
    }
}

// ---------------------------------------------------------------------------------------------------------- life and end

void messageService::awaitSignal()
{
    insist([this] {
        m_signals.await([this](int number) {
            if (number == SIGHUP) {
                insist([this] { doLater([this] { reload(); }); });
                awaitSignal();
            } else {
                stop();
            }
        });
    });
}

/// Once nothing is left to do the context runs out of work, and the threads end. A successor can begin at once: socket
/// and lock are given up together, before the last requests are answered.
void messageService::stop()
{
    std::unique_lock listening(m_listening);
    notify("STOPPING=1");
    if (m_ownSocket.isOurs()) {
        m_ownSocket.giveUpName();
        // Clients that have connected already, and perhaps asked, are taken in. Those of a socket that was handed over
        // are its next owner's.
        for (int error = 0; error == 0;) {
            error = acceptOne();
        }
    }
    m_acceptor.close();
    m_acceptTimer.cancel();
    listening.unlock();
    m_watchdogTimer.cancel();
    // looks at once whether there are clients left; nobody else starts it any more
    m_tidyTimer.cancel();
    const std::lock_guard guard(m_lock);
    m_stopping = true;
    for (const auto& [key, client] : m_clients) {
        client->finish();
    }
}

/// Tells the service manager that the service is alive. Not while a request hangs, as at a driver that never returns: its
/// thread can't be ended, so the manager is to end the process and start another.
void messageService::tellAlive()
{
    if (!m_watchdog) {
        return;
    }
    const auto limit = hungIntervals * *m_watchdog;
    const bool hangs = m_workers.longestRun() >= limit;
    if (hangs != std::exchange(m_hangs, hangs)) {
        tellHung(hangs, std::chrono::duration_cast<std::chrono::seconds>(limit));
    }
    if (!hangs) {
        notify("WATCHDOG=1");
    }
}

void messageService::feedWatchdog()
{
    if (m_watchdog && m_acceptor.is_open()) {
        tellAlive();
        after(m_watchdogTimer, *m_watchdog / 2, &messageService::feedWatchdog);
    }
}

std::string messageService::run()
{
    awaitSignal();
    awaitClients();
    feedWatchdog();
    if (!m_workers.start()) {
        return because("no thread");
    }
    notify("READY=1");
    m_workers.join();
    return {};
}

} // namespace kest::service
