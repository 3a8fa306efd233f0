/// Reading JSON texts, part by part. The parser is the JSON library's, which takes long to compile: the source of this
/// header includes it, and nothing else of the platform does.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kest::host
{

/// Takes the parts of a JSON text in their order. What it throws ends the reading.
class jsonEvents
{
public:
    virtual void null() = 0;
    virtual void truth(bool value) = 0;
    virtual void number(std::uint64_t value) = 0;
    virtual void negativeNumber(std::int64_t value) = 0;
    /// A number with a fraction or an exponent, or one that is too long.
    virtual void realNumber(double value) = 0;
    virtual void text(std::string value) = 0;
    virtual void beginList() = 0;
    virtual void endList() = 0;
    virtual void beginObject() = 0;
    virtual void endObject() = 0;
    /// The value of the field comes next.
    virtual void field(std::string name) = 0;

protected:
    jsonEvents() = default;
    jsonEvents(const jsonEvents&) = default;
    jsonEvents& operator=(const jsonEvents&) = default;
    ~jsonEvents() = default;
};

/// @return whether the text is JSON. When it is not, `events` has taken the parts before the fault.
bool readJson(std::string_view text, jsonEvents& events);

bool isJson(std::string_view text);

} // namespace kest::host
