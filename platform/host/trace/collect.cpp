#include "platform/host/trace/collect.h"

#include <utility>
#include <vector>

#include "platform/host/trace/image.h"
#include "platform/host/trace/render.h"
#include "platform/host/trace/rings.h"

namespace kest::host
{

std::string collectTrace(const char* name, unsigned bytes)
{
    // of a binary record, since entries have little room
    constexpr std::size_t dataBytes = 16;
    std::vector<std::string> lines;
    std::size_t used = 0;
    readLatest(copyRing(name), [&](const traceRecord& record) {
        std::string line = renderRecord(record, dataBytes) + '\n';
        if (line.size() > bytes - used) {
            return false;
        }
        used += line.size();
        lines.push_back(std::move(line));
        return true;
    });
    std::string text;
    text.reserve(used);
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        text += *line;
    }
    return text;
}

} // namespace kest::host
