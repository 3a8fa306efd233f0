#include "platform/host/vpd/copies.h"

#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "platform/tavo.h"
#include "tests/host/host_support.h"
#include "tests/host/memory.h"
#include "tests/places.h"

namespace kest::test
{

namespace
{

using Bytes = std::vector<std::uint8_t>;

constexpr const char* root = "qorn/P3_Root";

Bytes contentsOf(std::uint32_t number)
{
    Bytes contents;
    EXPECT_EQ(0, host::readCopy(number, contents));
    return contents;
}

class Copies : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(0, host::replaceCopy(7, Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9})); }
    void TearDown() override
    {
        EXPECT_EQ((Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), contentsOf(8)) << "not requested, so not changed";
    }

    /// Result of a read: "entry RC", or the bytes in hexadecimal.
    std::string read(unsigned int device, unsigned int wanted, unsigned int offset, const char* from = root)
    {
        // must be replaced in any case
        auto* data = reinterpret_cast<unsigned char*>(&length);
        length = wanted;
        const std::unique_ptr<ErrlEntry> entry(
            tavo_read_data_persistancy(from, device, nullptr, &data, &length, offset));
        std::string result;
        for (unsigned int index = 0; entry == nullptr && index < length; ++index) {
            result += "0123456789abcdef"[data[index] % 16];
        }
        if (entry != nullptr) {
            result = summaryOf(*entry);
        }
        EXPECT_EQ(entry != nullptr || length == 0, data == nullptr);
        tavo_util_free(reinterpret_cast<void**>(&data));
        EXPECT_EQ(nullptr, data);
        return result;
    }
    std::string write(unsigned int device, const Bytes& data, unsigned int offset, const char* to = root)
    {
        length = static_cast<unsigned int>(data.size());
        const std::unique_ptr<ErrlEntry> entry(
            tavo_write_data_persistancy(to, device, nullptr, data.data(), &length, offset));
        EXPECT_EQ(data.size(), length);
        return entry != nullptr ? summaryOf(*entry) : "";
    }
    /// Return code and user data of an entry.
    static std::string summaryOf(const ErrlEntry& entry)
    {
        unsigned int count = 0;
        const std::uint32_t* words = entry.getSRC(0)->getHexData(count);
        EXPECT_EQ(0x1400, entry.creator());
        EXPECT_EQ(words[2] | 0x80000000, entry.getRC());
        char text[100];
        std::snprintf(text, sizeof text, "%08X: %u %u %u %u", entry.getRC(), words[4], words[5], words[6], words[7]);
        return text;
    }

    HostFolder folder;
    const int other = host::replaceCopy(8, Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    unsigned int length = 0;
};

TEST_F(Copies, ReadsReturnTheContents)
{
    EXPECT_EQ("345", read(7, 3, 3));
    EXPECT_EQ(3U, length);
    EXPECT_EQ("0123456789", read(7, 10, 0));
    EXPECT_EQ("0123456789", read(7, 0, 0)) << "length 0: all";
    EXPECT_EQ(10U, length);
    EXPECT_EQ("6789", read(7, 0, 6)) << "length 0: all from the offset on";
    EXPECT_EQ("89", read(7, 3, 8)) << "across the end it gives the shorter length";
    EXPECT_EQ(2U, length);
    EXPECT_EQ("9", read(7, 4294967295, 9));
}

TEST_F(Copies, ReadsAtOrPastTheEndAreErrors)
{
    EXPECT_EQ("80001402: 7 3 10 10", read(7, 3, 10));
    EXPECT_EQ("80001402: 7 0 10 10", read(7, 0, 10));
    EXPECT_EQ("80001402: 7 1 4294967295 10", read(7, 1, 4294967295));
}

TEST_F(Copies, APartIsReadWithoutTheRest)
{
    Bytes part;
    host::copyFinding found;
    EXPECT_EQ(0, host::readCopyPart(8, 7, 2, part, found));
    EXPECT_EQ((Bytes{7, 8}), part);
    EXPECT_EQ(10U, found.sizeBytes);
    EXPECT_EQ(0, host::readCopyPart(8, 11, 2, part, found));
    EXPECT_TRUE(part.empty());
    EXPECT_EQ(10U, found.sizeBytes);
    EXPECT_EQ(ENOENT, host::readCopyPart(9, 0, 2, part, found));
    EXPECT_EQ(0U, found.sizeBytes);
}

