#include "tools/common/widthreads.h"

#include <algorithm>

#include "tools/common/widthbytes.h"

namespace kest::tools
{
namespace
{

// Fewer bytes at once say too little about where they were read, and 256 of them take too many reads.
constexpr std::size_t leastPiece = 16;

} // namespace

readEnd widthReads::read(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into)
{
    if (m_count >= m_question.mostReads) {
        m_trouble = "more than 64 reads would be needed";
        return readEnd::failed;
    }
    ++m_count;
    return m_question.read(offset, into);
}

bool widthReads::readOther(std::uint8_t address, std::span<std::uint8_t> into)
{
    if (m_count >= m_question.mostReads) {
        return false;
    }
    ++m_count;
    return m_question.readOther(address, into);
}

readEnd widthReads::readPieces(firstRead& bytes)
{
    for (std::size_t at = 0; at < bytes.size(); at += m_piece) {
        const auto offset = static_cast<std::uint8_t>(at);
        const readEnd end = read({&offset, 1}, std::span(bytes).subspan(at, m_piece));
        if (end != readEnd::done) {
            return end;
        }
    }
    return readEnd::done;
}

bool widthReads::readWhole(firstRead& bytes)
{
    while (m_piece > m_question.mostBytes && m_piece > leastPiece) {
        m_piece /= 2;
    }
    readEnd end = m_piece > m_question.mostBytes ? readEnd::tooLong : readPieces(bytes);
    while (end == readEnd::tooLong && m_piece > leastPiece) {
        m_piece /= 2;
        end = readPieces(bytes);
    }
    if (end != readEnd::done && m_trouble.empty()) {
        m_trouble = end == readEnd::tooLong   ? "the adapter takes no read of 16 bytes behind an offset"
                    : end == readEnd::refused ? "nothing answers"
                                              : "a read behind one offset byte failed";
    }
    return end == readEnd::done;
}

bool widthReads::readOneMore() { return readWhole(m_wholes.emplace_back()); }

/// Whether no two of the reads can be of the same bytes, however noisy.
bool widthReads::areUnlike() const
{
    for (std::size_t one = 0; one < m_wholes.size(); ++one) {
        for (std::size_t other = one + 1; other < m_wholes.size(); ++other) {
            if (areAlike(m_wholes[one], m_wholes[other])) {
                return false;
            }
        }
    }
    return true;
}

firstEnd widthReads::readFirst()
{
    if (!readOneMore() || !readOneMore()) {
        return firstEnd::failed;
    }
    m_first = m_wholes[0];
    const bool differ = m_wholes[0] != m_wholes[1];
    if (differ && (!readOneMore() || !readOneMore())) {
        return firstEnd::failed;
    }
    for (std::size_t at = 0; at < firstBytes; ++at) {
        m_stable[at] =
            std::ranges::all_of(m_wholes, [this, at](const firstRead& whole) { return whole[at] == m_first[at]; });
    }
    if (differ && areUnlike()) {
        return firstEnd::unlike;
    }
    // one wrong byte happens; where more are wrong, a second offset byte may not arrive as it is sent
    return differ && m_wholes[2] != m_wholes[3] ? firstEnd::unsteady : firstEnd::same;
}

void widthReads::know(const firstRead& bytes)
{
    m_first = bytes;
    m_stable.set();
}

bool widthReads::isStable(std::size_t at, std::size_t length) const
{
    for (std::size_t next = at; next < at + length; ++next) {
        if (!m_stable[next % firstBytes]) {
            return false;
        }
    }
    return true;
}

} // namespace kest::tools
