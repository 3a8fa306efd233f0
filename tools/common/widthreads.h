/// The reads of a width proof, counted; and what a part gives behind one offset byte.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace kest::tools
{

enum class readEnd : std::uint8_t {
    done,
    refused, ///< a byte, or the address, was not acknowledged
    tooLong, ///< the adapter takes less at once
    failed,
};

/// The part, as a width proof sees it.
struct widthQuestion {
    /// Reads behind offset bytes in one transaction.
    std::function<readEnd(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into)> read;
    /// Reads from the start of the part at another address, behind one offset byte. @return false when nothing answers
    std::function<bool(std::uint8_t address, std::span<std::uint8_t> into)> readOther;
    std::uint8_t address = 0; ///< 8-bit form
    std::size_t mostBytes = 0; ///< that one read takes
    unsigned mostReads = 64; ///< that the proof makes
    std::uint32_t offset = 0; ///< of the bytes that are to be written
    std::uint32_t length = 0; ///< 0: none are
};

/// What two or four reads of the first 256 bytes showed.
enum class firstEnd : std::uint8_t {
    same, ///< but for bytes that differed once
    unlike, ///< each read gave other bytes: they do not begin at their offset
    unsteady, ///< they differ, as noise or a part with two offset bytes makes them
    failed,
};

class widthReads
{
public:
    static constexpr unsigned most = 64; ///< reads of one proof
    static constexpr std::size_t firstBytes = 256;
    using firstRead = std::array<std::uint8_t, firstBytes>;

    explicit widthReads(const widthQuestion& question) : m_question(question) {}

    /// Reads once. `failed` also when that would be one read too many.
    readEnd read(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into);
    /// Reads from the start of another address. @return false when nothing answers, or it would be one read too many
    bool readOther(std::uint8_t address, std::span<std::uint8_t> into);

    /// Reads 256 bytes behind one offset byte, in smaller pieces where the adapter takes less than it was thought to.
    [[nodiscard]] bool readWhole(firstRead& bytes);
    /// Reads them twice; twice more when they differ.
    firstEnd readFirst();
    /// Takes them as read before, and certain.
    void know(const firstRead& bytes);
    [[nodiscard]] const firstRead& first() const { return m_first; }
    /// Whether bytes of first() were the same each time.
    [[nodiscard]] bool isStable(std::size_t at, std::size_t length) const;
    [[nodiscard]] bool isStable() const { return m_stable.all(); }

    [[nodiscard]] unsigned count() const { return m_count; }
    /// Bytes that one read is known to take, at most 256.
    [[nodiscard]] std::size_t piece() const { return m_piece; }
    /// Why readWhole() or readFirst() failed.
    [[nodiscard]] const std::string& trouble() const { return m_trouble; }

private:
    [[nodiscard]] bool readOneMore();
    [[nodiscard]] readEnd readPieces(firstRead& bytes);
    [[nodiscard]] bool areUnlike() const;

    const widthQuestion& m_question;
    unsigned m_count = 0;
    std::size_t m_piece = firstBytes;
    std::vector<firstRead> m_wholes;
    firstRead m_first{};
    std::bitset<firstBytes> m_stable;
    std::string m_trouble;
};

} // namespace kest::tools
