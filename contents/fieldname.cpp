#include "contents/fieldname.h"

#include <string>

namespace kest::contents
{
namespace
{

std::string plain(std::string_view name)
{
    std::string text;
    for (const char character : name) {
        if (character >= 'A' && character <= 'Z') {
            text += static_cast<char>(character - 'A' + 'a');
        } else if (character != ' ' && character != '-' && character != '_') {
            text += character;
        }
    }
    return text;
}

} // namespace

bool isSameName(std::string_view one, std::string_view other) { return plain(one) == plain(other); }

std::string joinedNames(std::span<const std::string> names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

} // namespace kest::contents
