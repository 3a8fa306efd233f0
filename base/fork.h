/// Forks of a process whose threads use the platform.
#pragma once

#include <cstdint>

#include <pthread.h>

#include "base/unshared.h"

namespace kest
{

/// Locks an object that all threads of the process share during every fork from now on. Otherwise a mutex that another
/// thread holds at that moment would stay locked in the child for ever. Call it while the program is loaded, before any
/// thread runs: a child could not go on with an object that another thread was making. Outside of a fork no two such
/// objects are locked at once, so the order in which a fork locks them does not matter. An unsharedFile may be opened
/// while one of them is locked.
/// @tparam Shared  instance() returns the only object, which is never destroyed; beforeFork() locks its mutexes and
/// afterFork() unlocks them, in the parent and in the child
template <typename Shared>
void watchForks()
{
    // registered first, and so locked last
    watchUnsharedFiles();
    pthread_atfork([] { Shared::instance().beforeFork(); }, [] { Shared::instance().afterFork(false); },
                   [] { Shared::instance().afterFork(true); });
}

/// How many forks lie between the start of the program and this process. An object that remembers the number sees by it
/// that it is a copy in a child. Makes no system call.
std::uint32_t forksBehind();

} // namespace kest
