/// The JSON of a dump file, taken key by key.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/common/failure.h"

namespace kest::tools
{

/// Takes each key of a dump file once. Every complaint is a `failure` (exit code 2) that names file and key.
class dumpReader
{
public:
    /// Throws when the text is no JSON object, or has a key twice.
    dumpReader(const std::string& fileName, const std::string& text);

    /// @param expected  what the value is, for the complaint: "a device text"
    [[nodiscard]] std::string text(const std::string& key, const std::string& expected);
    [[nodiscard]] std::uint32_t number(const std::string& key);
    /// The bytes of the key "data", a list of texts of hexadecimal digits.
    [[nodiscard]] std::vector<unsigned char> data();
    /// Throws when a key was not taken.
    void end() const;

    [[nodiscard]] failure wrong(const std::string& key, const std::string& complaint) const;

    /// The value of a key.
    struct value {
        enum class kind : std::uint8_t {
            text,
            wholeNumber,
            listOfTexts,
            other
        };
        kind what = kind::other;
        std::vector<std::string> texts; ///< of a text one, of a list all
        std::uint64_t number = 0;
    };

private:
    value take(const std::string& key, value::kind wanted, const std::string& expected);

    std::string m_fileName;
    std::map<std::string, value> m_values; ///< not taken yet
};

} // namespace kest::tools
