#include "tools/kestd/service.h"

#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/core.h>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "platform/host/trace/hash.h"
#include "platform/trace.h"
#include "tools/kestd/clock.h"
#include "tools/kestd/systemd.h"
#include "tools/kestd/trace.h"

namespace kest::service
{
namespace
{

using namespace std::chrono_literals;

constexpr int backlog = 256;
// before requests have their turn
constexpr int acceptsAtOnce = 2;
constexpr auto tidyInterval = 1s;
// when there are no descriptors left
constexpr auto acceptPause = 100ms;
// when there is no memory left
constexpr auto memoryPause = 10ms;
// for a client to take its last replies once the service is to end
constexpr std::int64_t lastReplyMs = 5000;

void note(const std::string& text) { fmt::print(stderr, "kestd: {}\n", text); }

/// Something to do, without which the service does not end.
class Task : public Job
{
public:
    Task(asio::io_context& context, std::shared_ptr<Share> share, std::function<void()> body)
        : Job(std::move(share)), m_work(context.get_executor()), m_body(std::move(body))
    {
    }
    void run() override { m_body(); }

private:
    asio::executor_work_guard<asio::io_context::executor_type> m_work;
    std::function<void()> m_body;
};

/// Takes in those who have connected.
class Listener : public Job
{
public:
    Listener(Service& service, std::shared_ptr<Share> share) : Job(std::move(share)), m_service(service) {}
    void run() override { m_service.acceptSome(); }

private:
    Service& m_service;
};

/// Does what the service can't go on without, as soon as there is memory for it.
template <typename Body>
void insist(const Body& body)
{
    for (bool done = false; !done;) {
        try {
            body();
            done = true;
        } catch (const std::bad_alloc&) {
            std::this_thread::sleep_for(memoryPause);
        }
    }
}

/// Tells a client that there is no room for it. One that does not listen to that is not waited for.
void turnAway(int descriptor)
{
    const client::frame reply = refusal({}, client::codeTooManyClients, 0,
                                        "this service has as many clients as it takes, in all or of one user");
    const std::vector<std::uint8_t> bytes = client::encodeFrame(reply);
    (void)send(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::string because(const std::string& what) { return what + ": " + std::strerror(errno); }

} // namespace

void Service::doLater(std::function<void()> body)
{
    m_workers.submit(std::make_shared<Task>(m_context, m_workers.own(), std::move(body)));
}

Service::Service()
    : m_workers(m_context), m_acceptor(m_context), m_signals(m_context, SIGTERM, SIGINT, SIGHUP),
      m_acceptTimer(m_context), m_tidyTimer(m_context), m_watchdogTimer(m_context), m_watchdog(watchdogInterval()),
      m_listener(std::make_shared<Listener>(*this, m_workers.own()))
{
    useSettings();
}

Service::~Service()
{
    if (m_ownLock >= 0) {
        close(m_ownLock);
    }
}

// ------------------------------------------------------------------------------------------------------------- settings

/// Works out the current configuration. Sessions take it over at their next request.
void Service::useSettings()
{
    const auto& current = host::currentConfiguration();
    const auto& limits = current.service;
    auto settings = std::make_shared<const Settings>(
        Settings{limits, Permissions(limits), Devices(current), m_generation.load() + 1});
    m_workers.setLimits(limits.maxWorking, limits.maxWorkingPerUser);
    for (const std::string& name : settings->permissions.unknown()) {
        note("the configuration permits " + name + ", which this machine does not know");
    }
    const std::lock_guard guard(m_lock);
    m_generation.store(settings->generation, std::memory_order_release);
    m_settings = std::move(settings);
}

std::shared_ptr<const Settings> Service::settings() const
{
    const std::lock_guard guard(m_lock);
    return m_settings;
}

void Service::reload()
{
    const std::lock_guard guard(m_reloading);
    const auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    notify(fmt::format("RELOADING=1\nMONOTONIC_USEC={}", micros).c_str());
    const std::string error = host::reloadConfiguration();
    if (error.empty()) {
        useSettings();
        adoptReadMode();
        note("configuration read again");
    } else {
        note(error + " (the configuration stays as it was)");
    }
    notify("READY=1");
}

// ----------------------------------------------------------------------------------------------------- listening socket

std::string Service::listen(int handedDescriptor, const std::string& path)
{
    std::string error;
    if (handedDescriptor >= 0) {
        fcntl(handedDescriptor, F_SETFL, fcntl(handedDescriptor, F_GETFL) | O_NONBLOCK);
        m_acceptor.assign(Protocol(), handedDescriptor);
    } else {
        error = makeSocket(path);
    }
    return error;
}

/// A lock beside the socket tells a service that runs from a socket that one has left behind.
std::string Service::makeSocket(const std::string& path)
{
    sockaddr_un address{};
    struct flock lock {
    };
    struct stat status {
    };
    std::error_code ignored;
    lock.l_type = F_WRLCK;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return "'" + path + "' cannot be a socket: its path has more than 107 bytes, or none";
    }
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty()) {
        std::filesystem::create_directories(folder, ignored);
    }
    m_ownLock = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (m_ownLock < 0) {
        return because(path + ".lock");
    }
    if (fcntl(m_ownLock, F_OFD_SETLK, &lock) != 0) {
        const bool held = errno == EAGAIN || errno == EACCES;
        return held ? path + ": another service listens there" : because(path + ".lock");
    }
    if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        unlink(path.c_str());
    }
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) {
        return because(path);
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    // Everybody may connect: who may do what is decided by request, with an answer for those who may not
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0666) != 0 || ::listen(descriptor, backlog) != 0) {
        std::string error = because(path);
        close(descriptor);
        return error;
    }
    m_ownPath = path;
    m_acceptor.assign(Protocol(), descriptor);
    return {};
}

