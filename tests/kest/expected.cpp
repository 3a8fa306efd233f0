#include "tests/kest/expected.h"

#include <cstdarg>
#include <cstdio>
#include <set>

namespace expected
{

std::string line(const char* format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

bool blamesSoftware(int error) { return std::set{4, 9, 14, 19, 22, 38}.contains(error); }

Failure failure(const LayerCall& call, int error)
{
    const auto word1 = static_cast<std::uint32_t>(error);
    const bool software = blamesSoftware(error);
    Failure result{};
    if (error == 35) {
        result = {{call.module, call.deadlockReason, word1, call.special2, 0, 0, 0x81}, 0x8000130D, true};
    } else if (error == 6 && call.knowsAbsent) {
        result = {{call.module, 0x1311, word1, call.special2, 0, 0, 0x55}, 0x40001311, false};
    } else {
        result = {{call.module, call.otherReason, word1, call.other2, call.other3, 0, software ? 0x81u : 0x55u},
                  software ? 0x80000000u | call.otherReason : call.otherReason,
                  false};
    }
    return result;
}

std::string sourceDetails(int entry, const char* sourceId)
{
    return line("entry%d.addUsrDtls(\"%s\", 0x1300, 1, 2)\n", entry, sourceId);
}

std::string newEntry(int entry, const ExpectedSrc& src)
{
    return line("entry%d = ErrlEntry(0x1300, 0x20, 0, 0xB1, 0, %u, 0x43FF, 0x%X, 0x%X, 0x%X, 0x%X, 0x%X, 0x%X, 0)\n",
                entry, src.module, src.reason, src.word1, src.word2, src.word3, src.word4, src.subsystem) +
           line("entry%d.CollectTrace(\"IIC\", 500)\nentry%d.CollectTrace(\"kest\", 500)\n", entry, entry) +
           sourceDetails(entry, src.sourceId);
}

std::string addedSrc(int entry, const ExpectedSrc& src)
{
    return line("entry%d.addSRC(0x1300, 0xB1, 0, %u, 0x43FF, 0x%X, 0x%X, 0x%X, 0x%X, 0x%X, 0x%X)\n", entry, src.module,
                src.reason, src.word1, src.word2, src.word3, src.word4, src.subsystem) +
           line("entry%d.CollectTrace(\"kest\", 500)\n", entry) + sourceDetails(entry, src.sourceId);
}

std::string callout(int entry, unsigned procedure)
{
    return line("entry%d.addProcedureCallout(1, %u)\n", entry, procedure);
}

std::string softwareError(int entry, std::uint32_t code, unsigned module, unsigned site)
{
    return line("entry%d.addSwErr(0x1300, 0x%X, %u, %u, 0)\n", entry, code, module, site);
}

std::string secondaryCommit(int entry)
{
    return line("entry%d.CollectTrace(\"kest\", 250)\nentry%d.commit(0x1300, 0x4000)\ndelete entry%d\n", entry, entry,
                entry);
}

std::string capture(const char* handle)
{
    return line("mern_iic_ffdc_extract(%s, 0)\nmern_iic_ffdc_unlock(%s, 0)\n", handle, handle);
}

std::string failureLines(int entry, const Failure& failure, const char* handle)
{
    return newEntry(entry, failure.src) + returnCode(entry, failure.returnCode) + callout(entry) + capture(handle) +
           (failure.committed ? line("entry%d.commit(0x1300, 0x2000)\ndelete entry%d\n", entry, entry) : "");
}

} // namespace expected
