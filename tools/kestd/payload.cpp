#include "tools/kestd/payload.h"

#include <algorithm>
#include <cstring>

namespace kest::service
{
namespace
{

using client::frame;

constexpr std::size_t offsetAt = 0;
// a word that is ignored comes between
constexpr std::size_t lengthAt = 8;
// of the device text
constexpr std::size_t locationAt = 12;
constexpr std::size_t longestLocation = 256;

std::uint32_t wordAt(const frame& request, std::size_t at)
{
    std::uint32_t word = 0;
    if (hasLength(request)) {
        std::memcpy(&word, request.payload.data() + at, sizeof word);
    }
    return word;
}

} // namespace

bool isTransfer(const frame& request) { return request.type == client::typeRead || request.type == client::typeWrite; }

bool hasLength(const frame& request) { return isTransfer(request) && request.payload.size() >= locationAt; }

std::uint32_t wantedLength(const frame& request) { return wordAt(request, lengthAt); }

std::uint32_t wantedOffset(const frame& request) { return wordAt(request, offsetAt); }

std::optional<std::string_view> locationOf(const frame& request)
{
    if (!hasLength(request)) {
        return std::nullopt;
    }
    const auto* text = reinterpret_cast<const char*>(request.payload.data()) + locationAt;
    const std::size_t left = request.payload.size() - locationAt;
    const std::size_t size = strnlen(text, std::min(left, longestLocation));
    return size < left ? std::optional(std::string_view(text, size)) : std::nullopt;
}

frame withLocation(const frame& request, std::size_t replaced, const std::string& text)
{
    frame changed = request;
    auto textBegin = changed.payload.begin() + locationAt;
    textBegin = changed.payload.erase(textBegin, textBegin + static_cast<std::ptrdiff_t>(replaced));
    changed.payload.insert(textBegin, text.begin(), text.end());
    return changed;
}

frame withLength(const frame& request, std::uint32_t length)
{
    frame changed = request;
    std::memcpy(changed.payload.data() + lengthAt, &length, sizeof length);
    return changed;
}

frame readRequest(const std::string& location, std::uint32_t offset, std::uint32_t length)
{
    frame request{0, client::typeRead, 0, 0, 0, std::vector<std::uint8_t>(locationAt)};
    std::memcpy(request.payload.data() + offsetAt, &offset, sizeof offset);
    std::memcpy(request.payload.data() + lengthAt, &length, sizeof length);
    request.payload.insert(request.payload.end(), location.begin(), location.end());
    request.payload.push_back(0);
    return request;
}

} // namespace kest::service
