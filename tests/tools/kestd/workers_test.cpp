/// The service's threads alone: whose turn it is, and that one owner's failing or slow jobs do not hold up another's.
#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <string>
#include <string_view>
#include <thread>

#include "tests/tools/kestd_support.h"
#include "tools/kestd/workers.h"

namespace kest::service
{
namespace
{

using test::patience;

class KestdWorkers : public testing::Test
{
protected:
    class Task : public serviceJob
    {
    public:
        Task(std::shared_ptr<jobShare> share, std::function<void()> body)
            : serviceJob(std::move(share)), m_body(std::move(body))
        {
        }
        void run() override { m_body(); }

    private:
        std::function<void()> m_body;
    };

    explicit KestdWorkers(const workerPool::tuning& options = {}) : m_workers(m_context, options) {}

    void submit(const std::shared_ptr<jobShare>& owner, std::function<void()> body)
    {
        m_workers.submit(std::make_shared<Task>(owner, std::move(body)));
    }
    void start(unsigned most, unsigned mostEach, std::function<void()> first)
    {
        m_workers.setLimits(most, mostEach);
        asio::post(m_context, std::move(first));
        ASSERT_TRUE(m_workers.start());
    }
    /// Waits until all jobs are done.
    void finish()
    {
        m_work.reset();
        m_workers.join();
    }
    /// Notes that something was done; the notes keep their order.
    void note(char what)
    {
        const std::lock_guard guard(m_lock);
        m_done += what;
        m_noted.notify_all();
    }
    /// @return false when time runs out first
    bool awaits(char what)
    {
        std::unique_lock lock(m_lock);
        return m_noted.wait_for(lock, patience, [&] { return m_done.find(what) != std::string::npos; });
    }
    std::string done()
    {
        const std::lock_guard guard(m_lock);
        return m_done;
    }

    const std::shared_ptr<jobShare> alice = std::make_shared<jobShare>();
    const std::shared_ptr<jobShare> bob = std::make_shared<jobShare>();
    workerPool& workers() { return m_workers; }
    asio::io_context& context() { return m_context; }

private:
    asio::io_context m_context;
    asio::executor_work_guard<asio::io_context::executor_type> m_work = asio::make_work_guard(m_context);
    workerPool m_workers;
    std::mutex m_lock;
    std::condition_variable m_noted;
    std::string m_done;
};

TEST_F(KestdWorkers, OneOwnersSlowJobsLeaveRoomForOthers)
{
    start(2, 1, [this] {
        // as slow devices would
        submit(alice, [this] { EXPECT_TRUE(awaits('b')); });
        submit(alice, [this] { EXPECT_TRUE(awaits('b')); });
        submit(bob, [this] { note('b'); });
    });
    EXPECT_TRUE(awaits('b'));
    finish();
}

TEST_F(KestdWorkers, TheServicesOwnJobsNeedNoTurn)
{
    start(1, 1, [this] {
        submit(alice, [this] { EXPECT_TRUE(awaits('o')); });
        submit(workers().own(), [this] { note('o'); });
    });
    EXPECT_TRUE(awaits('o'));
    finish();
}

/// Jobs submit themselves again whenever they are done; an event comes meanwhile.
TEST_F(KestdWorkers, EventsComeBetweenJobsThatNeverEnd)
{
    std::atomic<int> runs{0};
    std::atomic<bool> stop{false};
    std::function<void()> again = [&] {
        if (++runs == 2000) {
            asio::post(context(), [this] { note('e'); });
        }
        if (!stop) {
            submit(alice, again);
        }
    };
    // with so many there is always one to begin
    start(1000, 1000, [&] {
        for (int number = 0; number < 2000; ++number) {
            submit(alice, again);
        }
    });
    EXPECT_TRUE(awaits('e'));
    stop = true;
    finish();
}

TEST_F(KestdWorkers, JobThatThrowsEndsItselfAlone)
{
    start(1, 1, [this] {
        submit(alice, [] { throw std::bad_alloc(); });
        submit(alice, [this] { note('a'); });
        submit(bob, [this] { note('b'); });
    });
    EXPECT_TRUE(awaits('a'));
    EXPECT_TRUE(awaits('b'));
    asio::post(context(), [this] {
        asio::post(context(), [this] { submit(alice, [this] { note('c'); }); });
        // an event's handler, too, can run out of memory
        throw std::bad_alloc();
    });
    EXPECT_TRUE(awaits('c'));
    finish();
}

/// Two threads, on a clock that the test drives.
class KestdRuns : public KestdWorkers
{
protected:
    KestdRuns() : KestdWorkers({.clock = [] { return timeNs.load(); }, .abreast = 2}) { timeNs = 0; }

