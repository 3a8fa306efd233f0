#include "tools/common/failure.h"

#include <cerrno>
#include <cstring>
#include <fmt/core.h>

#include "tools/common/escape.h"

namespace kest::tools
{

failure systemFailure(int error, const std::string& step, const std::string& object)
{
    return {.code = error == EACCES || error == EPERM || error == EROFS ? exitRefused : exitFailed,
            .what = std::strerror(error),
            .device = object,
            .step = step};
}

std::string failureLine(const std::string& program, const failure& why)
{
    std::string line = program + ": ";
    for (const std::string* part : {&why.device, &why.step}) {
        if (!part->empty()) {
            line += escaped(*part) + ": ";
        }
    }
    line += escaped(why.what);
    if (!why.tryThis.empty()) {
        line += "; " + escaped(why.tryThis);
    }
    if (why.logId != 0) {
        line += fmt::format(" [log 0x{:08X}]", why.logId);
    }
    return line;
}

} // namespace kest::tools