// -------------------------------------------------------------------------------------------------------------- clients

/// Accepting takes turns with the requests, so that who connects and connects holds up nobody.
void Service::awaitClients()
{
    insist([this] {
        m_acceptor.async_wait(Protocol::acceptor::wait_read,
                              [this](const asio::error_code&) { m_workers.submit(m_listener); });
    });
}

void Service::acceptSome()
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

/// Without descriptors or memory those who connect wait until there are some again.
void Service::pauseAccepting(int error)
{
    trace_wobu_write_all(serviceTrace(), host::messageHash("no client could be accepted"), " %s,%d", __LINE__, 0,
                         "acceptSome", error);
    insist([this] {
        m_acceptTimer.expires_after(acceptPause);
        m_acceptTimer.async_wait([this](const asio::error_code&) { m_workers.submit(m_listener); });
    });
}

int Service::acceptOne()
{
    const int descriptor = accept4(m_acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0) {
        // of one that has gone again, or of nobody
        return errno == ECONNABORTED || errno == EINTR ? 0 : errno;
    }
    Protocol::socket socket(m_context);
    bool taken = false;
    try {
        socket.assign(Protocol(), descriptor);
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

/// Admits a client or turns it away, at once: nobody waits in between, holding a descriptor.
void Service::admit(Protocol::socket socket)
{
    const auto settings = this->settings();
    Peer peer = peerOf(socket.native_handle());
    const bool stranger = !settings->permissions.of(peer).any();
    trace_wobu_write_all(serviceTrace(), host::messageHash("client connected"), " %s,%d,%d", __LINE__, 0, "admit",
                         static_cast<int>(peer.uid), static_cast<int>(peer.pid));
    Place place = m_places.take(peer.uid, stranger, {settings->limits.maxClients, settings->limits.maxClientsPerUser});
    if (place) {
        add(std::make_shared<Session>(*this, std::move(socket), std::move(peer), std::move(place)));
    } else {
        turnAway(socket.native_handle());
    }
}

void Service::add(const std::shared_ptr<Session>& session)
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
        insist([this] { asio::post(m_context, [this] { tidy(); }); });
    }
}

void Service::remove(Session& session)
{
    // its connection is closed after the lock
    std::shared_ptr<Session> removed;
    const std::lock_guard guard(m_lock);
    const auto found = m_clients.find(&session);
    if (found != m_clients.end()) {
        removed = std::move(found->second);
        m_clients.erase(found);
    }
}

/// Looks after clients that keep the service waiting, as long as there are any.
void Service::tidy()
{
    bool more = false;
    {
        const std::int64_t now = nowMs();
        const std::lock_guard guard(m_lock);
        const std::int64_t idleMs = std::int64_t{m_settings->limits.idleSeconds} * 1000;
        for (const auto& [key, client] : m_clients) {
            client->endWhenLate(now, idleMs, m_stopping ? lastReplyMs : idleMs);
        }
        more = m_tidying = !m_clients.empty();
        if (m_stopping) {
            notify("WATCHDOG=1");
        }
    }
    // without the lock: whoever gives memory back needs it
    if (more) {
        insist([this] {
            m_tidyTimer.expires_after(tidyInterval);
            m_tidyTimer.async_wait([this](const asio::error_code&) { tidy(); });
        });
    }
}

// ---------------------------------------------------------------------------------------------------------- life and end

void Service::awaitSignal()
{
    insist([this] {
        m_signals.async_wait([this](const asio::error_code& error, int number) {
            if (!error && number == SIGHUP) {
                insist([this] { doLater([this] { reload(); }); });
                awaitSignal();
            } else if (!error) {
                stop();
            }
        });
    });
}

/// Once nothing is left to do the context runs out of work, and the threads end. A successor can begin at once: socket
/// and lock are given up together, before the last requests are answered.
void Service::stop()
{
    std::unique_lock listening(m_listening);
    notify("STOPPING=1");
    if (!m_ownPath.empty()) {
        unlink(m_ownPath.c_str());
        close(m_ownLock);
        m_ownLock = -1;
        // Who has connected, and perhaps asked, already, is taken in. Of a socket that was handed over, whoever is next
        // takes them
        for (int error = 0; error == 0;) {
            error = acceptOne();
        }
    }
    m_acceptor.close();
    m_acceptTimer.cancel();
    listening.unlock();
    m_watchdogTimer.cancel();
    const std::lock_guard guard(m_lock);
    m_stopping = true;
    for (const auto& [key, client] : m_clients) {
        client->finish();
    }
}

void Service::feedWatchdog()
{
    if (m_watchdog && m_acceptor.is_open()) {
        notify("WATCHDOG=1");
        insist([this] {
            m_watchdogTimer.expires_after(*m_watchdog / 2);
            m_watchdogTimer.async_wait([this](const asio::error_code&) { feedWatchdog(); });
        });
    }
}

std::string Service::run()
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
