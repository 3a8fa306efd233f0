/// The volatile state's fields, little-endian on every host, one after the other in a record of the state file.
#pragma once

#include <algorithm>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace kest::sim
{

/// Takes fields out of a record or puts them in, so that one list of fields serves both ways. Fields that do not fit
/// whole into the record read as 0. A loaded field that no machine can have written makes the record damaged.
class stateFields
{
public:
    enum class way : std::uint8_t {
        load,
        store
    };
    /// @param busTime  of the record's bus, ns
    /// @param faults   numbers of the bus's faults, which outlive the fields; null: not known
    stateFields(std::span<std::uint8_t> bytes, way which, std::uint64_t busTime = 0,
                const std::vector<std::uint32_t>* faults = nullptr)
        : m_record{bytes}, m_now{busTime}, m_faults{faults}, m_loads{which == way::load}
    {
    }

    template <std::unsigned_integral Number>
    void number(Number& value)
    {
        std::uint8_t* const field = next(sizeof(Number));
        if (m_loads) {
            value = 0;
        }
        if (field == nullptr) {
            return;
        }
        // each transaction passes all fields of its bus: no loop over the bytes
        if (m_loads) {
            std::memcpy(&value, field, sizeof(Number));
            value = littleEndian(value);
        } else {
            const Number stored = littleEndian(value);
            std::memcpy(field, &stored, sizeof(Number));
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
        if (values.empty()) {
            return;
        }
        std::uint8_t* const field = next(values.size());
        if (field == nullptr) {
            if (m_loads) {
                std::ranges::fill(values, std::uint8_t{0});
            }
            return;
        }
        std::memcpy(m_loads ? values.data() : field, m_loads ? field : values.data(), values.size());
    }
    /// Notes the first field that does not hold. @param what  names the field
    void check(bool holds, const char* what)
    {
        if (m_loads && !holds && m_damage == nullptr) {
            m_damage = what;
        }
    }
    /// Notes the number of a fault that the bus does not have. @param number  0: of none
    void checkFault(std::uint32_t number, const char* what)
    {
        check(number == 0 || m_faults == nullptr || std::ranges::find(*m_faults, number) != m_faults->end(), what);
    }
    /// The first field that is damaged; null: none.
    [[nodiscard]] const char* damaged() const { return m_damage; }
    [[nodiscard]] std::uint64_t busTime() const { return m_now; }
    [[nodiscard]] bool loads() const { return m_loads; }

private:
    /// The next bytes; null when the record has fewer.
    std::uint8_t* next(std::size_t size)
    {
        const std::size_t left = m_record.size() - m_at;
        if (size > left) {
            m_at = m_record.size();
            return nullptr;
        }
        m_at += size;
        return m_record.data() + (m_at - size);
    }

    /// A number as little-endian hosts have it in memory; also back.
    template <std::unsigned_integral Number>
    static Number littleEndian(Number value)
    {
        if constexpr (std::endian::native == std::endian::little) {
            return value;
        }
        Number turned = 0;
        for (std::size_t i = 0; i < sizeof(Number); ++i) {
            turned = static_cast<Number>(
                turned | static_cast<Number>((value >> (8 * i) & 0xFF) << (8 * (sizeof(Number) - 1 - i))));
        }
        return turned;
    }

    std::span<std::uint8_t> m_record;
    std::size_t m_at = 0;
    std::uint64_t m_now;
    const std::vector<std::uint32_t>* m_faults;
    const char* m_damage = nullptr;
    bool m_loads;
};

} // namespace kest::sim