TEST_F(Copies, NoCopyIsNoDataAndNoError)
{
    for (const unsigned int offset : {0U, 100U}) {
        EXPECT_EQ("", read(9, 5, offset));
        EXPECT_EQ(0U, length);
    }
    EXPECT_EQ("", read(7, 5, 0, "qorn/other"));
    EXPECT_EQ(0U, length);
}

TEST_F(Copies, DeviceNumberZeroHasACopyLikeAnyOther)
{
    EXPECT_EQ(0, host::replaceCopy(0, Bytes{5}));
    EXPECT_EQ("5", read(0, 1, 0));
    EXPECT_EQ("", write(0, {6}, 0));
    EXPECT_EQ((Bytes{6}), contentsOf(0));
}

TEST_F(Copies, WritesChangeJustTheirBytes)
{
    EXPECT_EQ("", write(7, {0xA, 0xB}, 3));
    EXPECT_EQ((Bytes{0, 1, 2, 0xA, 0xB, 5, 6, 7, 8, 9}), contentsOf(7));
    EXPECT_EQ("", write(7, {0xC}, 9));
    EXPECT_EQ((Bytes{0, 1, 2, 0xA, 0xB, 5, 6, 7, 8, 0xC}), contentsOf(7));
    EXPECT_EQ("", write(7, {}, 10));
    EXPECT_EQ((Bytes{0, 1, 2, 0xA, 0xB, 5, 6, 7, 8, 0xC}), contentsOf(7));
}

TEST_F(Copies, WritesPastTheEndAreRefusedAndChangeNothing)
{
    EXPECT_EQ("80001402: 7 2 9 10", write(7, {1, 2}, 9));
    EXPECT_EQ("80001402: 7 1 10 10", write(7, {1}, 10));
    EXPECT_EQ("80001402: 7 2 4294967295 10", write(7, {1, 2}, 4294967295));
    EXPECT_EQ("80001402: 7 0 11 10", write(7, {}, 11));
    EXPECT_EQ((Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), contentsOf(7));
}

TEST_F(Copies, WritesWithoutACopyAreRefusedAndMakeNone)
{
    EXPECT_EQ("80001403: 9 1 0 0", write(9, {1}, 0));
    EXPECT_EQ("80001403: 7 1 0 0", write(7, {1}, 0, "qorn/other"));
    EXPECT_EQ("", read(9, 1, 0));
    EXPECT_FALSE(std::filesystem::exists(folder.state("qorn/other")));
}

TEST_F(Copies, BadArgumentsAreRefused)
{
    unsigned char* data = nullptr;
    const auto rc = [](ErrlEntry* entry) {
        const std::unique_ptr<ErrlEntry> owner(entry);
        return entry != nullptr ? entry->getRC() : 0;
    };
    length = 1;
    EXPECT_EQ(0x80001401U, rc(tavo_read_data_persistancy(nullptr, 7, nullptr, &data, &length, 0)));
    EXPECT_EQ(0x80001401U, rc(tavo_read_data_persistancy(root, 7, "name", &data, &length, 0)));
    EXPECT_EQ(0x80001401U, rc(tavo_read_data_persistancy(root, 7, nullptr, nullptr, &length, 0)));
    EXPECT_EQ(0x80001401U, rc(tavo_read_data_persistancy(root, 7, nullptr, &data, nullptr, 0)));
    const unsigned char byte = 1;
    EXPECT_EQ(0x80001401U, rc(tavo_write_data_persistancy(nullptr, 7, nullptr, &byte, &length, 0)));
    EXPECT_EQ(0x80001401U, rc(tavo_write_data_persistancy(root, 7, "name", &byte, &length, 0)));
    EXPECT_EQ(0x80001401U, rc(tavo_write_data_persistancy(root, 7, nullptr, nullptr, &length, 0)));
    EXPECT_EQ(0x80001401U, rc(tavo_write_data_persistancy(root, 7, nullptr, &byte, nullptr, 0)));
}

