/// Forks beside another thread that uses something for the first time in its process: what it was making must not stay
/// half made in the child.
#pragma once

#include <chrono>
#include <functional>

namespace kest::test
{

// ends a child that waits for what nobody gives back
constexpr unsigned int hangSeconds = 20;

/// Starts a process in which a thread does `work` for the first time while another forks, and looks whether the child of
/// that fork can do the same. Does so in one fresh process after another; the fork comes from the thread's start to some
/// milliseconds later. The caller must not have done `work` before.
/// @return how many of the children could not do the work
int failedBesideFirstUse(const std::function<bool()>& work);

} // namespace kest::test
