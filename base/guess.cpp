#include "base/guess.h"

#include <algorithm>
#include <utility>

namespace kest
{
namespace
{

constexpr std::size_t mostWrong = 2;
// of those, one is wrong at most
constexpr std::size_t lettersForOneWrong = 3;
// a longer word is no mistyped one
constexpr std::size_t longestWord = 100;

char lowered(char letter) { return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter; }

bool isSame(char one, char other) { return lowered(one) == lowered(other); }

} // namespace

std::size_t wordDistance(std::string_view one, std::string_view other)
{
    // of the beginnings of `other` from those of `one`: with this letter, one less and two less
    std::vector<std::size_t> now(other.size() + 1);
    std::vector<std::size_t> before(other.size() + 1);
    std::vector<std::size_t> beforeThat(other.size() + 1);
    for (std::size_t at = 0; at <= other.size(); ++at) {
        now[at] = at;
    }
    for (std::size_t row = 1; row <= one.size(); ++row) {
        std::swap(beforeThat, before);
        std::swap(before, now);
        now[0] = row;
        for (std::size_t at = 1; at <= other.size(); ++at) {
            const bool same = isSame(one[row - 1], other[at - 1]);
            now[at] = std::min({before[at] + 1, now[at - 1] + 1, before[at - 1] + (same ? 0 : 1)});
            if (row > 1 && at > 1 && isSame(one[row - 1], other[at - 2]) && isSame(one[row - 2], other[at - 1])) {
                now[at] = std::min(now[at], beforeThat[at - 2] + 1);
            }
        }
    }
    return now[other.size()];
}

std::string guess(std::string_view word, const std::vector<std::string>& known)
{
    if (word.size() > longestWord) {
        return {};
    }
    const std::string* nearest = nullptr;
    std::size_t least = std::min(mostWrong, word.size() / lettersForOneWrong) + 1;
    for (const std::string& each : known) {
        const std::size_t difference = std::max(each.size(), word.size()) - std::min(each.size(), word.size());
        const std::size_t distance = difference < least ? wordDistance(word, each) : least;
        if (distance < least) {
            least = distance;
            nearest = &each;
        }
    }
    return nearest == nullptr ? "" : *nearest;
}

std::string didYouMean(std::string_view word, const std::vector<std::string>& known, const std::string& more)
{
    const std::string found = guess(word, known);
    return found.empty() ? more : "did you mean '" + found + "'?" + (more.empty() ? "" : " " + more);
}

} // namespace kest
