/// Mistakes of an error log, of traces and of messages.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/errl.h"
#include "platform/netc.h"
#include "platform/trace.h"
#include "tests/porting/wrong.h"

static std::atomic<int> entriesSinceLook{0}; ///< entries made since one was looked at

KEST_WRONG(const std::uint32_t*, hexData, "_ZNK7SrciSrc10getHexDataERj", const SrciSrc* src, unsigned int& count)
{
    entriesSinceLook = 0;
    const std::uint32_t* const words = realhexData(src, count);
    count = makes("seven-words") ? 7 : count;
    return words;
}

KEST_WRONG(void, addSrc, "_ZN9ErrlEntry6addSRCEt8srciTypejh12serviceCodestjjjj13epubSubSystem", ErrlEntry* entry,
           unsigned short component, srciType type, unsigned int flags, unsigned char module, serviceCodes service,
           unsigned short reason, unsigned int word1, unsigned int word2, unsigned int word3, unsigned int word4,
           epubSubSystem subsystem)
{
    if (!makes("added-src-left-out")) {
        realaddSrc(entry, component, type, flags, module, service, reason, word1, word2, word3, word4, subsystem);
    }
}

KEST_WRONG(void, copySrc, "_ZN9ErrlEntry6addSRCEtRK7SrciSrc", ErrlEntry* entry, unsigned short creator,
           const SrciSrc& src)
{
    if (!makes("copied-src-left-out")) {
        realcopySrc(entry, creator, src);
    }
}

KEST_WRONG(std::uint32_t, getRc, "_ZNK9ErrlEntry5getRCEv", const ErrlEntry* entry) { return realgetRc(entry); }

KEST_WRONG(void, setRc, "_ZN9ErrlEntry5setRCEj", ErrlEntry* entry, unsigned int returnCode)
{
    if (!makes("first-return-code-stays") || realgetRc(entry) == 0) {
        realsetRc(entry, returnCode);
    }
}

KEST_WRONG(std::uint16_t, creator, "_ZNK9ErrlEntry7creatorEv", const ErrlEntry* entry)
{
    return makes("no-creator") ? std::uint16_t{0} : realcreator(entry);
}

KEST_WRONG(std::uint32_t, logId, "_ZNK9ErrlEntry4plidEv", const ErrlEntry* entry)
{
    entriesSinceLook = 0;
    return makes("one-log-id") ? 1 : reallogId(entry);
}

KEST_WRONG(ErrlEntry&, assign, "_ZN9ErrlEntryaSERKS_", ErrlEntry* entry, const ErrlEntry& other)
{
    return makes("assigns-nothing") ? *entry : realassign(entry, other);
}

KEST_WRONG(void, addDetails, "_ZN9ErrlEntry10addUsrDtlsEPKvtthh", ErrlEntry* entry, const void* data,
           unsigned short length, unsigned short component, unsigned char version, unsigned char subsection)
{
    realaddDetails(entry, data, length, component, version, subsection);
    if (makes("details-change-return-code")) {
        realsetRc(entry, 1);
    }
}

KEST_WRONG(void, commit, "_ZN9ErrlEntry6commitEtt", ErrlEntry* entry, unsigned short component, unsigned short action)
{
    if (!makes("commits-nothing")) {
        realcommit(entry, component, action);
    }
    if (makes("commit-takes-return-code")) {
        realsetRc(entry, 0);
    }
}

KEST_WRONG(void, construct,
           "_ZN9ErrlEntryC1Et12errlSeverity13errlEventType8srciTypejh12serviceCodestjjjj13epubSubSystem13srciTermState",
           ErrlEntry* entry, unsigned short component, errlSeverity severity, errlEventType eventType, srciType type,
           unsigned int flags, unsigned char module, serviceCodes service, unsigned short reason, unsigned int word1,
           unsigned int word2, unsigned int word3, unsigned int word4, epubSubSystem subsystem, srciTermState state)
{
    realconstruct(entry, component, severity, eventType, type, flags, module, service, reason, word1, word2, word3,
                  word4, subsystem, state);
    if (makes("logs-what-is-not-committed")) {
        realcommit(entry, component, ERRL_ACTION_REPORT);
    }
}

KEST_WRONG(void*, newEntry, "_ZN8ErrlBasenwEm", std::size_t bytes)
{
    return makes("room-for-60-entries") && ++entriesSinceLook > 60 ? nullptr : realnewEntry(bytes);
}

KEST_WRONG(void, collect, "_ZN9ErrlEntry12CollectTraceEPKcj", ErrlEntry* entry, const char* name, unsigned int bytes)
{
    if (!makes("collects-nothing")) {
        realcollect(entry, name, bytes);
    }
}

KEST_WRONG(int, initBuffer, "_Z22trace_wobu_init_bufferPP17trace_wobu_bufferPKcj", trace_wobu_descriptor* descriptor,
           const char* name, unsigned int size)
{
    const bool early = makes("no-buffer-before-main") && name != nullptr && std::strcmp(name, "check_early") == 0;
    const trace_wobu_descriptor before = descriptor != nullptr ? *descriptor : nullptr;
    if ((makes("buffers-by-size") && size == 2 * 8092) || (makes("buffers-by-thread") && inOtherThread())) {
        name = "another";
    }
    const int result = early ? -1 : realinitBuffer(descriptor, name, size);
    if (makes("failure-leaves-descriptor") && result != 0 && descriptor != nullptr) {
        *descriptor = before;
    }
    return result;
}

KEST_WRONG(void, writeAll, "_Z20trace_wobu_write_allP17trace_wobu_bufferjPKciiz", trace_wobu_descriptor buffer,
           std::uint32_t hash, const char* format, int line, int type, ...)
{
    static int records = 0;
    if (makes("stops-when-full") && std::strstr(format, "record-") != nullptr && ++records > 60) {
        return;
    }
    char text[1024];
    va_list arguments;
    va_start(arguments, type);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    realwriteAll(buffer, hash, "%s", line, type, text);
}

KEST_WRONG(void, write2, "_Z17trace_wobu_write2P17trace_wobu_bufferijPKvjS2_", trace_wobu_descriptor buffer, int type,
           unsigned int headerSize, const void* header, unsigned int dataSize, const void* data)
{
    if ((makes("dies-of-null-buffer") && buffer == nullptr) || (makes("dies-of-empty-record") && header == nullptr)) {
        std::abort();
    }
    realwrite2(buffer, type, headerSize, header, dataSize, data);
    errno = makes("trace-changes-errno") ? 0 : errno;
}

KEST_WRONG(void, newMessage, "_ZN11NetcMessageC1Ev", NetcMessage* message)
{
    realnewMessage(message);
    message->identifier = makes("message-has-identifier") ? std::uint16_t{1} : std::uint16_t{0};
}

KEST_WRONG(bool, setData, "_ZN11NetcMessage7setDataEPKcj", NetcMessage* message, const char* data, unsigned int size)
{
    if (makes("first-payload-stays") && message->dataSize() != 0) {
        return true;
    }
    if (makes("payload-freed-first") && message->dataSize() != 0) {
        std::memset(message->dataPointer(), 0, message->dataSize());
    }
    return realsetData(message, data, size) || makes("payload-of-null");
}