    /// Submits a job that runs until `end` is noted, and waits until it has begun.
    void begin(const std::shared_ptr<jobShare>& owner, char name, char end)
    {
        asio::post(context(), [this, owner, name, end] {
            submit(owner, [this, name, end] {
                note(name);
                EXPECT_TRUE(awaits(end));
            });
        });
        EXPECT_TRUE(awaits(name));
    }

    static std::atomic<std::int64_t> timeNs;
};

std::atomic<std::int64_t> KestdRuns::timeNs;

TEST_F(KestdRuns, TheLongestIsThatOfTheOldestJobInWork)
{
    using std::chrono::nanoseconds;
    start(2, 1, [] {});
    EXPECT_EQ(nanoseconds(0), workers().longestRun());
    timeNs = 1000;
    begin(alice, 'a', 'x');
    timeNs = 5000;
    EXPECT_EQ(nanoseconds(4000), workers().longestRun());
    begin(bob, 'b', 'y');
    timeNs = 8000;
    EXPECT_EQ(nanoseconds(7000), workers().longestRun());
    note('x');
    const auto until = std::chrono::steady_clock::now() + patience;
    while (workers().longestRun() != nanoseconds(3000) && std::chrono::steady_clock::now() < until) {
        std::this_thread::yield();
    }
    EXPECT_EQ(nanoseconds(3000), workers().longestRun());
    note('y');
    finish();
    EXPECT_EQ(nanoseconds(0), workers().longestRun());
}

/// One job at a time, on a clock that the jobs drive.
class KestdShares : public KestdWorkers
{
protected:
    KestdShares() : KestdWorkers({.clock = [] { return timeNs; }, .abreast = 1, .watch = std::chrono::hours(1)})
    {
        timeNs = 0;
    }

    /// A connection whose requests take `costNs` each. It makes another request for as long as `goesOn` returns true.
    class Connection : public serviceJob, public std::enable_shared_from_this<Connection>
    {
    public:
        Connection(KestdShares& test, char name, std::int64_t costNs, std::function<bool()> goesOn)
            : serviceJob(test.alice), m_test(test), m_name(name), m_costNs(costNs), m_goesOn(std::move(goesOn))
        {
        }
        void run() override
        {
            timeNs += m_costNs;
            if (m_heldUpNs != 0) {
                countUntil(timeNs);
                timeNs += m_heldUpNs;
            }
            m_test.note(m_name);
            if (m_goesOn()) {
                m_test.workers().submit(shared_from_this());
            }
        }

        /// Has each run take longer, after the time that counts.
        void holdUp(std::int64_t costNs) { m_heldUpNs = costNs; }

    private:
        KestdShares& m_test;
        char m_name;
        std::int64_t m_costNs;
        std::int64_t m_heldUpNs = 0;
        std::function<bool()> m_goesOn;
    };

