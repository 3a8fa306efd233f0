#include "kestattribute.h"

#include <cstring>
#include <memory>
#include <vector>

#include "kest/kest.h"
#include "tests/kest/results.h"
#include "tests/platform/scripted.h"

using namespace results;
using namespace scripted;

namespace
{

kest_deviceAddress* listOf(const std::vector<Node>& nodes)
{
    kest_deviceAddress* list = nullptr;
    for (const Node& node : nodes) {
        KEST_addDevAddress(node.address, static_cast<kest_deviceType>(node.type), node.port, &list);
    }
    return list;
}

std::uint32_t check(std::initializer_list<std::uint32_t> types)
{
    kest_deviceAddress* list = nullptr;
    for (const std::uint32_t type : types) {
        KEST_addDevAddress(0xA0, static_cast<kest_deviceType>(type), 0, &list);
    }
    const std::uint32_t code = kest_checkAddressList(list);
    KEST_deleteDevAddress(&list, true);
    return code;
}

constexpr std::uint32_t hubs[] = {0xF0, 0x922};
constexpr std::uint32_t seeproms[] = {0x1C0002, 0x2C0032, 0x2C0064, 0x2C0128, 0x2C0256, 0x2C0512};
constexpr std::uint32_t others[] = {0x9551, 0x9552, 0x9554, 0x9555, 0xD10, 0x75, 0x92, 0x172};
constexpr std::uint32_t strange[] = {0, 1, 0x9553, 0x123, 0x1C0032, 0x2C0002, 0xF1, 0x923, 0xFFFFFFFF};

std::vector<std::uint32_t> endDevices()
{
    std::vector<std::uint32_t> types(std::begin(seeproms), std::end(seeproms));
    types.insert(types.end(), std::begin(others), std::end(others));
    return types;
}

using KestAddressList = PlatformTest;
using KestAttributes = PlatformTest;

TEST(KestDeviceTypes, HaveTheirNumbers)
{
    EXPECT_EQ(240U, KEST_DEV_HUB_F0);
    EXPECT_EQ(2338U, KEST_DEV_922HUB);
    EXPECT_EQ(0x1C0002U, KEST_DEV_SEEPROM_2K);
    EXPECT_EQ(0x2C0032U, KEST_DEV_SEEPROM_32K);
    EXPECT_EQ(0x2C0064U, KEST_DEV_SEEPROM_64K);
    EXPECT_EQ(0x2C0128U, KEST_DEV_SEEPROM_128K);
    EXPECT_EQ(0x2C0256U, KEST_DEV_SEEPROM_256K);
    EXPECT_EQ(0x2C0512U, KEST_DEV_SEEPROM_512K);
    EXPECT_EQ(0x9551U, KEST_DEV_9551);
    EXPECT_EQ(0x9552U, KEST_DEV_9552);
    EXPECT_EQ(0x9554U, KEST_DEV_9554);
    EXPECT_EQ(0x9555U, KEST_DEV_9555);
    EXPECT_EQ(3344U, KEST_DEV_D10);
    EXPECT_EQ(117U, KEST_DEV_75);
    EXPECT_EQ(146U, KEST_DEV_92);
    EXPECT_EQ(370U, KEST_DEV_172);
}

TEST(KestDeviceTypes, SeepromsHaveTheirPageSizes)
{
    const auto pageSize = [](std::uint32_t type) { return kest::kest_pageSize(static_cast<kest_deviceType>(type)); };
    EXPECT_EQ(8U, pageSize(0x1C0002));
    EXPECT_EQ(32U, pageSize(0x2C0032));
    EXPECT_EQ(32U, pageSize(0x2C0064));
    EXPECT_EQ(64U, pageSize(0x2C0128));
    EXPECT_EQ(64U, pageSize(0x2C0256));
    EXPECT_EQ(128U, pageSize(0x2C0512));
    for (const std::uint32_t type : others) {
        EXPECT_EQ(0U, pageSize(type)) << std::hex << type;
        EXPECT_FALSE(kest::kest_isSeeprom(static_cast<kest_deviceType>(type))) << std::hex << type;
    }
    for (const std::uint32_t type : seeproms) {
        EXPECT_TRUE(kest::kest_isSeeprom(static_cast<kest_deviceType>(type))) << std::hex << type;
    }
    EXPECT_EQ(0U, pageSize(0xF0));
    EXPECT_EQ(0U, pageSize(0x922));
    EXPECT_EQ(0U, pageSize(0x123));
}

TEST(KestDeviceTypes, AreKnownOrNot)
{
    const auto known = [](std::uint32_t type) { return kest::kest_isKnownType(static_cast<kest_deviceType>(type)); };
    EXPECT_TRUE(known(0xF0) && known(0x922));
    for (const std::uint32_t type : endDevices()) {
        EXPECT_TRUE(known(type)) << std::hex << type;
    }
    for (const std::uint32_t type : strange) {
        EXPECT_FALSE(known(type)) << std::hex << type;
    }
}

TEST_F(KestAddressList, TheLastNodeOfNoneIsNone)
{
    EXPECT_EQ(nullptr, kest::kest_lastNode(nullptr));
    kest_deviceAddress* list = listOf({{0x80, 0x922, 3}, {0xA0, 0x2C0256, 0}});
    EXPECT_EQ(list->next, kest::kest_lastNode(list));
    EXPECT_EQ(list->next, kest::kest_lastNode(list->next));
    KEST_deleteDevAddress(&list, true);
}

TEST_F(KestAddressList, ANodeHoldsZerosBetweenItsFields)
{
    kest_deviceAddress* list = nullptr;
    KEST_addDevAddress(0xA0, KEST_DEV_922HUB, 3, &list);
    unsigned char bytes[sizeof *list]{};
    std::memcpy(bytes, list, sizeof *list);
    for (const auto& [at, size] : {std::pair{offsetof(kest_deviceAddress, address), sizeof list->address},
                                   {offsetof(kest_deviceAddress, type), sizeof list->type},
                                   {offsetof(kest_deviceAddress, port), sizeof list->port},
                                   {offsetof(kest_deviceAddress, next), sizeof list->next}}) {
        // with its fields cleared, only zeros are left
        std::fill_n(bytes + at, size, std::uint8_t{0});
    }
    EXPECT_EQ(std::vector<unsigned char>(sizeof *list), std::vector<unsigned char>(bytes, bytes + sizeof *list));
    KEST_deleteDevAddress(&list, true);
}

TEST_F(KestAddressList, AppendsNodesInOrder)
{
    kest_deviceAddress* list = listOf({{0x80, 0x922, 3}, {0xA0, 0x2C0256, 0}});
    EXPECT_EQ((std::vector<Node>{{0x80, 0x922, 3}, {0xA0, 0x2C0256, 0}}), nodesOf(list));
    KEST_addDevAddress(0xFF, KEST_DEV_75, 0xFF, &list);
    EXPECT_EQ((Node{0xFF, 0x75, 0xFF}), nodesOf(list).at(2));
    KEST_deleteDevAddress(&list, true);
    EXPECT_EQ(nullptr, list);
}

TEST_F(KestAddressList, NullArgumentsAreIgnored)
{
    KEST_addDevAddress(0xA0, KEST_DEV_75, 0, nullptr);
    KEST_deleteDevAddress(nullptr, false);
    KEST_deleteDevAddress(nullptr, true);
    kest_deviceAddress* empty = nullptr;
    KEST_deleteDevAddress(&empty, false);
    KEST_deleteDevAddress(&empty, true);
    KEST_reflattenAddressList(nullptr);
    EXPECT_EQ(nullptr, empty);
    EXPECT_EQ(nullptr, KEST_unflattenAddressList(nullptr));
    EXPECT_EQ("\n", platform.log());
}

TEST_F(KestAddressList, WithoutMemoryNothingIsAppended)
{
    kest_deviceAddress* list = listOf({{0xA0, 0x75, 0}});
    platform.failAllocation();
    KEST_addDevAddress(0xA2, KEST_DEV_75, 0, &list);
    EXPECT_EQ(1U, nodesOf(list).size());
    KEST_deleteDevAddress(&list, true);
}

TEST_F(KestAddressList, DeletesTheLastNode)
{
    kest_deviceAddress* list = listOf({{1, 0xF0, 1}, {2, 0x922, 2}, {3, 0x75, 3}});
    KEST_deleteDevAddress(&list, false);
    EXPECT_EQ((std::vector<Node>{{1, 0xF0, 1}, {2, 0x922, 2}}), nodesOf(list));
    KEST_deleteDevAddress(&list, false);
    KEST_deleteDevAddress(&list, false);
    EXPECT_EQ(nullptr, list);
}

TEST_F(KestAddressList, FlattensIntoAnArrayThatLinksToItself)
{
    kest_deviceAddress* list = listOf({{0x10, 0xF0, 1}, {0x80, 0x922, 7}, {0xA0, 0x2C0512, 9}});
    unsigned int size = 0;
    const std::unique_ptr<kest_deviceAddress[]> flat{KEST_flattenAddressList(list, &size)};
    EXPECT_EQ(3 * sizeof(kest_deviceAddress), size);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(48U, size);
        EXPECT_EQ(16U, sizeof(kest_deviceAddress));
    }
    EXPECT_EQ(nodesOf(list), nodesOf(flat.get()));
    EXPECT_EQ(&flat[1], flat[0].next);
    EXPECT_EQ(&flat[2], flat[1].next);
    EXPECT_EQ(nullptr, flat[2].next);
    KEST_deleteDevAddress(&list, true);
    // a copy
    EXPECT_EQ(0x80, flat[1].address);
}

