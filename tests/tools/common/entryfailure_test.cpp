#include "tools/common/entryfailure.h"

#include <cerrno>
#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "platform/host/errorlog/entry.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{
namespace
{

/// An entry such as the library makes.
std::unique_ptr<ErrlEntry> makeEntry(std::uint16_t reason, std::uint32_t word1)
{
    return std::unique_ptr<ErrlEntry>(new ErrlEntry(0x1300, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE,
                                                    SRCI_TYPE_SERVICE_PROCESSOR, 0, 13, SERVICE_CODE_KEST, reason,
                                                    word1, 0, 0, 0, EPUB_SUBSYSTEM_IIC_DEVICE, SRCI_TERM_NONE));
}

TEST(EntryFailures, ErrnoOfAnEntryIsThatOfItsFirstFailedLayerCall)
{
    using host::describeEntry;
    EXPECT_EQ(ENXIO, errnoOf(describeEntry(*makeEntry(0x1311, ENXIO))));
    // its first word is a detect state, not an errno
    EXPECT_EQ(0, errnoOf(describeEntry(*makeEntry(0x130A, ENXIO))));
    const auto entry = makeEntry(0x1329, 0);
    entry->addSRC(0x1300, SRCI_TYPE_SERVICE_PROCESSOR, 0, 12, SERVICE_CODE_KEST, 0x130E, EBUSY, 0, 0, 0,
                  EPUB_SUBSYSTEM_SOFTWARE);
    EXPECT_EQ(EBUSY, errnoOf(describeEntry(*entry)));
}

/// A client of the service has the return code alone.
TEST(EntryFailures, ReturnCodeDecidesTheExitCode)
{
    struct Row {
        std::uint32_t returnCode;
        int exit; ///< -1: the code alone does not decide it
    };
    for (const Row& expected :
         {Row{0x40001306, 4},  Row{0x4000130A, 4},  Row{0x10001309, 1}, Row{0x00101319, 1}, Row{0x4000131A, 4},
          Row{0x1000131B, 1},  Row{0x0010131C, 2},  Row{0x0010131D, 1}, Row{0x1000131E, 1}, Row{0x1000131F, 1},
          Row{0x8000132A, 1},  Row{0x80001315, 2},  Row{0x80001302, 2}, Row{0x80001318, 2}, Row{0x80001327, 4},
          Row{0x8000132D, 2},  Row{0x80001330, 2},  Row{0x8000130B, 4}, Row{0x80001311, 4}, Row{0x41000000, 4},
          Row{0x80001312, -1}, Row{0x8000130E, -1}, Row{0, -1}}) {
        failure why;
        const bool decided = describeReturnCode(expected.returnCode, why);
        EXPECT_EQ(expected.exit, decided ? why.code : -1) << std::hex << expected.returnCode;
        EXPECT_EQ(decided, !why.what.empty()) << std::hex << expected.returnCode;
    }
}

/// The entry says more than its return code: it holds the errno of the call that failed.
TEST(EntryFailures, EntryDecidesTheExitCode)
{
    const auto exitOf = [](std::uint16_t reason, std::uint32_t returnCode, int error) {
        const auto entry = makeEntry(reason, static_cast<std::uint32_t>(error));
        entry->setRC(returnCode);
        failure why;
        describeEntry(host::describeEntry(*entry), parseDeviceText("sim:p,L,2C0256,A0"), why);
        return std::to_string(why.code) + " " + why.what;
    };
    EXPECT_EQ("6 somebody else holds it", exitOf(0x130E, 0x8000130E, EBUSY));
    EXPECT_EQ("3 not permitted", exitOf(0x130C, 0x8000130C, EACCES));
    EXPECT_EQ("4 nothing answers", exitOf(0x1311, 0x80001311, ENXIO));
    EXPECT_EQ("4 nothing answers, or there is no such bus", exitOf(0x1311, 0x80001311, 0));
    EXPECT_EQ("4 the hub did not answer and was reset", exitOf(0x1311, 0x41000000, ENXIO));
    EXPECT_EQ("2 the hub has no such port", exitOf(0x131C, 0x0010131C, 7));
    EXPECT_EQ("1 a byte was not acknowledged, or the transfer ended short", exitOf(0x1312, 0x80001312, EIO));
    EXPECT_EQ("1 no memory or open file is left", exitOf(0x1312, 0x00001312, ENOMEM));
}

} // namespace
} // namespace kest::tools
