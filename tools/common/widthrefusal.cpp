#include "tools/common/widthrefusal.h"

#include <fmt/core.h>

#include "tools/common/interrupt.h"
#include "tools/common/widthproof.h"

namespace kest::tools
{

failure widthRefusal(const device& target, const std::string& what, const std::string& tryThis)
{
    return {.code = exitRefused, .what = what, .tryThis = tryThis, .device = target.label, .step = widthStep};
}

void throwSeen(const device& target, const failure& why)
{
    failure thrown = why;
    if (const int signal = interruptSignal()) {
        thrown = interruption(signal, target.label, widthStep);
        thrown.what += "; " + why.what;
        thrown.tryThis = why.tryThis;
    }
    throw thrown;
}

std::string fittingHint(const widthFinding& finding)
{
    return fmt::format("types that would fit: {}", fittingText(finding));
}

const char* backText(bool isBack)
{
    return isBack ? "it holds its old bytes" : "whether it holds its old bytes is not known";
}

} // namespace kest::tools
