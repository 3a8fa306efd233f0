/// Forks beside another thread that uses something for the first time in its process: the child must not find it half
/// made.
#pragma once

#include <chrono>
#include <functional>

namespace kest::test
{

// ends a child that waits for a lock whose holder is gone
constexpr unsigned int hangSeconds = 20;

/// Starts a process in which a thread does `work` for the first time while another forks, and checks that the child of
/// that fork can do the same. Repeats this in fresh processes, with forks from the thread's start to some milliseconds
/// later. The caller must not have done `work` before.
/// @return how many of the children could not do the work
int failedBesideFirstUse(const std::function<bool()>& work);

} // namespace kest::test
