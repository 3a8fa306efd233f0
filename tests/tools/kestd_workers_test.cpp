/// The service's threads, by themselves: whose turn it is, and that nobody's failure or patience is the others'.
#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <new>
#include <string>

#include "tests/tools/kestd_support.h"
#include "tools/kestd/places.h"

namespace kest::service
{
namespace
{

using test::patience;

class KestdWorkers : public testing::Test
{
protected:
    class Task : public Job
    {
    public:
        Task(std::shared_ptr<Share> share, std::function<void()> body) : Job(std::move(share)), m_body(std::move(body))
        {
        }
        void run() override { m_body(); }

    private:
        std::function<void()> m_body;
    };

    void submit(const std::shared_ptr<Share>& owner, std::function<void()> body)
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
    /// Notes that something was done, in the order in which it was.
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

    const std::shared_ptr<Share> alice = std::make_shared<Share>();
    const std::shared_ptr<Share> bob   = std::make_shared<Share>();
    Workers&                     workers() { return m_workers; }
    asio::io_context&            context() { return m_context; }

private:
    asio::io_context                                           m_context;
    asio::executor_work_guard<asio::io_context::executor_type> m_work = asio::make_work_guard(m_context);
    Workers                                                    m_workers{m_context};
    std::mutex                                                 m_lock;
    std::condition_variable                                    m_noted;
    std::string                                                m_done;
};

TEST_F(KestdWorkers, OwnersTakeTurnsWhateverEachHasWaiting)
{
    start(1, 2, [this] {
        submit(alice, [this] {
            for (const char name : {'1', '2', '3', '4'})
                submit(alice, [this, name] { note(name); });
            for (const char name : {'a', 'b'})
                submit(bob, [this, name] { note(name); });
        });
    });
    EXPECT_TRUE(awaits('4'));
    EXPECT_TRUE(awaits('b'));
    finish();
    EXPECT_EQ("1a2b34", done());
}

TEST_F(KestdWorkers, OneOwnersSlowJobsLeaveRoomForOthers)
{
    start(2, 1, [this] {
        submit(alice, [this] {
            submit(alice, [this] { EXPECT_TRUE(awaits('b')); });
            submit(bob, [this] { note('b'); });
            EXPECT_TRUE(awaits('b')); // as a slow device would
        });
    });
    EXPECT_TRUE(awaits('b'));
    finish();
}

TEST_F(KestdWorkers, TheServicesOwnJobsNeedNoTurn)
{
    start(1, 1, [this] {
        submit(alice, [this] {
            submit(workers().own(), [this] { note('o'); });
            EXPECT_TRUE(awaits('o'));
        });
    });
    EXPECT_TRUE(awaits('o'));
    finish();
}

/// Jobs that submit themselves again whenever they are done, and an event that comes meanwhile.
TEST_F(KestdWorkers, EventsComeBetweenJobsThatNeverEnd)
{
    std::atomic<int>      runs{0};
    std::atomic<bool>     stop{false};
    std::function<void()> again = [&] {
        if (++runs == 2000)
            asio::post(context(), [this] { note('e'); });
        if (!stop)
            submit(alice, again);
    };
    start(1000, 1000, [&] { // so many that there is always one to begin
        for (int number = 0; number < 2000; ++number)
            submit(alice, again);
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
        throw std::bad_alloc(); // an event's handler can run out of memory, too
    });
    EXPECT_TRUE(awaits('c'));
    finish();
}

// --------------------------------------------------------------------------------------------------------------- places

TEST(KestdPlaces, EachUserHasAShare)
{
    constexpr Places::Limits limits{.all = 5, .eachOwner = 2};
    Places                   places;
    const Place              first  = places.take(1000, false, limits);
    const Place              second = places.take(1000, false, limits);
    EXPECT_TRUE(first && second);
    EXPECT_EQ(first.share(), second.share());
    EXPECT_FALSE(places.take(1000, false, limits));
    const Place root = places.take(0, false, limits);
    EXPECT_TRUE(root);
    EXPECT_NE(first.share(), root.share());
}

TEST(KestdPlaces, NobodyHasOneWhenAllAreTaken)
{
    constexpr Places::Limits limits{.all = 2, .eachOwner = 2};
    Places                   places;
    const Place              first  = places.take(1, false, limits);
    const Place              second = places.take(2, false, limits);
    EXPECT_TRUE(first && second);
    EXPECT_FALSE(places.take(3, false, limits));
}

TEST(KestdPlaces, PlaceIsGivenBack)
{
    constexpr Places::Limits limits{.all = 1, .eachOwner = 1};
    Places                   places;
    {
        Place       first = places.take(1, false, limits);
        const Place moved(std::move(first));
        EXPECT_TRUE(moved);
        EXPECT_FALSE(places.take(1, false, limits));
    }
    EXPECT_TRUE(places.take(1, false, limits));
    EXPECT_TRUE(places.take(2, false, limits));
}

TEST(KestdPlaces, AllStrangersTogetherHaveOnePlaceInEight)
{
    constexpr Places::Limits limits{.all = 16, .eachOwner = 8};
    Places                   places;
    const Place              first  = places.take(1, true, limits);
    const Place              second = places.take(2, true, limits);
    EXPECT_TRUE(first && second);
    EXPECT_EQ(first.share(), second.share());
    EXPECT_FALSE(places.take(3, true, limits));
    EXPECT_TRUE(places.take(3, false, limits));
}

} // namespace
} // namespace kest::service
