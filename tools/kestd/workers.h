/// The threads that run the service's handlers.
#pragma once

#include <asio/io_context.hpp>
#include <condition_variable>
#include <mutex>

namespace kest::service
{

/// A crew of threads on one io_context. Calls into the library block, some for seconds; whoever makes one says so, and the crew grows
/// when nobody would be left to serve the other clients.
class Workers
{
public:
    /// @param most  as many threads at the same time, at least 2
    Workers(asio::io_context& context, unsigned most) : m_context(context), m_most(most) {}
    Workers(const Workers&)            = delete;
    Workers& operator=(const Workers&) = delete;
    /// The context must have been stopped, or have run out of work.
    ~Workers() { join(); }

    /// @return false when not even the first threads could be had
    bool start();
    /// Waits until all threads have ended.
    void join();

    /// While it lives, its thread is in a call that may block.
    class BlockingCall
    {
    public:
        explicit BlockingCall(Workers& workers) : m_workers(workers) { m_workers.beginBlocking(); }
        BlockingCall(const BlockingCall&)            = delete;
        BlockingCall& operator=(const BlockingCall&) = delete;
        ~BlockingCall() { m_workers.endBlocking(); }

    private:
        Workers& m_workers;
    };

private:
    static void* threadMain(void* workers);

    void beginBlocking();
    void endBlocking();
    void run();
    bool spawn(); // with the lock held
    bool leavesSurplus();

    asio::io_context&       m_context;
    unsigned                m_most;
    std::mutex              m_lock;
    std::condition_variable m_ended;
    unsigned                m_threads = 0;
    unsigned                m_blocked = 0;
};

} // namespace kest::service
