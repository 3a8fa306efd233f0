#include "tools/kestd/service.h"

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/host/trace/hash.h"
#include "platform/trace.h"
#include "tools/kestd/clock.h"
#include "tools/kestd/systemd.h"

namespace kest::service
{
namespace
{

using namespace std::chrono_literals;

constexpr unsigned     mostThreads       = 300; // more than there are clients by default: each may wait for a device
constexpr int          backlog           = 256;
constexpr auto         tidyInterval      = 1s;
constexpr auto         acceptPause       = 100ms; // when there are no descriptors left
constexpr std::int64_t lastReplyMs       = 5000;  // for a client to take its last replies once the service is to end
constexpr std::size_t  strangersPerSlots = 8;     // one slot in so many may go to clients that are permitted nothing
constexpr unsigned     traceBytes        = 8192;

trace_wobu_descriptor serviceTrace()
{
    static const trace_wobu_descriptor ring = [] {
        trace_wobu_descriptor made = nullptr;
        trace_wobu_init_buffer(&made, "kestd", traceBytes);
        return made;
    }();
    return ring;
}

void note(const std::string& text) { fmt::print(stderr, "kestd: {}\n", text); }

/// Something to do, without which the service does not end.
class Task : public Job
{
public:
    Task(asio::io_context& context, std::function<void()> body)
        : m_work(context.get_executor()), m_body(std::move(body))
    {
    }
    void run() override { m_body(); }

private:
    asio::executor_work_guard<asio::io_context::executor_type> m_work;
    std::function<void()>                                      m_body;
};

std::string because(const std::string& what) { return what + ": " + std::strerror(errno); }

} // namespace

void Service::doLater(std::function<void()> body)
{
    m_workers.submit(std::make_shared<Task>(m_context, std::move(body)));
}

Service::Service()
    : m_workers(m_context, mostThreads), m_acceptor(m_context), m_signals(m_context, SIGTERM, SIGINT, SIGHUP),
      m_acceptTimer(m_context), m_tidyTimer(m_context), m_watchdogTimer(m_context), m_watchdog(watchdogInterval())
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
    const auto& limits = host::currentConfiguration().service;
    auto settings = std::make_shared<const Settings>(Settings{limits, Permissions(limits), m_generation.load() + 1});
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
    const auto            micros =
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
    sockaddr_un  address{};
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
        return path + ": another service listens there";
    }
    if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        unlink(path.c_str());
    }
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    address.sun_family   = AF_UNIX;
    path.copy(address.sun_path, path.size());
    // Everybody may connect: who may do what is decided by request, with an answer for those who may not
    if (descriptor < 0 || bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
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

void Service::acceptNext()
{
    m_acceptor.async_accept([this](const asio::error_code& error, Protocol::socket socket) {
        if (!error) {
            admitLater(std::move(socket));
        }
        if (error && error != asio::error::operation_aborted && error != asio::error::connection_aborted) {
            trace_wobu_write_all(serviceTrace(), host::messageHash("no client could be accepted"), " %s,%d", __LINE__,
                                 0, "acceptNext", error.value());
            m_acceptTimer.expires_after(acceptPause);
            m_acceptTimer.async_wait([this](const asio::error_code&) {
                if (m_acceptor.is_open()) {
                    acceptNext();
                }
            });
        } else if (m_acceptor.is_open()) {
            acceptNext();
        }
    });
}

/// Looking up the user may take a while.
void Service::admitLater(Protocol::socket socket)
{
    doLater([this, accepted = std::make_shared<Protocol::socket>(std::move(socket))] { admit(std::move(*accepted)); });
}

void Service::admit(Protocol::socket socket)
{
    Peer       peer     = peerOf(socket.native_handle());
    const bool stranger = !settings()->permissions.of(peer).any();
    trace_wobu_write_all(serviceTrace(), host::messageHash("client connected"), " %s,%d,%d", __LINE__, 0, "admit",
                         static_cast<int>(peer.uid), static_cast<int>(peer.pid));
    const auto session = std::make_shared<Session>(*this, std::move(socket), std::move(peer));
    if (add(session, stranger)) {
        session->run();
    } else {
        session->turnAway("this service has as many clients as it takes");
    }
}

bool Service::add(const std::shared_ptr<Session>& session, bool stranger)
{
    const std::lock_guard guard(m_lock);
    const std::size_t     slots = m_settings->limits.maxClients;
    const bool            hasRoom =
        m_clients.size() < slots && (!stranger || m_strangers < std::max<std::size_t>(slots / strangersPerSlots, 1));
    if (hasRoom) {
        m_clients.emplace(session.get(), Client{session, stranger});
        m_strangers += stranger ? 1 : 0;
        if (m_stopping) {
            session->finish();
        }
        if (!m_tidying) {
            m_tidying = true;
            asio::post(m_context, [this] { tidy(); });
        }
    }
    return hasRoom;
}

void Service::remove(Session& session)
{
    Client                removed; // its connection is closed after the lock
    const std::lock_guard guard(m_lock);
    const auto            found = m_clients.find(&session);
    if (found != m_clients.end()) {
        removed = std::move(found->second);
        m_strangers -= removed.stranger ? 1 : 0;
        m_clients.erase(found);
    }
}

/// Looks after clients that keep the service waiting, as long as there are any.
void Service::tidy()
{
    const std::int64_t    now = nowMs();
    const std::lock_guard guard(m_lock);
    const std::int64_t    idleMs = std::int64_t{m_settings->limits.idleSeconds} * 1000;
    for (const auto& [key, client] : m_clients) {
        client.session->endWhenLate(now, idleMs, m_stopping ? lastReplyMs : idleMs);
    }
    m_tidying = !m_clients.empty();
    if (m_stopping) {
        notify("WATCHDOG=1");
    }
    if (m_tidying) {
        m_tidyTimer.expires_after(tidyInterval);
        m_tidyTimer.async_wait([this](const asio::error_code&) { tidy(); });
    }
}

// ---------------------------------------------------------------------------------------------------------- life and end

void Service::awaitSignal()
{
    m_signals.async_wait([this](const asio::error_code& error, int number) {
        if (!error && number == SIGHUP) {
            doLater([this] { reload(); });
            awaitSignal();
        } else if (!error) {
            stop();
        }
    });
}

/// Once nothing is left to do the context runs out of work, and the threads end.
void Service::stop()
{
    notify("STOPPING=1");
    if (!m_ownPath.empty()) { // of a socket that was handed over, whoever is next takes the rest
        acceptBacklog();
        unlink(m_ownPath.c_str());
    }
    m_acceptor.close();
    m_acceptTimer.cancel();
    m_watchdogTimer.cancel();
    const std::lock_guard guard(m_lock);
    m_stopping = true;
    for (const auto& [key, client] : m_clients) {
        client.session->finish();
    }
}

/// Takes in the clients that have connected, and perhaps asked, already.
void Service::acceptBacklog()
{
    for (int descriptor = 0; descriptor >= 0;) {
        descriptor = accept4(m_acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor >= 0) {
            admitLater(Protocol::socket(m_context, Protocol(), descriptor));
        }
    }
}

void Service::feedWatchdog()
{
    if (m_watchdog && m_acceptor.is_open()) {
        notify("WATCHDOG=1");
        m_watchdogTimer.expires_after(*m_watchdog / 2);
        m_watchdogTimer.async_wait([this](const asio::error_code&) { feedWatchdog(); });
    }
}

std::string Service::run()
{
    awaitSignal();
    acceptNext();
    feedWatchdog();
    if (!m_workers.start()) {
        return because("no thread");
    }
    notify("READY=1");
    m_workers.join();
    return {};
}

} // namespace kest::service
