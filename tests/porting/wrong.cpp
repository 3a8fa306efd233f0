#include "tests/porting/wrong.h"

#include <cstdlib>
#include <thread>

bool makes(std::string_view mistake)
{
    const char* const wanted = std::getenv("KEST_MISTAKE");
    return wanted != nullptr && mistake == wanted;
}

bool inOtherThread()
{
    static const std::thread::id mainThread = std::this_thread::get_id();
    return std::this_thread::get_id() != mainThread;
}

/// The first call, before main().
[[maybe_unused]] static const bool inMainThread = !inOtherThread();