TEST_F(Copies, RootsThatLeadElsewhereAreRefused)
{
    for (const std::string& wrong : {std::string(), std::string(".."), std::string("../state/qorn/P3_Root"),
                                     std::string("/etc"), std::string("qorn/../.."), std::string("qorn//P3_Root"),
                                     std::string("qorn/"), std::string("q\nr"), std::string(256, 'a')}) {
        EXPECT_EQ("80001401: 7 1 0 22", read(7, 1, 0, wrong.c_str())) << wrong;
        EXPECT_EQ("80001401: 7 1 0 22", write(7, {1}, 0, wrong.c_str())) << wrong;
        EXPECT_EQ(EINVAL, host::replaceCopy(7, Bytes{1}, {}, wrong));
        EXPECT_EQ(EINVAL, host::removeCopy(7, wrong));
    }
}

TEST_F(Copies, FilesThatCannotBeReadAreErrors)
{
    std::filesystem::create_directory(folder.state("qorn/P3_Root/20"));
    // EISDIR
    EXPECT_EQ("80001404: 20 1 0 21", read(20, 1, 0));
    EXPECT_EQ("80001404: 20 1 0 21", write(20, {1}, 0));
    std::filesystem::resize_file(folder.write("state/qorn/P3_Root/21", ""), 0);
    EXPECT_EQ("80001402: 21 1 0 0", read(21, 1, 0)) << "an empty file has no byte";
    ASSERT_EQ(0, mkfifo(folder.state("qorn/P3_Root/23").c_str(), 0600));
    // ESPIPE
    EXPECT_EQ("80001404: 23 1 0 29", read(23, 1, 0));
    EXPECT_EQ("80001404: 23 1 0 29", write(23, {1}, 0));
    std::filesystem::resize_file(folder.write("state/qorn/P3_Root/22", ""), (16 << 20) + 1);
    // EFBIG
    EXPECT_EQ("80001404: 22 1 0 27", read(22, 1, 0));
}

TEST_F(Copies, AreListedMadeAndRemoved)
{
    EXPECT_EQ(0, other);
    EXPECT_EQ(0, host::replaceCopy(4294967295, Bytes(1000, 1)));
    for (const char* name : {"07", "x", "4294967296", "-1", "7x", ".8.new"}) {
        folder.write(std::string("state/qorn/P3_Root/") + name, "not a copy");
    }
    std::vector<host::copyInfo> copies;
    EXPECT_EQ(0, host::listCopies(copies));
    ASSERT_EQ(3U, copies.size());
    EXPECT_EQ(7U, copies[0].number);
    EXPECT_EQ(10U, copies[0].sizeBytes);
    // 2020
    EXPECT_LT(1577836800000, copies[0].modifiedMs);
    EXPECT_EQ(8U, copies[1].number);
    EXPECT_EQ(4294967295U, copies[2].number);
    EXPECT_EQ(1000U, copies[2].sizeBytes);

    EXPECT_EQ(0, host::removeCopy(7));
    EXPECT_EQ(ENOENT, host::removeCopy(7));
    Bytes none;
    EXPECT_EQ(ENOENT, host::readCopy(7, none));
    EXPECT_EQ("", read(7, 1, 0));
    EXPECT_EQ(EINVAL, host::replaceCopy(7, Bytes{}));
    EXPECT_EQ(EFBIG, host::replaceCopy(7, Bytes((16 << 20) + 1)));
    EXPECT_EQ(0, host::replaceCopy(7, Bytes(16 << 20)));
    EXPECT_EQ(0, host::listCopies(copies, "nothing/here"));
    EXPECT_TRUE(copies.empty());
    EXPECT_FALSE(std::filesystem::exists(folder.state("nothing")));
}

TEST_F(Copies, AFullDiskLeavesTheOldCopy)
{
    EXPECT_EQ(0, host::replaceCopy(7, Bytes(20000, 1)));
    EXPECT_EQ(0, inChild([&] {
                  const rlimit limit{10000, 10000};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  const std::string reported = write(7, {2, 2, 2}, 5);
                  // EFBIG
                  return reported == "80001404: 7 3 5 27" ? 0 : 1;
              }));
    EXPECT_EQ(Bytes(20000, 1), contentsOf(7));
    EXPECT_FALSE(std::filesystem::exists(folder.state("qorn/P3_Root/.7.new")));
}

