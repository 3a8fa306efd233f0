/// One session alone, with a clock that the test drives.
#include <gtest/gtest.h>

#include "base/clock.h"
#include "platform/host/vpd/copies.h"
#include "tests/host/iic_support.h"
#include "tests/tools/kestd_support.h"
#include "tools/kestd/service.h"

namespace kest::service
{
namespace
{

class KestdSession : public testing::Test
{
protected:
    explicit KestdSession(const std::string& settings = "") : m_configuration(settings)
    {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
        client = ends[0];
        clientSession::clientSocket socket(m_context, asio::local::stream_protocol(), ends[1]);
        session = std::make_shared<clientSession>(m_service, std::move(socket), peerProcess{geteuid(), getpid(), {}},
                                                  m_places.take(geteuid(), false, {1, 1}));
    }
    ~KestdSession() override { hangUp(); }

    void hangUp()
    {
        if (client >= 0) {
            close(client);
            client = -1;
        }
    }

    /// Whether the service has closed the connection.
    [[nodiscard]] bool isEnded() const
    {
        char byte = 0;
        return recv(client, &byte, 1, MSG_DONTWAIT) == 0;
    }

private:
    test::OwnConfiguration m_configuration;
    clientPlaces m_places;
    messageService m_service;
    asio::io_context m_context;

protected:
    int client = -1;
    std::shared_ptr<clientSession> session;
};

constexpr std::int64_t limitMs = 300'000;

TEST_F(KestdSession, SilentClientIsDroppedWhenItsTimeIsUpAndNotBefore)
{
    const std::int64_t before = steadyMs();
    session->run();
    const std::int64_t after = steadyMs();
    session->endWhenLate(before + limitMs - 1, limitMs, 0);
    EXPECT_FALSE(isEnded());
    session->endWhenLate(after + limitMs, limitMs, 0);
    EXPECT_TRUE(isEnded());
}

TEST_F(KestdSession, HalfARequestDoesNotBuyTime)
{
    session->run();
    const std::int64_t after = steadyMs();
    ASSERT_EQ(3, send(client, "\0\0\0", 3, 0));
    session->run();
    session->endWhenLate(after + limitMs, limitMs, 0);
    EXPECT_TRUE(isEnded());
}

/// A client that writes two bytes of copy 0.
class KestdSessionWrite : public KestdSession
{
protected:
    KestdSessionWrite()
        : KestdSession("[registry]\n\"tavo/ReadMode\" = \"FileMode\"\n[[device]]\nnumber = 0\nlocation = \"" +
                       std::string(test::someLocation) + "\"\n")
    {
        const std::string bytes = "abcd";
        EXPECT_EQ(0, host::replaceCopy(0, std::vector<std::uint8_t>(bytes.begin(), bytes.end())));
        client::frame request = test::seepromRequest(client::typeWrite, 0, 2);
        request.payload.insert(request.payload.end(), {'X', 'Y'});
        const std::vector<std::uint8_t> sent = client::encodeFrame(request);
        EXPECT_EQ(static_cast<ssize_t>(sent.size()), send(client, sent.data(), sent.size(), 0));
    }
    static std::string copy()
    {
        std::vector<std::uint8_t> bytes;
        EXPECT_EQ(0, host::readCopy(0, bytes));
        return {bytes.begin(), bytes.end()};
    }
};

TEST_F(KestdSessionWrite, IsDone)
{
    session->run();
    EXPECT_EQ("XYcd", copy());
}

TEST_F(KestdSessionWrite, IsNotBegunWhenTheClientHasHungUp)
{
    hangUp();
    session->run();
    EXPECT_EQ("abcd", copy());
}

TEST_F(KestdSession, WithoutALimitASilentClientStays)
{
    session->run();
    session->endWhenLate(steadyMs() + 1'000'000'000'000, 0, 0);
    EXPECT_FALSE(isEnded());
}

} // namespace
} // namespace kest::service