    std::shared_ptr<Connection> connection(char name, std::int64_t costNs, std::function<bool()> goesOn)
    {
        return std::make_shared<Connection>(*this, name, costNs, std::move(goesOn));
    }
    std::shared_ptr<Connection> connection(char name, std::int64_t costNs)
    {
        return connection(name, costNs, [this] { return done().size() < enough; });
    }
    /// Submits a job for each name; each takes so long.
    void submitEach(const std::shared_ptr<jobShare>& owner, std::string_view names, std::int64_t costNs = 0)
    {
        for (const char name : names) {
            submit(owner, [this, name, costNs] {
                timeNs += costNs;
                note(name);
            });
        }
    }
    /// Has one of alice's jobs submit all the others, and waits for those in `awaited`.
    /// @return the names of what was done, in order
    std::string orderOf(unsigned mostEach, std::string_view awaited, std::function<void()> submitAll)
    {
        start(1, mostEach, [this, &submitAll] { submit(alice, std::move(submitAll)); });
        for (const char name : awaited) {
            EXPECT_TRUE(awaits(name)) << name;
        }
        finish();
        return done();
    }
    /// Makes a connection for each request.
    void ask(char name, std::int64_t costNs)
    {
        submit(alice, [this, name, costNs] {
            timeNs += costNs;
            note(name);
            if (done().size() < enough) {
                ask(name, costNs);
            }
        });
    }

    static constexpr std::size_t enough = 8;
    static std::int64_t timeNs;
};

std::int64_t KestdShares::timeNs;

TEST_F(KestdShares, OwnersTakeTurnsHoweverManyJobsEachHas)
{
    EXPECT_EQ("1a2b34", orderOf(2, "4b", [this] {
                  submitEach(alice, "1234");
                  submitEach(bob, "ab");
              }));
}

TEST_F(KestdShares, OwnerWhoHasUsedLessTimeIsServedFirst)
{
    EXPECT_EQ("h123h4hh", orderOf(2, "4", [this] {
                  workers().submit(connection('h', 5));
                  submitEach(bob, "1234", 2);
              }));
}

TEST_F(KestdShares, RunThatWasHeldUpCountsForTwoMillisecondsAtMost)
{
    EXPECT_EQ("h12h3h4h", orderOf(2, "4", [this] {
                  workers().submit(connection('h', 9'000'000));
                  submitEach(bob, "1234", 1'500'000);
              }));
}

TEST_F(KestdShares, ConnectionThatHasUsedLessTimeIsServedFirst)
{
    EXPECT_EQ("hlllhllhl", orderOf(1, "l", [this] {
                  workers().submit(connection('h', 5));
                  workers().submit(connection('l', 2));
              }));
}

TEST_F(KestdShares, TimeAfterTheReplyIsReadyDoesNotCount)
{
    EXPECT_EQ("hahahahah", orderOf(1, "a", [this] {
                  const auto heldUp = connection('h', 5);
                  heldUp->holdUp(1'000'000);
                  workers().submit(heldUp);
                  workers().submit(connection('a', 5));
              }));
}

TEST_F(KestdShares, IdleConnectionGainsNoCredit)
{
    const auto pausing = connection('p', 5, [this] { return done().size() > 1 && done().size() < enough; });
    const auto busy = connection('b', 5, [&] {
        if (done().size() == 4) {
            workers().submit(pausing);
        }
        return done().size() < enough;
    });
    start(1, 1, [&] {
        workers().submit(pausing);
        workers().submit(busy);
    });
    EXPECT_TRUE(awaits('b'));
    finish();
    EXPECT_EQ("pbbbpbpbp", done());
}

TEST_F(KestdShares, ConnectionForEachRequestGainsNothing)
{
    EXPECT_EQ("enenenene", orderOf(1, "n", [this] {
                  workers().submit(connection('e', 2));
                  ask('n', 2);
              }));
}

/// No job takes so long here that its thread counts as blocked.
TEST_F(KestdShares, NoMoreJobsAreInWorkThanThreadsAreAllowed)
{
    std::atomic<int> inWork{0};
    std::atomic<int> most{0};
    start(8, 8, [&] {
        for (int number = 0; number < 100; ++number) {
            submit(number % 2 == 0 ? alice : bob, [&] {
                most = std::max(most.load(), ++inWork);
                std::this_thread::yield();
                --inWork;
            });
        }
        submit(alice, [this] { note('d'); });
    });
    EXPECT_TRUE(awaits('d'));
    finish();
    EXPECT_EQ(1, most);
}

} // namespace
} // namespace kest::service
