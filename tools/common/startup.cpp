#include "tools/common/startup.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace kest::tools
{

void prepareProcess()
{
    for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
        // The lowest free number is this one. Without /dev/null it is taken all the same, by a descriptor that can be
        // neither read nor written.
        if (fcntl(number, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) {
            static_cast<void>(open("/", O_PATH));
        }
    }
    signal(SIGXFSZ, SIG_IGN);
}

} // namespace kest::tools
