#include "tools/kestctl/messageguard.h"

#include <cstdio>
#include <fmt/core.h>

#include "tools/common/contentsguard.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/identity.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/messagefailure.h"

namespace kest::tools
{

void guardHubRead(const device& which, bool force, const std::string& step)
{
    if (!which.behindHub()) {
        return;
    }
    if (!force) {
        throw failure{
            .code = exitRefused,
            .what = "a read through a hub can return bytes that were never read, and a message can't show that",
            .tryThis = fmt::format("'kestctl seeprom read {}' reads until the bytes are certain; --force takes "
                                   "what comes",
                                   shellWord(which.label)),
            .device = which.label,
            .step = step};
    }
    std::fputs(
        fmt::format("kestctl: {}: read through a hub: these may be bytes that were never read\n", escaped(which.label))
            .c_str(),
        stderr);
}

void requireWhole(const client::answer& answer, const device& which, const byteRange& range, const std::string& step)
{
    const std::size_t came = answer.data.size();
    if (came >= range.length) {
        return;
    }
    throw failure{.what = fmt::format("{} of {} bytes came from offset {}", came, range.length, range.offset),
                  .tryThis = came == 0 ? "" : fmt::format("--length {} reads what there is", came),
                  .device = which.label,
                  .step = step};
}

void guardIdentity(client::serviceConnection& service, const device& which)
{
    if (which.behindHub()) {
        throw failure{.code = exitRefused,
                      .what = "the device table expects bytes of it, and a message can't show what is behind a hub",
                      .tryThis = "'kestctl seeprom write' checks them; --force leaves it to the service",
                      .device = which.label,
                      .step = identityStep};
    }
    const auto read = [&](const byteRange& range) {
        const client::answer answer = service.readSeeprom(which.text, range.offset, range.length);
        requireServed(answer, which, identityStep);
        requireWhole(answer, which, range, identityStep);
        return byteVector(answer.data.begin(), answer.data.begin() + range.length);
    };
    requireExpected(which, findIdentity(which, which.end().type->bytes, read), false);
}

void guardContents(const device& which, const byteRange& range, std::span<const unsigned char> bytes)
{
    if (range.offset != 0) {
        return;
    }
    const contentsFinding found = judgeWritten(bytes);
    if (found.doubt.empty()) {
        return;
    }
    if (preferred().dryRun) {
        const std::string line =
            fmt::format("kestctl: {}: {}; a write asks, or needs --force", which.label, found.doubt);
        std::fputs((escaped(line) + "\n").c_str(), stderr);
    } else {
        askForContents(which, found);
    }
}

} // namespace kest::tools
