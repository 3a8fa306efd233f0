/// Work that no signal interrupts.
#pragma once

#include <csignal>

namespace kest::tools
{

/// Blocks the signals that would end the program, in this thread. They arrive when the object ends.
class signalBlock
{
public:
    signalBlock();
    signalBlock(const signalBlock&) = delete;
    signalBlock& operator=(const signalBlock&) = delete;
    ~signalBlock();

private:
    sigset_t m_before{};
};

} // namespace kest::tools