TEST_F(Copies, KilledAtAnyMomentTheCopyIsTheOldOneOrTheNewOne)
{
    constexpr std::size_t size = 100000;
    EXPECT_EQ(0, host::replaceCopy(7, Bytes(size, 0)));
    for (std::size_t round = 0; round < 30; ++round) {
        const bool whole = round % 2 == 0;
        const auto reported = killAfter(1 + round % 7, [&](std::uint32_t number) {
            const Bytes fresh(size, static_cast<std::uint8_t>(number + 1));
            unsigned int count = size;
            const bool done = whole ? host::replaceCopy(7, fresh) == 0
                                    : tavo_write_data_persistancy(root, 7, nullptr, fresh.data(), &count, 0) == nullptr;
            return done ? number + 1 : 0;
        });
        EXPECT_EQ(reported.size(), reported.back()) << "no write failed";
        const Bytes found = contentsOf(7);
        ASSERT_EQ(size, found.size());
        EXPECT_EQ(Bytes(size, found[0]), found);
        EXPECT_TRUE(found[0] == reported.back() || found[0] == reported.back() + 1)
            << "the last one reported, or the next";
        std::vector<host::copyInfo> copies;
        EXPECT_EQ(0, host::listCopies(copies));
        EXPECT_EQ(2U, copies.size()) << "what a killed writer leaves is no copy";
    }
    EXPECT_EQ("", write(7, {1}, 0)) << "its lock went with it";
}

TEST_F(Copies, WritersOfTwoProcessesKeepEachOthersBytes)
{
    EXPECT_EQ(0, host::replaceCopy(7, Bytes(400, 0)));
    const auto fill = [](std::uint8_t byte, unsigned int first) {
        int failures = 0;
        for (unsigned int offset = first; offset < 400; offset += 2) {
            unsigned int count = 1;
            if (tavo_write_data_persistancy(root, 7, nullptr, &byte, &count, offset) != nullptr) {
                ++failures;
            }
        }
        return failures;
    };
    const pid_t child = fork();
    if (child == 0) {
        _exit(fill(1, 0));
    }
    EXPECT_EQ(0, fill(2, 1));
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    Bytes expected;
    for (int pair = 0; pair < 200; ++pair) {
        expected.insert(expected.end(), {1, 2});
    }
    EXPECT_EQ(expected, contentsOf(7));
}

TEST_F(Copies, AreReadWithoutPermissionToWrite)
{
    for (const char* name : {"", "state", "state/qorn", "state/qorn/P3_Root"}) {
        chmod((folder.path() / name).c_str(), 0755);
    }
    chmod((folder.state("qorn/P3_Root/7")).c_str(), 0444);
    EXPECT_EQ(0, inChild([&] { return dropRights() && read(7, 2, 0) == "01" && !HasFailure() ? 0 : 1; }));
    EXPECT_EQ(0, inChild([&] {
                  // EACCES
                  return dropRights() && write(7, {1}, 0) == "80001404: 7 1 0 13" && !HasFailure() ? 0 : 1;
              }));
}

TEST_F(Copies, WithoutMemoryAReadGivesTheDataOrAnEntry)
{
    KEST_SKIP_UNLESS_MEMORY_CAN_FAIL();
    EXPECT_EQ("", withoutMemory([] {
                  unsigned char unset = 0;
                  unsigned char* data = &unset;
                  unsigned int length = 3;
                  const std::unique_ptr<ErrlEntry> entry(
                      tavo_read_data_persistancy(root, 7, nullptr, &data, &length, 4));
                  const bool read = data != nullptr && data != &unset && length == 3 && data[0] == 4 && data[2] == 6;
                  const bool kept = entry == nullptr ? read : data == nullptr && length == 3;
                  tavo_util_free(reinterpret_cast<void**>(&data));
                  return kept;
              }));
    EXPECT_EQ("", withoutMemory([] {
                  unsigned char* data = nullptr;
                  unsigned int length = 3;
                  const std::unique_ptr<ErrlEntry> pastTheEnd(
                      tavo_read_data_persistancy(root, 7, nullptr, &data, &length, 10));
                  return pastTheEnd != nullptr && data == nullptr;
              }));
}

