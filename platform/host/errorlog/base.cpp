// Apart from the entries' own code: seen together, the compiler takes the class's pair of operators for a mismatched one.
#include <new>

#include "platform/errl.h"

ErrlBase::~ErrlBase() = default;

void* ErrlBase::operator new(std::size_t bytes) noexcept { return ::operator new(bytes, std::nothrow); }

void ErrlBase::operator delete(void* object) noexcept { ::operator delete(object); }
