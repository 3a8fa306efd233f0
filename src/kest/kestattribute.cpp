#include "kestattribute.h"

#include <cstring>
#include <new>

#include "kestdevicetypes.h"
#include "kestfailure.h"
#include "kesttrace.h"

namespace kest
{

const std::array<kest_attributeValue, KEST_ATTR_COUNT> kest_attributeDefaults{400, 1, 15, 1, 2, 1};

namespace
{

constexpr routine setRoutine{"KEST_setAttribute", KEST_MODULE_SET_ATTRIBUTE, "kestattribute"};

constexpr unsigned int longestChain = 3;
constexpr std::uint32_t noList = 0xAC0001;
constexpr std::uint32_t tooManyNodes = 0xAC0002;
constexpr std::uint32_t unknownType = 0xAC0003;
constexpr std::uint32_t hubAfterEnd = 0xAC0004;
constexpr std::uint32_t endAfterEnd = 0xAC0005;
constexpr std::uint32_t hubBehindHub = 0xAC0006;
constexpr std::uint32_t chainEndsInHub = 0xAC0007;

/// Checks one node together with its successor.
std::uint32_t checkNode(const kest_deviceAddress& node)
{
    const kest_deviceAddress* const next = node.next;
    if (!kest_isKnownType(node.type) || (next != nullptr && !kest_isKnownType(next->type))) {
        return unknownType;
    }
    if (next == nullptr) {
        return kest_isHub(node.type) ? chainEndsInHub : 0;
    }
    if (!kest_isHub(node.type)) {
        return kest_isHub(next->type) ? hubAfterEnd : endAfterEnd;
    }
    // only a 922 hub behind a 0xF0 hub may follow a hub
    const bool mayFollow = !kest_isHub(next->type) || (node.type == KEST_DEV_HUB_F0 && next->type == KEST_DEV_922HUB);
    return mayFollow ? 0 : hubBehindHub;
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

std::uint32_t kest_pageSize(kest_deviceType type) { return kest_typeOf(type).pageSize; }
bool kest_isSeeprom(kest_deviceType type) { return kest_typeOf(type).kind == deviceKind::seeprom; }
bool kest_isHub(kest_deviceType type) { return kest_typeOf(type).kind == deviceKind::hub; }
bool kest_isKnownType(kest_deviceType type) { return kest_typeOf(type).kind != deviceKind::unknown; }

const kest_deviceAddress* kest_lastNode(const kest_deviceAddress* list)
{
    while (list != nullptr && list->next != nullptr) {
        list = list->next;
    }
    return list;
}

void KEST_addDevAddress(unsigned char address, kest_deviceType type, unsigned char port, kest_deviceAddress** list)
{
    auto* const node = list == nullptr ? nullptr : new (std::nothrow) kest_deviceAddress;
    if (node == nullptr) {
        return;
    }
    // clears the padding, too, which an initialiser may leave out
    std::memset(static_cast<void*>(node), 0, sizeof *node);
    node->address = address;
    node->type = type;
    node->port = port;
    while (*list != nullptr) {
        list = &(*list)->next;
    }
    *list = node;
}

void KEST_deleteDevAddress(kest_deviceAddress** list, bool all)
{
    if (list == nullptr || *list == nullptr) {
        return;
    }
    while (!all && (*list)->next != nullptr) {
        list = &(*list)->next;
    }
    // either the last node or all nodes, in one walk
    while (*list != nullptr) {
        kest_deviceAddress* const node = *list;
        *list = node->next;
        delete node;
    }
}

kest_deviceAddress* KEST_flattenAddressList(const kest_deviceAddress* list, unsigned int* size)
{
    const std::size_t length = lengthOf(list);
    const std::size_t bytes = length * sizeof(kest_deviceAddress);
    kest_deviceAddress* const flat = length == 0 ? nullptr : new (std::nothrow) kest_deviceAddress[length];
    if (size != nullptr) {
        *size = flat == nullptr ? 0 : static_cast<unsigned int>(bytes);
    }
    if (flat == nullptr) {
        return nullptr;
    }
    // clears the padding, too: messages and error logs take the array as it is
    std::memset(static_cast<void*>(flat), 0, bytes);
    for (kest_deviceAddress* node = flat; list != nullptr; ++node, list = list->next) {
        node->address = list->address;
        node->type = list->type;
        node->port = list->port;
        node->next = list->next == nullptr ? nullptr : node + 1;
    }
    return flat;
}

kest_deviceAddress* KEST_unflattenAddressList(const kest_deviceAddress* flat)
{
    kest_deviceAddress* list = nullptr;
    kest_deviceAddress** end = &list;
    for (; flat != nullptr; flat = flat->next) {
        KEST_addDevAddress(flat->address, flat->type, flat->port, end);
        if (*end == nullptr) {
            // no memory: a chain without this node would lead to another device
            KEST_deleteDevAddress(&list, true);
            return nullptr;
        }
        end = &(*end)->next;
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
    if (list == nullptr) {
        return noList;
    }
    if (lengthOf(list) > longestChain) {
        return tooManyNodes;
    }
    std::uint32_t code = 0;
    for (; code == 0 && list != nullptr; list = list->next) {
        code = checkNode(*list);
    }
    return code;
}

ErrlEntry* KEST_setAttribute(kest_attribute id, kest_attributeValue value, kest_attributeValue* record)
{
    reportedCall report{setRoutine};
    // a negative id becomes too large
    const auto index = static_cast<std::uint32_t>(id);
    if (record == nullptr) {
        report.fail(traceHash("no attribute record"), KEST_REASON_MISSING);
    } else if (index >= KEST_ATTR_COUNT) {
        KEST_TRACE(traceHash("no such attribute"), ",%d", setRoutine.name, id);
        report.describe(KEST_REASON_NO_ATTRIBUTE, index);
    } else {
        record[index] = value == 0 ? kest_attributeDefaults[index] : value;
    }
    return report.finish();
}

} // namespace kest
