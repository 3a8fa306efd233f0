#include "platform/host/trace/arguments.h"

#include <algorithm>

#include "platform/host/trace/parser.h"

namespace kest::host::trace
{

std::uint32_t argumentReader::number() { return take(sizeof(std::uint32_t)) ? loadWord(m_taken, m_foreign) : 0; }

std::uint64_t argumentReader::wide() { return take(sizeof(std::uint64_t)) ? loadWide(m_taken, m_foreign) : 0; }

std::string_view argumentReader::text()
{
    const auto end = std::ranges::find(m_rest, std::uint8_t{0});
    const auto length = static_cast<std::size_t>(end - m_rest.begin());
    m_missing = end == m_rest.end() || !take(length + 1);
    return m_missing ? std::string_view() : std::string_view(reinterpret_cast<const char*>(m_taken), length);
}

std::span<const std::uint8_t> argumentReader::bytes(std::size_t most)
{
    const std::size_t count = std::min(most, m_rest.size());
    return take(count) ? std::span(m_taken, count) : std::span<const std::uint8_t>();
}

bool argumentReader::take(std::size_t count)
{
    if (m_missing || count > m_rest.size()) {
        m_missing = true;
        return false;
    }
    m_taken = m_rest.data();
    m_rest = m_rest.subspan(count);
    return true;
}

} // namespace kest::host::trace