TEST_F(KestAddressList, FlatArraysCarryNoStrayBytes)
{
    kest_deviceAddress* list = listOf({{0x80, 0x922, 7}});
    unsigned int size = 0;
    const std::unique_ptr<kest_deviceAddress[]> flat{KEST_flattenAddressList(list, &size)};
    Bytes bytes(size);
    std::memcpy(bytes.data(), flat.get(), size);
    EXPECT_EQ((Bytes{0x80, 0, 0, 0}), Bytes(bytes.begin(), bytes.begin() + 4));
    EXPECT_EQ((Bytes{7, 0, 0, 0}), Bytes(bytes.begin() + 8, bytes.begin() + 12));
    KEST_deleteDevAddress(&list, true);
}

TEST_F(KestAddressList, FlatteningNothingGivesNothing)
{
    unsigned int size = 99;
    EXPECT_EQ(nullptr, KEST_flattenAddressList(nullptr, &size));
    EXPECT_EQ(0U, size);
}

TEST_F(KestAddressList, FlattensForACallerWhoDoesNotAskForTheSize)
{
    kest_deviceAddress* list = listOf({{0xA0, 0x2C0256, 0}});
    const std::unique_ptr<kest_deviceAddress[]> flat{KEST_flattenAddressList(list, nullptr)};
    EXPECT_EQ(0xA0, flat[0].address);
    EXPECT_EQ(nullptr, KEST_flattenAddressList(nullptr, nullptr));
    KEST_deleteDevAddress(&list, true);
}

