/// Buffers that the library and the VPD service hand out.
#pragma once

#include <memory>

#include "platform/tavo.h"

namespace kest::tools
{

struct releaseTavoBuffer {
    void operator()(unsigned char* buffer) const
    {
        void* raw = buffer;
        tavo_util_free(&raw);
    }
};
using tavoBuffer = std::unique_ptr<unsigned char, releaseTavoBuffer>;

} // namespace kest::tools
