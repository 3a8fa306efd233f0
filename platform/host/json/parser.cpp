#include "platform/host/json/parser.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace kest::host
{
namespace
{

using nlohmann::json;

/// Hands on what the library's parser finds. The names are the library's.
class parserEvents
{
public:
    explicit parserEvents(jsonEvents* events) : m_events(events) {}

    bool null() { return hand(&jsonEvents::null); }
    bool boolean(bool value) { return hand(&jsonEvents::truth, value); }
    bool number_integer(json::number_integer_t value) { return hand(&jsonEvents::negativeNumber, value); }
    bool number_unsigned(json::number_unsigned_t value) { return hand(&jsonEvents::number, value); }
    bool number_float(json::number_float_t value, const std::string& /*digits*/)
    {
        return hand(&jsonEvents::realNumber, value);
    }
    bool string(std::string& value) { return hand(&jsonEvents::text, std::move(value)); }
    static bool binary(json::binary_t& /*value*/) { return false; }
    bool start_object(std::size_t /*size*/) { return hand(&jsonEvents::beginObject); }
    bool end_object() { return hand(&jsonEvents::endObject); }
    bool start_array(std::size_t /*size*/) { return hand(&jsonEvents::beginList); }
    bool end_array() { return hand(&jsonEvents::endList); }
    bool key(std::string& name) { return hand(&jsonEvents::field, std::move(name)); }
    static bool parse_error(std::size_t /*at*/, const std::string& /*token*/, const json::exception& /*why*/)
    {
        return false;
    }

private:
    template <typename... Values>
    bool hand(void (jsonEvents::*part)(Values...), Values... values)
    {
        if (m_events != nullptr) {
            (m_events->*part)(std::move(values)...);
        }
        return true;
    }

    jsonEvents* m_events;
};

bool parse(std::string_view text, jsonEvents* events)
{
    parserEvents handler(events);
    return json::sax_parse(text, &handler);
}

} // namespace

bool readJson(std::string_view text, jsonEvents& events) { return parse(text, &events); }

bool isJson(std::string_view text) { return parse(text, nullptr); }

} // namespace kest::host
