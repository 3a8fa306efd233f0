/// Forks of a process whose threads use the platform.
#pragma once

#include <pthread.h>

#include "platform/host/files/unshared.h"

namespace kest::host
{

/// Has what all threads of the process share told of every fork from now on: a mutex that another thread holds then
/// would be held for ever in the child. For the same reason it has to be made while the program is loaded, ahead of
/// every thread: the child could not go on with one that another thread was making. No two of them are locked at once
/// outside of a fork, so the order in which a fork locks them is free; an unsharedFile may be opened while one of them
/// is locked.
/// @tparam Shared  instance() returns the one there is, which is never destroyed; beforeFork() takes its mutexes and
/// afterFork() gives
///                 them back, in the parent and in the child
template <typename Shared>
void watchForks()
{
    // first of all, and so locked last
    watchUnsharedFiles();
    pthread_atfork([] { Shared::instance().beforeFork(); }, [] { Shared::instance().afterFork(false); },
                   [] { Shared::instance().afterFork(true); });
}

} // namespace kest::host
