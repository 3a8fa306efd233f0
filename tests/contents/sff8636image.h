/// A QSFP28 module for tests.
#pragma once

#include "tests/contents/images.h"

namespace kest::contents::test
{

/// A module that nobody made: 100GBASE-LR4, 10 km.
[[nodiscard]] Bytes longReachModule();

} // namespace kest::contents::test
