/// What the message service answers of a copy with check sums.
#include "platform/host/vpd/copyformat.h"
#include "tests/tools/kestd_support.h"

namespace kest::test
{
namespace
{

using client::answer;
using client::outcome;

TEST_F(KestdTest, ServesWhatTheCheckSumsOfACopyProve)
{
    std::vector<std::uint8_t> file = host::copyFileOf(contents, {});
    writeFile(copyFile(), std::string(file.begin(), file.end()));
    start();
    client::serviceConnection connection = connect();
    EXPECT_EQ(part(0, 65536), connection.readSeeprom(someLocation, 0, 65536).data);
    EXPECT_EQ(outcome::done, connection.writeSeeprom(someLocation, 5000, std::vector<std::uint8_t>{0xAA}).what);
    EXPECT_EQ(std::vector<std::uint8_t>{0xAA}, connection.readSeeprom(someLocation, 5000, 1).data);

    // in the block from 8192
    file.at(host::copyLayout(65536).dataOffset() + 8200) ^= 0x80;
    writeFile(copyFile(), std::string(file.begin(), file.end()));
    const answer damaged = connection.readSeeprom(someLocation, 8000, 300);
    EXPECT_EQ(outcome::failed, damaged.what);
    EXPECT_EQ(0x80001305U, damaged.returnCode);
    EXPECT_NE(0U, damaged.logId);
    EXPECT_TRUE(damaged.data.empty());
    EXPECT_EQ(part(8000, 192), connection.readSeeprom(someLocation, 8000, 192).data) << "the block before it";
    EXPECT_EQ(0, daemon().stop());
}

} // namespace
} // namespace kest::test