TEST_F(KestAddressList, FlatteningWithoutMemoryGivesNothing)
{
    kest_deviceAddress* list = listOf({{0x80, 0x922, 7}});
    unsigned int size = 99;
    platform.failAllocation();
    EXPECT_EQ(nullptr, KEST_flattenAddressList(list, &size));
    EXPECT_EQ(0U, size);
    KEST_deleteDevAddress(&list, true);
}

TEST_F(KestAddressList, ACopiedArrayLinksIntoTheCopyOnceReflattened)
{
    kest_deviceAddress* list = listOf({{1, 0xF0, 1}, {2, 0x922, 2}, {3, 0x75, 3}});
    unsigned int size = 0;
    std::unique_ptr<kest_deviceAddress[]> flat{KEST_flattenAddressList(list, &size)};
    kest_deviceAddress copy[3];
    std::memcpy(static_cast<void*>(copy), flat.get(), size);
    flat.reset();
    KEST_reflattenAddressList(copy);
    EXPECT_EQ(&copy[1], copy[0].next);
    EXPECT_EQ(&copy[2], copy[1].next);
    EXPECT_EQ(nullptr, copy[2].next);
    EXPECT_EQ(nodesOf(list), nodesOf(copy));
    KEST_deleteDevAddress(&list, true);
}

TEST_F(KestAddressList, ReflatteningStopsAtTheFirstElementWithoutALink)
{
    kest_deviceAddress flat[3]{};
    // the list is rewritten whether it is valid or not
    flat[0].next = flat;
    flat[2].next = flat;
    KEST_reflattenAddressList(flat);
    EXPECT_EQ(&flat[1], flat[0].next);
    EXPECT_EQ(nullptr, flat[1].next);
    EXPECT_EQ(flat, flat[2].next);
}

