#include "kestmisc.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "kestattribute.h"

namespace kest
{
namespace
{

constexpr std::size_t dumpBytesPerLine = 16;
constexpr std::size_t dumpLineLength = 66;
constexpr std::size_t dumpGroups = 4;
constexpr std::size_t dumpBytesOfGroup = 4;

/// Fills one line, which has only blanks: "oooooooo  dddddddd dddddddd dddddddd dddddddd  <tttttttttttttttt>\n".
void fillDumpLine(char* line, std::size_t offset, const char* data)
{
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08x", static_cast<unsigned int>(offset));
    std::memcpy(line, digits, 8);
    char* group = line + 10;
    for (std::size_t i = 0; i < dumpGroups; ++i, group += 2 * dumpBytesOfGroup + 1) {
        KEST_miscUnpack(group, dumpBytesOfGroup, data + i * dumpBytesOfGroup);
    }
    char* const text = group + 1;
    text[0] = '<';
    KEST_miscPutText(text + 1, dumpBytesPerLine, data);
    text[17] = '>';
    text[18] = '\n';
    text[19] = '\0';
}

char* copyText(const char* text)
{
    const std::size_t bytes = std::strlen(text) + 1;
    auto* const copy = new (std::nothrow) char[bytes];
    if (copy != nullptr) {
        std::memcpy(copy, text, bytes);
    }
    return copy;
}

/// A device text's tokens, taken from a working copy, which then holds the text up to the last token taken.
class tokenScanner
{
public:
    explicit tokenScanner(const char* text) : m_copy(copyText(text))
    {
        m_end = m_copy.get();
        if (!m_copy) {
            // a failure is reported by returning a copy
            m_copy.reset(copyText(""));
        }
    }

    /// @return the next token, null when there is none.
    const char* next()
    {
        char* token = nullptr;
        if (m_end != nullptr) {
            // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the owner is followed no further than this call
            token = strtok_r(m_last == nullptr ? m_copy.get() : nullptr, ",", &m_rest);
        }
        if (token != nullptr) {
            if (m_last != nullptr) {
                *m_end = ',';
            }
            m_last = token;
            m_end = token + std::strlen(token);
        }
        return token;
    }

    /// Releases the working copy: there are no further tokens.
    char* release()
    {
        m_end = nullptr;
        return m_copy.release();
    }

private:
    std::unique_ptr<char[]> m_copy;
    char* m_end = nullptr; ///< behind the last token; null: no text
    char* m_last = nullptr;
    char* m_rest = nullptr;
};

bool takeText(tokenScanner& tokens, char*& field)
{
    const char* const token = tokens.next();
    if (token != nullptr) {
        field = copyText(token);
    }
    return token != nullptr && field != nullptr;
}

/// A hexadecimal number. Values beyond 32 bits are clamped on every target, also where long has 64.
std::int32_t hexNumber(const char* token)
{
    using limits = std::numeric_limits<std::int32_t>;
    const long value = std::strtol(token, nullptr, 16);
    return static_cast<std::int32_t>(std::clamp<long>(value, limits::min(), limits::max()));
}

bool takeValue(tokenScanner& tokens, std::uint8_t& value)
{
    const char* const token = tokens.next();
    if (token != nullptr) {
        value = static_cast<std::uint8_t>(hexNumber(token) & 0xFF);
    }
    return token != nullptr;
}

/// Takes a link's values and appends it at `*end`. @param token  the link's type
bool takeLink(tokenScanner& tokens, const char* token, kest_deviceAddress** end)
{
    const auto type = static_cast<kest_deviceType>(hexNumber(token));
    std::uint8_t address = 0;
    std::uint8_t port = 0;
    const bool taken =
        kest_isKnownType(type) && takeValue(tokens, address) && (!kest_isHub(type) || takeValue(tokens, port));
    if (taken) {
        KEST_addDevAddress(address, type, port, end);
    }
    // a chain without this link, left out without memory, would name another device
    return taken && *end != nullptr;
}

bool takeLinks(tokenScanner& tokens, kest_deviceAddress** list)
{
    kest_deviceAddress** end = list;
    bool taken = true;
    for (const char* token = tokens.next(); taken && token != nullptr; token = taken ? tokens.next() : nullptr) {
        taken = takeLink(tokens, token, end);
        if (taken) {
            end = &(*end)->next;
        }
    }
    return taken && *list != nullptr;
}

/// The part that both readers of device texts share.
bool takeTexts(tokenScanner& tokens, kest_deviceInfo* info)
{
    info->nodeName = nullptr;
    info->addressList = nullptr;
    return takeText(tokens, info->devicePath) && takeText(tokens, info->nodeName);
}

} // namespace

char KEST_miscLowHexNibbleToChar(char value) { return "0123456789abcdef"[static_cast<unsigned char>(value) & 0xF]; }

void KEST_miscUnpack(char* out, unsigned int count, const char* in)
{
    for (; count != 0; --count, ++in) {
        *out++ = KEST_miscLowHexNibbleToChar(static_cast<char>(static_cast<unsigned char>(*in) >> 4));
        *out++ = KEST_miscLowHexNibbleToChar(*in);
    }
}

void KEST_miscPutText(char* out, unsigned int count, const char* in)
{
    for (; count != 0; --count, ++in) {
        *out++ = std::isprint(static_cast<unsigned char>(*in)) != 0 ? *in : '.';
    }
}

char* KEST_miscFmtAndDump(const char* data, unsigned int length)
{
    const std::size_t lines = length / dumpBytesPerLine + (length % dumpBytesPerLine == 0 ? 0 : 1);
    char* dump = nullptr;
    if (lines <= (std::numeric_limits<std::size_t>::max() - 1) / dumpLineLength) {
        dump = new (std::nothrow) char[lines * dumpLineLength + 1];
    }
    if (dump != nullptr) {
        std::memset(dump, ' ', lines * dumpLineLength);
        for (std::size_t i = 0; i < lines; ++i) {
            fillDumpLine(dump + i * dumpLineLength, i * dumpBytesPerLine, data + i * dumpBytesPerLine);
        }
    }
    return dump;
}

char* kest_miscConvertTokensToAddress(kest_deviceInfo* info, const char* text)
{
    tokenScanner tokens(text);
    const bool converted = takeTexts(tokens, info) && takeLinks(tokens, &info->addressList);
    return converted ? nullptr : tokens.release();
}

char* kest_miscSplitDetectionTokens(kest_deviceInfo* info, const char* text)
{
    tokenScanner tokens(text);
    return takeTexts(tokens, info) ? nullptr : tokens.release();
}

void kest_miscReleaseDeviceInfo(kest_deviceInfo& info)
{
    delete[] info.nodeName;
    delete[] info.devicePath;
    info.nodeName = nullptr;
    info.devicePath = nullptr;
    KEST_deleteDevAddress(&info.addressList, true);
}

} // namespace kest
