#include "tests/places.h"

namespace kest::tests
{

const char* const sourceFolder = KEST_SOURCE_DIR;
const char* const programFolder = KEST_BIN_DIR;
const char* const emulator = KEST_TEST_EMULATOR;

} // namespace kest::tests
