/// Readings of contents as JSON: docs/kestctl.md has the fields.
#pragma once

#include "contents/reading.h"
#include "tools/common/json.h"

namespace kest::tools
{

/// One field, with those inside it.
[[nodiscard]] jsonValue contentFieldJson(const contents::node& which);

/// Adds format, verdict, fields and checksums to an object.
void addContentJson(jsonValue& to, const contents::reading& what);

} // namespace kest::tools
