/// The volatile state's fields, little-endian on every host, one after the other in a record of the state file.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <span>

namespace kest::sim
{

/// Takes fields out of a record or puts them in, so that one list of fields serves both ways. Fields beyond the
/// record's end read as 0. A loaded field that no machine can have written makes the record damaged.
class stateFields
{
public:
    enum class way : std::uint8_t {
        load,
        store
    };
    /// @param busTime  of the record's bus, ns
    stateFields(std::span<std::uint8_t> bytes, way which, std::uint64_t busTime = 0)
        : m_record{bytes}, m_now{busTime}, m_loads{which == way::load}
    {
    }

    template <std::unsigned_integral Number>
    void number(Number& value)
    {
        const auto field = next(sizeof(Number));
        Number loaded = 0;
        for (std::size_t i = 0; i < field.size(); ++i) {
            if (m_loads) {
                loaded = static_cast<Number>(loaded | static_cast<Number>(Number{field[i]} << (8 * i)));
            } else {
                field[i] = static_cast<std::uint8_t>(value >> (8 * i));
            }
        }
        if (m_loads) {
            value = loaded;
        }
    }
    void flag(bool& value)
    {
        std::uint8_t byte = value ? 1 : 0;
        number(byte);
        check(byte <= 1, "a flag");
        value = byte != 0;
    }
    template <typename... Fields>
    void numbers(Fields&... fields)
    {
        (number(fields), ...);
    }
    void bytes(std::span<std::uint8_t> values)
    {
        const auto field = next(values.size());
        if (m_loads) {
            std::ranges::fill(std::ranges::copy(field, values.begin()).out, values.end(), std::uint8_t{0});
        } else {
            std::ranges::copy(values.first(field.size()), field.begin());
        }
    }
    /// Notes the first field that does not hold. @param what  names the field
    void check(bool holds, const char* what)
    {
        if (m_loads && !holds && m_damage == nullptr) {
            m_damage = what;
        }
    }
    /// The first field that is damaged; null: none.
    [[nodiscard]] const char* damaged() const { return m_damage; }
    [[nodiscard]] std::uint64_t busTime() const { return m_now; }
    [[nodiscard]] bool loads() const { return m_loads; }

private:
    /// The next bytes, fewer at the record's end.
    std::span<std::uint8_t> next(std::size_t size)
    {
        const std::size_t from = std::min(m_at, m_record.size());
        m_at += size;
        return m_record.subspan(from, std::min(size, m_record.size() - from));
    }

    std::span<std::uint8_t> m_record;
    std::size_t m_at = 0;
    std::uint64_t m_now;
    const char* m_damage = nullptr;
    bool m_loads;
};

} // namespace kest::sim
