/// The volatile state's fields, little-endian on every host, one after the other in a record of the state file.
#pragma once

#include <concepts>
#include <cstdint>
#include <span>

namespace kest::sim
{

/// Takes fields out of a record or puts them in, so that one list of fields serves both ways. Fields beyond the
/// record's end read as 0.
class stateFields
{
public:
    enum class way : std::uint8_t {
        load,
        store
    };
    stateFields(std::span<std::uint8_t> bytes, way which) : record{bytes}, loads{which == way::load} {}

    template <std::unsigned_integral Number>
    void number(Number& value)
    {
        Number loaded = 0;
        for (std::size_t i = 0; i < sizeof(Number); ++i, ++at)
            if (at < record.size() && loads)
                loaded = static_cast<Number>(loaded | static_cast<Number>(Number{record[at]} << (8 * i)));
            else if (at < record.size())
                record[at] = static_cast<std::uint8_t>(value >> (8 * i));
        if (loads)
            value = loaded;
    }
    void flag(bool& value)
    {
        std::uint8_t byte = value ? 1 : 0;
        number(byte);
        value = byte != 0;
    }
    template <typename... Fields>
    void numbers(Fields&... fields)
    {
        (number(fields), ...);
    }
    void bytes(std::span<std::uint8_t> values)
    {
        for (auto& value : values)
            number(value);
    }
    [[nodiscard]] bool loading() const { return loads; }

private:
    std::span<std::uint8_t> record;
    std::size_t             at = 0;
    bool                    loads;
};

} // namespace kest::sim