TEST_F(KestAddressList, UnflattensIntoAListOfItsOwn)
{
    kest_deviceAddress* list = listOf({{1, 0xF0, 1}, {2, 0x922, 2}, {3, 0x75, 3}});
    unsigned int size = 0;
    std::unique_ptr<kest_deviceAddress[]> flat{KEST_flattenAddressList(list, &size)};
    kest_deviceAddress* again = KEST_unflattenAddressList(flat.get());
    flat.reset();
    EXPECT_EQ(nodesOf(list), nodesOf(again));
    KEST_deleteDevAddress(&list, true);
    KEST_deleteDevAddress(&again, true);
}

TEST_F(KestAddressList, UnflatteningWithoutMemoryGivesNoPartOfAList)
{
    kest_deviceAddress* list = listOf({{1, 0xF0, 1}, {2, 0x922, 2}, {3, 0x75, 3}});
    for (int failing = 1; failing <= 3; ++failing) {
        platform.failAllocation(failing);
        EXPECT_EQ(nullptr, KEST_unflattenAddressList(list)) << failing;
    }
    KEST_deleteDevAddress(&list, true);
}

TEST_F(KestAddressList, ChecksTheLength)
{
    EXPECT_EQ(0xAC0001U, kest_checkAddressList(nullptr));
    EXPECT_EQ(0xAC0002U, check({0xF0, 0xF0, 0x922, 0x75}));
    // before any type is checked
    EXPECT_EQ(0xAC0002U, check({0x123, 0x123, 0x123, 0x123}));
    EXPECT_EQ(0xAC0002U, check({0xF0, 0x922, 0x75, 0x75, 0x75}));
}

TEST_F(KestAddressList, AcceptsOneEndDevice)
{
    for (const std::uint32_t type : endDevices()) {
        EXPECT_EQ(0U, check({type})) << std::hex << type;
    }
}

TEST_F(KestAddressList, RefusesALoneHub)
{
    EXPECT_EQ(0xAC0007U, check({0xF0}));
    EXPECT_EQ(0xAC0007U, check({0x922}));
    EXPECT_EQ(0xAC0007U, check({0xF0, 0x922}));
}

TEST_F(KestAddressList, RefusesUnknownTypes)
{
    for (const std::uint32_t type : strange) {
        EXPECT_EQ(0xAC0003U, check({type})) << std::hex << type;
        EXPECT_EQ(0xAC0003U, check({0x922, type})) << std::hex << type;
        // seen while the first node is checked
        EXPECT_EQ(0xAC0003U, check({0x75, type})) << std::hex << type;
        EXPECT_EQ(0xAC0003U, check({type, type})) << std::hex << type;
        EXPECT_EQ(0xAC0003U, check({0xF0, 0x922, type})) << std::hex << type;
    }
}

TEST_F(KestAddressList, JudgesEveryPair)
{
    for (const std::uint32_t end : endDevices()) {
        for (const std::uint32_t hub : hubs) {
            EXPECT_EQ(0U, check({hub, end})) << std::hex << hub << ' ' << end;
            EXPECT_EQ(0xAC0004U, check({end, hub})) << std::hex << end << ' ' << hub;
            EXPECT_EQ(0xAC0004U, check({hub, end, hub})) << std::hex << hub << ' ' << end;
        }
        for (const std::uint32_t second : endDevices()) {
            EXPECT_EQ(0xAC0005U, check({end, second})) << std::hex << end << ' ' << second;
            EXPECT_EQ(0xAC0005U, check({0x922, end, second})) << std::hex << end << ' ' << second;
        }
        EXPECT_EQ(0U, check({0xF0, 0x922, end})) << std::hex << end;
        EXPECT_EQ(0xAC0006U, check({0x922, 0xF0, end})) << std::hex << end;
        EXPECT_EQ(0xAC0006U, check({0x922, 0x922, end})) << std::hex << end;
        EXPECT_EQ(0xAC0006U, check({0xF0, 0xF0, end})) << std::hex << end;
    }
    EXPECT_EQ(0xAC0006U, check({0xF0, 0xF0}));
    EXPECT_EQ(0xAC0006U, check({0xF0, 0x922, 0x922}));
}

