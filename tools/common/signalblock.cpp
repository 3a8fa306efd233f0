#include "tools/common/signalblock.h"

#include <initializer_list>

namespace kest::tools
{

signalBlock::signalBlock()
{
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGALRM}) {
        sigaddset(&blocked, number);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
}

signalBlock::~signalBlock() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

} // namespace kest::tools
