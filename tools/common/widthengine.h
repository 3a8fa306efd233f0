/// How many offset bytes a memory part takes, found out by reads that leave every part as it is.
///
/// A read behind one offset byte is harmless: a part with two takes it for half an offset. Behind two offset bytes a
/// part with one takes the second byte for data. It drops that byte at the repeated START; a ferroelectric part, or one
/// that sees a STOP instead, writes it. So the second byte is always the one that the part holds at that place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/partend.h"
#include "tools/common/widthplace.h"
#include "tools/common/widthreads.h"

namespace kest::tools
{

enum class widthVerdict : std::uint8_t {
    oneByte,
    twoBytes,
    flaky, ///< reads of the same bytes differ
    uniform, ///< too much of the content is one value to tell
    notDecidable,
};

struct widthFinding {
    widthVerdict verdict = widthVerdict::notDecidable;
    partEnd end = partEnd::notKnown;
    bool byHub = false; ///< the hub said so
    std::string seen = {}; ///< what the verdict rests on
    unsigned reads = 0;
    int error = 0; ///< errno of the read that failed, if one did
    /// 256 bytes read behind one offset byte, from 0 on, when they were the same each time; else empty.
    std::vector<std::uint8_t> first = {};
    /// A read at the end gave others: an offset byte can have arrived as another one, and a part with one has taken it
    /// for data.
    bool isTouched = false;
};

/// One proof: at most 64 reads.
class widthEngine
{
public:
    explicit widthEngine(const widthQuestion& question)
        : m_question(question), m_reads(question), m_longest(question.mostBytes)
    {
    }
    [[nodiscard]] widthFinding run();

private:
    [[nodiscard]] bool readPlaces();
    [[nodiscard]] bool readPlace(widthPlace& place);
    [[nodiscard]] readEnd readBehindTwo(std::uint8_t at, std::vector<std::uint8_t>& bytes);
    [[nodiscard]] bool isAnswered(std::uint8_t at);
    bool conclude(widthVerdict verdict, std::string seen);

    [[nodiscard]] bool holdsFirst();
    void judge();
    [[nodiscard]] bool fitsAll(std::size_t ahead) const;
    void judgePlainContent();
    void judgeOneByte(std::size_t ahead);
    void judgeUnlike();
    void judgeTwoBytes();
    void judgeRest();
    [[nodiscard]] bool tells(const widthPlace& place) const;
    [[nodiscard]] bool hasNext(const widthPlace& place) const;
    [[nodiscard]] std::optional<std::size_t> placeAfter(std::size_t here);
    [[nodiscard]] readEnd arrive(const widthPlace& here, const widthPlace& next, bool& isThere);
    bool judgeArrival(std::size_t here, std::size_t next);
    void concludeOneByte(const char* why);

    const widthQuestion& m_question;
    widthReads m_reads;
    widthFinding m_finding;
    std::vector<widthPlace> m_places;
    std::size_t m_longest = 0; ///< bytes that one read takes, as far as it is known
    bool m_sentTwo = false; ///< offset bytes, at least once
    bool m_onePossible = true; ///< the part may have one offset byte: it must be sent no second byte but its own
};

} // namespace kest::tools
