#include "tools/kestctl/errorjson.h"

#include <span>
#include <string>
#include <vector>

#include "base/hex.h"
#include "platform/host/errorlog/deviceof.h"
#include "tools/common/files.h"
#include "tools/common/when.h"
#include "tools/kestctl/codes.h"
#include "tools/kestctl/errortext.h"
#include "tools/kestctl/srcwords.h"

namespace kest::tools
{
namespace
{

constexpr std::size_t userDataWords = 4;

template <typename Item>
jsonList listJson(const std::vector<Item>& items, jsonValue (*show)(const Item&))
{
    jsonList list;
    for (const Item& item : items) {
        list.push_back(show(item));
    }
    return list;
}

jsonValue srcJson(const host::loggedSrc& src)
{
    const std::uint32_t module = moduleOf(src);
    return {{"words", jsonNumbers(src.words)},
            {"creator", src.creator},
            {"flags", src.flags},
            {"terminating_state", src.terminatingState},
            {"module", module},
            {"module_name", moduleText(componentOf(src), module)},
            {"reason", src.words[wordReason]},
            {"reason_text", reasonText(src.words[wordReason])},
            {"subsystem", src.words[wordSubsystem]},
            {"user_data", jsonNumbers(std::span(src.words).subspan(wordUserData, userDataWords))}};
}

jsonValue calloutJson(const host::loggedCallout& callout)
{
    return {
        {"priority", callout.priority}, {"procedure", callout.procedure}, {"text", procedureText(callout.procedure)}};
}

jsonValue fruJson(const host::loggedFruCallout& callout)
{
    return {{"priority", callout.priority}, {"fru", callout.fru}};
}

jsonValue softwareErrorJson(const host::loggedSoftwareError& error)
{
    return {{"component", error.component},
            {"return_code", error.returnCode},
            {"module", error.word1},
            {"site", error.word2},
            {"reserved", error.reserved}};
}

jsonValue detailsJson(const host::loggedDetails& details)
{
    jsonValue row{{"component", details.component},
                  {"version", details.version},
                  {"subsection", details.subsection},
                  {"name", subsectionText(details.component, details.subsection)},
                  {"hex", hexDigits(details.bytes)}};
    if (isText(details.bytes)) {
        row.add("text", std::string(details.bytes.begin(), details.bytes.end()));
    }
    return row;
}

jsonValue traceJson(const host::loggedTrace& trace) { return {{"buffer", trace.buffer}, {"text", trace.text}}; }

} // namespace

jsonValue headJson(const host::loggedEntry& entry)
{
    const std::string device = host::deviceOf(entry);
    return {{"id", entry.plid},
            {"committed_ms", entry.committedMs},
            {"committed", timeText(entry.committedMs)},
            {"created_ms", entry.createdMs},
            {"created", timeText(entry.createdMs)},
            {"severity", entry.severity},
            {"event_type", entry.eventType},
            {"return_code", entry.returnCode},
            {"creator", entry.creator},
            {"process", entry.process},
            {"process_id", entry.processId},
            {"commit_component", entry.commitComponent},
            {"action", entry.commitAction},
            {"incomplete", entry.incomplete},
            {"device", device.empty() ? jsonValue() : jsonValue(device)},
            {"reason", reasonOf(entry)},
            {"reason_text", entry.srcs.empty() ? "" : reasonText(reasonOf(entry))}};
}

jsonValue entryJson(const host::loggedEntry& entry)
{
    jsonValue result = headJson(entry);
    result.add({{"srcs", listJson(entry.srcs, srcJson)},
                {"callouts", listJson(entry.callouts, calloutJson)},
                {"fru_callouts", listJson(entry.fruCallouts, fruJson)},
                {"software_errors", listJson(entry.softwareErrors, softwareErrorJson)},
                {"user_details", listJson(entry.userDetails, detailsJson)},
                {"traces", listJson(entry.traces, traceJson)}});
    return result;
}

} // namespace kest::tools