TEST_F(Copies, WithoutMemoryAWriteIsDoneOrAnEntryAndNothing)
{
    KEST_SKIP_UNLESS_MEMORY_CAN_FAIL();
    EXPECT_EQ("", withoutMemory([this] {
                  const std::array<unsigned char, 2> data{0xA, 0xB};
                  unsigned int length = 2;
                  const std::unique_ptr<ErrlEntry> entry(
                      tavo_write_data_persistancy(root, 7, nullptr, data.data(), &length, 4));
                  giveMemoryBack();
                  const std::string now = read(7, 0, 0);
                  host::replaceCopy(7, Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
                  return length == 2 && now == (entry == nullptr ? "0123ab6789" : "0123456789");
              }));
}

class DeviceTable : public testing::Test
{
protected:
    std::string locationOf(unsigned int number, unsigned int position = 0)
    {
        char unset = 0;
        char* string = &unset;
        const std::unique_ptr<ErrlEntry> entry(
            TAVO_get_dev_addr_string(number, &string, static_cast<zelPosition>(position), false));
        const std::string result = entry == nullptr ? string : "entry";
        EXPECT_EQ(entry != nullptr, string == nullptr);
        if (entry != nullptr) {
            unsigned int count = 0;
            const std::uint32_t* words = entry->getSRC(0)->getHexData(count);
            EXPECT_EQ(0x80001405U, entry->getRC());
            EXPECT_EQ(number, words[4]);
            EXPECT_EQ(position, words[6]);
        }
        tavo_util_free(reinterpret_cast<void**>(&string));
        return result;
    }
    HostFolder folder;
};

TEST_F(DeviceTable, GivesTheLocationOfNumberAndPosition)
{
    folder.configure("[[device]]\nnumber = 0x1000\nlocation = \"/dev/i2c-1,local,1.3\"\n"
                     "[[device]]\nnumber = 0x1000\nposition = 2\nlocation = \"" +
                     std::string(255, 'x') + "\"\n");
    EXPECT_EQ("/dev/i2c-1,local,1.3", locationOf(0x1000));
    EXPECT_EQ(std::string(255, 'x'), locationOf(0x1000, 2));
    EXPECT_EQ("entry", locationOf(0x1000, 1));
    EXPECT_EQ("entry", locationOf(0x1001));
    EXPECT_EQ("entry", locationOf(0));
}

TEST_F(DeviceTable, WithoutMemoryThereIsALocationOrAnEntry)
{
    KEST_SKIP_UNLESS_MEMORY_CAN_FAIL();
    folder.configure("[[device]]\nnumber = 1\nlocation = \"there\"\n");
    EXPECT_EQ("", withoutMemory([] {
                  char unset = 0;
                  char* string = &unset;
                  const std::unique_ptr<ErrlEntry> entry(
                      TAVO_get_dev_addr_string(1, &string, static_cast<zelPosition>(0), false));
                  const bool kept =
                      entry == nullptr ? string != nullptr && std::string_view(string) == "there" : string == nullptr;
                  tavo_util_free(reinterpret_cast<void**>(&string));
                  return kept;
              }));
}

TEST_F(DeviceTable, NullResultIsRefused)
{
    const std::unique_ptr<ErrlEntry> entry(TAVO_get_dev_addr_string(1, nullptr, static_cast<zelPosition>(0), false));
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(0x80001401U, entry->getRC());
}

TEST(SharedBuffers, AreZeroFilledAndDistinct)
{
    void* buffers[3] = {tavo_malloc(0), tavo_malloc(0), tavo_malloc(1000)};
    EXPECT_NE(nullptr, buffers[0]);
    EXPECT_NE(buffers[0], buffers[1]);
    EXPECT_EQ(Bytes(1000, 0),
              Bytes(static_cast<std::uint8_t*>(buffers[2]), static_cast<std::uint8_t*>(buffers[2]) + 1000));
    for (void*& buffer : buffers) {
        tavo_util_free(&buffer);
        EXPECT_EQ(nullptr, buffer);
        tavo_util_free(&buffer);
    }
    tavo_util_free(nullptr);
}

TEST(SharedBuffers, AreNullWhenThereIsNoMemory)
{
    if (underSanitizer || isEmulated()) {
        GTEST_SKIP() << "the sanitizers and the emulator need an unbounded address space";
    }
    EXPECT_EQ(0, inChild([] {
                  const rlimit limit{512 << 20, 512 << 20};
                  return setrlimit(RLIMIT_AS, &limit) == 0 && tavo_malloc(0xFFFFFFFF) == nullptr ? 0 : 1;
              }));
}

} // namespace

} // namespace kest::test
