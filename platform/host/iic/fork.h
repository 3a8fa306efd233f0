/// Forks of a process whose threads use the layer.
#pragma once

#include <pthread.h>

namespace kest::host::iic
{

/// Has what all threads of the process share told of every fork from now on: a mutex that another thread holds then would be held for ever
/// in the child.
/// @tparam Shared  instance() answers the one there is, which is never destroyed; beforeFork() takes its mutex and afterFork() gives
///                 it back, in the parent and in the child. That mutex is held for short work that takes no other mutex of the layer.
template <typename Shared>
void watchForks()
{
    pthread_atfork([] { Shared::instance().beforeFork(); }, [] { Shared::instance().afterFork(false); },
                   [] { Shared::instance().afterFork(true); });
}

} // namespace kest::host::iic
