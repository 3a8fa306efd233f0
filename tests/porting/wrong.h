/// Wrong variants of the minimal platform. The linker leads its functions through the ones here (--wrap), which do the
/// same as the platform's, but for the mistake that the environment's KEST_MISTAKE names.
#pragma once

#include <string_view>

/// @return whether that mistake is to be made
bool makes(std::string_view mistake);
/// @return whether the calling thread is another than the one of main()
bool inOtherThread();

/// Defines what takes the place of a function, by its linker symbol; real##name is the platform's own. Of a member
/// function the first parameter is the object.
#define KEST_WRONG(type, name, symbol, ...)                                                                            \
    type real##name(__VA_ARGS__) __asm__("__real_" symbol);                                                            \
    type name(__VA_ARGS__) __asm__("__wrap_" symbol);                                                                  \
    type name(__VA_ARGS__)