TEST(KestAttributeIndexes, HaveTheirNumbersAndDefaults)
{
    EXPECT_EQ(0, KEST_ATTR_BUS_SPEED);
    EXPECT_EQ(1, KEST_ATTR_OPTION);
    EXPECT_EQ(2, KEST_ATTR_WRITE_CYCLE);
    EXPECT_EQ(3, KEST_ATTR_READ_MODE);
    EXPECT_EQ(4, KEST_ATTR_TIMEOUT_FACTOR);
    EXPECT_EQ(5, KEST_ATTR_TRANSFER_MODE);
    EXPECT_EQ((std::array<kest_attributeValue, 6>{400, 1, 15, 1, 2, 1}), kest::kest_attributeDefaults);
    const kest_attributeValue own[6] = {100, 1, 1, 1, 1, 1};
    EXPECT_EQ(kest::kest_attributeDefaults.data(), kest::kest_attributesOrDefaults(nullptr));
    EXPECT_EQ(own, kest::kest_attributesOrDefaults(own));
}

TEST_F(KestAttributes, StoresEachValue)
{
    kest_attributeValue record[6] = {};
    for (int id = 0; id < 6; ++id) {
        EXPECT_EQ(nullptr,
                  KEST_setAttribute(static_cast<kest_attribute>(id), 0xFFFFFF00U + static_cast<unsigned>(id), record));
    }
    const kest_attributeValue expected[6] = {0xFFFFFF00, 0xFFFFFF01, 0xFFFFFF02, 0xFFFFFF03, 0xFFFFFF04, 0xFFFFFF05};
    EXPECT_EQ(0, std::memcmp(expected, record, sizeof record));
    EXPECT_EQ("\n", platform.calls());
}

TEST_F(KestAttributes, ZeroRestoresTheDefault)
{
    kest_attributeValue record[6] = {7, 7, 7, 7, 7, 7};
    const kest_attributeValue expected[6] = {400, 1, 15, 1, 2, 1};
    for (int id = 0; id < 6; ++id) {
        EXPECT_EQ(nullptr, KEST_setAttribute(static_cast<kest_attribute>(id), 0, record));
    }
    EXPECT_EQ(0, std::memcmp(expected, record, sizeof record));
}

TEST_F(KestAttributes, RefusesIdsOutsideTheRecord)
{
    for (const int id : {6, 7, 1000, 0x7FFFFFFF, -1, -6, static_cast<int>(0x80000000)}) {
        for (const kest_attributeValue value : {0U, 5U}) {
            kest_attributeValue record[6] = {1, 2, 3, 4, 5, 6};
            const kest_attributeValue expected[6] = {1, 2, 3, 4, 5, 6};
            platform.reset();
            const std::unique_ptr<ErrlEntry> entry{KEST_setAttribute(static_cast<kest_attribute>(id), value, record)};
            ASSERT_NE(nullptr, entry);
            EXPECT_EQ((Src{.module = 1, .reason = 0x1301, .word1 = static_cast<std::uint32_t>(id)}),
                      platform.entry(1).srcs.at(0));
            EXPECT_EQ(0x80001301U, platform.entry(1).returnCode);
            EXPECT_EQ(0, std::memcmp(expected, record, sizeof record));
        }
    }
}

TEST_F(KestAttributes, DescribesAnUnknownIdInFull)
{
    kest_attributeValue record[6] = {};
    const std::unique_ptr<ErrlEntry> entry{KEST_setAttribute(static_cast<kest_attribute>(6), 1, record)};
    EXPECT_EQ(R"(
SRC module 1 reason 0x1301 words 0x6 0x0 0x0 0x0 subsystem 0x81
rc 0x80001301
callout 1 4
details 2 "kestattribute"
)",
              platform.entry(1).text());
    EXPECT_EQ(1U, platform.lines(kindTrace).size());
    EXPECT_EQ(2U, platform.lines(kindScope).size());
}

TEST_F(KestAttributes, NeedsARecord)
{
    // the record is checked first
    const std::unique_ptr<ErrlEntry> entry{KEST_setAttribute(static_cast<kest_attribute>(99), 1, nullptr)};
    EXPECT_EQ(R"(
SRC module 1 reason 0x132B words 0x0 0x0 0x0 0x0 subsystem 0x81
rc 0x8000132B
callout 1 4
details 2 "kestattribute"
)",
              platform.entry(1).text());
    EXPECT_EQ(1U, platform.lines(kindTrace).size());
}

} // namespace
