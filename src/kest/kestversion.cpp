#include "kest/version.h"

const char* kest::kest_version() { return KEST_VERSION; }
