#include "kestattribute.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "kesterrorlog.h"
#include "kesttrace.h"

namespace kest
{

const std::array<kest_attributeValue, KEST_ATTR_COUNT> kest_attributeDefaults{400, 1, 15, 1, 2, 1};

namespace
{

constexpr char sourceId[] = "kestattribute";
constexpr std::uint32_t setModule = 1;
constexpr unsigned int longestChain = 3;
constexpr std::uint32_t noList = 0xAC0001;
constexpr std::uint32_t tooManyNodes = 0xAC0002;
constexpr std::uint32_t unknownType = 0xAC0003;
constexpr std::uint32_t hubAfterEnd = 0xAC0004;
constexpr std::uint32_t endAfterEnd = 0xAC0005;
constexpr std::uint32_t hubBehindHub = 0xAC0006;
constexpr std::uint32_t chainEndsInHub = 0xAC0007;

struct seepromType {
    kest_deviceType type;
    std::uint32_t pageSize; ///< bytes
};
constexpr std::array<seepromType, 6> seepromTypes{{
    {KEST_DEV_SEEPROM_32K, 32},
    {KEST_DEV_SEEPROM_64K, 32},
    {KEST_DEV_SEEPROM_128K, 64},
    {KEST_DEV_SEEPROM_256K, 64},
    {KEST_DEV_SEEPROM_512K, 128},
    {KEST_DEV_SEEPROM_2K, 8},
}};
static_assert(std::ranges::all_of(seepromTypes, [](const seepromType& row) {
    // what the layer takes for a page
    return row.pageSize != 0 && (row.pageSize & (row.pageSize - 1)) == 0;
}));

constexpr std::array otherEndDevices{KEST_DEV_9551, KEST_DEV_9552, KEST_DEV_9554, KEST_DEV_9555,
                                     KEST_DEV_D10,  KEST_DEV_75,   KEST_DEV_92,   KEST_DEV_172};

bool isHub(kest_deviceType type) { return type == KEST_DEV_HUB_F0 || type == KEST_DEV_922HUB; }

bool isEndDevice(kest_deviceType type)
{
    return kest_isSeeprom(type) || std::ranges::find(otherEndDevices, type) != otherEndDevices.end();
}

/// Only a 922 hub behind a 0xF0 hub may follow a hub.
bool mayFollow(kest_deviceType hub, kest_deviceType next)
{
    return !isHub(next) || (hub == KEST_DEV_HUB_F0 && next == KEST_DEV_922HUB);
}

/// Checks one node together with its successor.
std::uint32_t checkNode(const kest_deviceAddress& node)
{
    const kest_deviceAddress* const next = node.next;
    std::uint32_t code = 0;
    if (!kest_isKnownType(node.type) || (next != nullptr && !kest_isKnownType(next->type))) {
        code = unknownType;
    } else if (next == nullptr) {
        code = isHub(node.type) ? chainEndsInHub : 0;
    } else if (isEndDevice(node.type)) {
        code = isHub(next->type) ? hubAfterEnd : endAfterEnd;
    } else if (!mayFollow(node.type, next->type)) {
        code = hubBehindHub;
    }
    return code;
}

std::size_t lengthOf(const kest_deviceAddress* list)
{
    std::size_t length = 0;
    for (; list != nullptr; list = list->next) {
        ++length;
    }
    return length;
}

} // namespace

const kest_attributeValue* kest_attributesOrDefaults(const kest_attributeValue* attributes)
{
    return attributes == nullptr ? kest_attributeDefaults.data() : attributes;
}

std::uint32_t kest_pageSize(kest_deviceType type)
{
    const auto* const found = std::ranges::find(seepromTypes, type, &seepromType::type);
    return found == seepromTypes.end() ? 0 : found->pageSize;
}

bool kest_isSeeprom(kest_deviceType type) { return kest_pageSize(type) != 0; }
bool kest_isKnownType(kest_deviceType type) { return isHub(type) || isEndDevice(type); }

const kest_deviceAddress* kest_lastNode(const kest_deviceAddress* list)
{
    while (list != nullptr && list->next != nullptr) {
        list = list->next;
    }
    return list;
}

void KEST_addDevAddress(unsigned char address, kest_deviceType type, unsigned char port, kest_deviceAddress** list)
{
    if (list != nullptr) {
        auto* const node = new (std::nothrow) kest_deviceAddress;
        if (node != nullptr) {
            // padding, too, which an initialiser may leave out
            std::memset(static_cast<void*>(node), 0, sizeof *node);
            node->address = address;
            node->type = type;
            node->port = port;
            while (*list != nullptr) {
                list = &(*list)->next;
            }
            *list = node;
        }
    }
}

void KEST_deleteDevAddress(kest_deviceAddress** list, bool all)
{
    if (list != nullptr && *list != nullptr) {
        while (!all && (*list)->next != nullptr) {
            list = &(*list)->next;
        }
        // the last node, or from the first on: long lists need not be walked once a node
        while (*list != nullptr) {
            kest_deviceAddress* const node = *list;
            *list = node->next;
            delete node;
        }
    }
}

kest_deviceAddress* KEST_flattenAddressList(const kest_deviceAddress* list, unsigned int* size)
{
    const std::size_t length = lengthOf(list);
    const std::size_t bytes = length * sizeof(kest_deviceAddress);
    kest_deviceAddress* flat = length == 0 ? nullptr : new (std::nothrow) kest_deviceAddress[length];
    if (flat != nullptr) {
        std::memset(static_cast<void*>(flat), 0,
                    // padding, too: messages and error logs take the array as it is
                    bytes);
    }
    for (std::size_t i = 0; flat != nullptr && i < length; ++i, list = list->next) {
        flat[i].address = list->address;
        flat[i].type = list->type;
        flat[i].port = list->port;
        flat[i].next = i + 1 < length ? &flat[i + 1] : nullptr;
    }
    if (size != nullptr) {
        *size = flat == nullptr ? 0 : static_cast<unsigned int>(bytes);
    }
    return flat;
}

kest_deviceAddress* KEST_unflattenAddressList(const kest_deviceAddress* flat)
{
    kest_deviceAddress* list = nullptr;
    kest_deviceAddress** end = &list;
    bool made = true;
    for (; made && flat != nullptr; flat = flat->next) {
        KEST_addDevAddress(flat->address, flat->type, flat->port, end);
        made = *end != nullptr;
        end = made ? &(*end)->next : end;
    }
    if (!made) {
        // no memory: a chain with a node left out would lead to another device
        KEST_deleteDevAddress(&list, true);
    }
    return list;
}

void KEST_reflattenAddressList(kest_deviceAddress* flat)
{
    for (; flat != nullptr && flat->next != nullptr; ++flat) {
        flat->next = flat + 1;
    }
}

std::uint32_t kest_checkAddressList(const kest_deviceAddress* list)
{
    std::uint32_t code = 0;
    if (list == nullptr) {
        code = noList;
    } else if (lengthOf(list) > longestChain) {
        code = tooManyNodes;
    }
    for (; code == 0 && list != nullptr; list = list->next) {
        code = checkNode(*list);
    }
    return code;
}

ErrlEntry* KEST_setAttribute(kest_attribute id, kest_attributeValue value, kest_attributeValue* record)
{
    constexpr char name[] = "KEST_setAttribute";
    const traceScope scope(name);
    kest_errorDetails details{};
    ErrlEntry* entry = nullptr;
    // a negative one becomes too big
    const auto index = static_cast<std::uint32_t>(id);
    if (record == nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("no attribute record"), " %s", __LINE__, 0, name);
        kest_describeFailure(details, setModule, 0x132B);
    } else if (index >= KEST_ATTR_COUNT) {
        trace_wobu_write_all(kest_trace, traceHash("no such attribute"), " %s,%d", __LINE__, 0, name, id);
        kest_describeFailure(details, setModule, 0x1301, index);
    } else {
        record[index] = value == 0 ? kest_attributeDefaults[index] : value;
    }
    kest_logError(entry, &details, sourceId);
    return entry;
}

} // namespace kest
