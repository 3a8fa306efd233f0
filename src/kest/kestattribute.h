/// Questions about device types and chains, and the attribute defaults.
#pragma once

#include <array>
#include <cstdint>

#include "kest/address.h"

namespace kest
{

/// The record that a null attribute pointer stands for.
extern const std::array<kest_attributeValue, KEST_ATTR_COUNT> kest_attributeDefaults;

/// @return `attributes`, or the defaults for null.
const kest_attributeValue* kest_attributesOrDefaults(const kest_attributeValue* attributes);

/// @return the page size in bytes of a SEEPROM type; 0 for every other type.
std::uint32_t kest_pageSize(kest_deviceType type);

/// @return whether the type is one of the six SEEPROMs.
bool kest_isSeeprom(kest_deviceType type);

/// @return whether the type is one of the two hubs.
bool kest_isHub(kest_deviceType type);

/// @return whether the type is one that a device text may name.
bool kest_isKnownType(kest_deviceType type);

/// @return the last node; null for null.
const kest_deviceAddress* kest_lastNode(const kest_deviceAddress* list);

} // namespace kest
