#include "platform/host/errorlog/text.h"

#include "base/hex.h"
#include "base/utf8.h"

namespace kest::host
{

std::string cleanText(std::string_view text)
{
    std::string clean;
    clean.reserve(text.size());
    while (!text.empty()) {
        const auto first = static_cast<unsigned char>(text.front());
        const bool isKept = (first >= 0x20 && first != 0x7F) || first == '\n' || first == '\t';
        std::size_t length = isKept ? utf8Length(text) : 0;
        if (length > 0) {
            clean += text.substr(0, length);
        } else {
            clean += "\\x";
            appendHexByte(clean, first, upperHexDigits);
            length = 1;
        }
        text.remove_prefix(length);
    }
    return clean;
}

} // namespace kest::host
