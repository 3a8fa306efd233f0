#include "tools/common/hubproof.h"

#include <array>
#include <fmt/core.h>
#include <string>

namespace kest::tools
{
namespace
{

constexpr std::size_t askedBytes = 16;
constexpr std::uint8_t statusDone = 0;
// a read with the wrong number of offset bytes
constexpr std::uint8_t statusMalformed = 1;

/// What a hub says of one number of offset bytes.
enum class hubAnswer : std::uint8_t {
    taken,
    refused,
    other, ///< another status, or silence
};

using askedPart = std::array<std::uint8_t, askedBytes>;

class hubProof
{
public:
    explicit hubProof(const hubQuestion& question) : m_question(question) {}
    [[nodiscard]] std::optional<widthFinding> run();

private:
    hubAnswer ask(std::size_t offsetBytes);
    hubAnswer askOne();
    [[nodiscard]] widthFinding found(widthVerdict verdict, std::string seen) const;
    [[nodiscard]] widthFinding undecided() const { return found(widthVerdict::notDecidable, m_trouble); }

    const hubQuestion& m_question;
    std::array<std::uint8_t, 2> m_offset{};
    askedPart m_bytes{}; ///< of the latest read
    std::string m_trouble; ///< what the hub reported, or did not
};

widthFinding hubProof::found(widthVerdict verdict, std::string seen) const
{
    return {.verdict = verdict, .byHub = true, .seen = std::move(seen)};
}

/// A refusal is taken from the hub, which would give the same answer to whatever comes next.
hubAnswer hubProof::ask(std::size_t offsetBytes)
{
    const std::optional<std::uint8_t> status =
        m_question.readStatus(std::span<const std::uint8_t>(m_offset).first(offsetBytes), m_bytes);
    if (!status || (*status == statusMalformed && !m_question.clearStatus())) {
        m_trouble = "the hub does not answer";
        return hubAnswer::other;
    }
    if (*status == statusDone || *status == statusMalformed) {
        return *status == statusDone ? hubAnswer::taken : hubAnswer::refused;
    }
    m_trouble = fmt::format("the hub reports status {}", *status);
    return hubAnswer::other;
}

/// Asks with one offset byte, again when it was refused.
hubAnswer hubProof::askOne()
{
    const hubAnswer answer = ask(1);
    return answer == hubAnswer::refused ? ask(1) : answer;
}

std::optional<widthFinding> hubProof::run()
{
    const hubAnswer one = askOne();
    if (one == hubAnswer::taken) {
        const askedPart before = m_bytes;
        const hubAnswer again = ask(1);
        if (again == hubAnswer::other) {
            return undecided();
        }
        if (again == hubAnswer::refused || m_bytes != before) {
            return found(widthVerdict::flaky, "two reads behind one offset byte differ");
        }
        // a part with one offset byte would take the second one for data, and holds that byte there
        m_offset[1] = m_bytes[0];
    }
    const hubAnswer two = one == hubAnswer::other ? one : ask(2);
    if (two == hubAnswer::other) {
        return undecided();
    }
    if (one != two) {
        return found(one == hubAnswer::taken ? widthVerdict::oneByte : widthVerdict::twoBytes,
                     "the hub takes this width and refuses the other one");
    }
    return one == hubAnswer::refused ? std::optional(found(widthVerdict::notDecidable, "the hub refuses both widths"))
                                     : std::nullopt;
}

} // namespace

std::optional<widthFinding> proveByHub(const hubQuestion& question) { return hubProof(question).run(); }

} // namespace kest::tools
