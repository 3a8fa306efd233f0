#include "tools/kestctl/messagewrite.h"

#include <fmt/core.h>
#include <string>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/interrupt.h"
#include "tools/common/number.h"
#include "tools/kestctl/messagefailure.h"

namespace kest::tools
{
namespace
{

constexpr const char* step = "write by message";

/// @param known  of the write
failure interruptedWrite(const device& which, const std::string& known)
{
    failure why = interruption(interruptSignal(), which.label, step);
    why.what += "; " + known;
    return why;
}

} // namespace

void writeByMessage(client::serviceConnection& service, const device& which, std::uint32_t offset,
                    std::span<const std::uint8_t> bytes)
{
    throwIfInterrupted(which.label, step);
    const client::answer answer = service.writeSeeprom(which.text, offset, bytes);
    const std::string what = fmt::format("{} from offset {}", countText(bytes.size(), "byte"), offset);
    if (answer.what == client::outcome::notSent) {
        throw interruptedWrite(which, "nothing was written: the service does not have the whole request");
    }
    if (answer.what == client::outcome::stopped) {
        failure why = interruptedWrite(
            which, fmt::format("the service finishes the write when it has begun it, and else drops it: whether {} "
                               "are written is not known",
                               what));
        why.tryThis = fmt::format("'kestctl seeprom read {} --offset {} --length {}' shows what it holds",
                                  shellWord(which.label), offset, bytes.size());
        throw why;
    }
    requireServed(answer, which, step);
    if (interruptSignal() != 0) {
        throw interruptedWrite(which, what + " are written, and not verified");
    }
}

} // namespace kest::tools
