/// What somebody may have meant by a word that nobody knows.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kest
{

/// How many letters are wrong, missing, too many, or in the place of their neighbour, at the least, to make one word of
/// the other. Upper and lower case are the same.
[[nodiscard]] std::size_t wordDistance(std::string_view one, std::string_view other);

/// The nearest of the known words, the first of several, when it is near: at most two letters are wrong, and at most one
/// in three. @return empty when none is
[[nodiscard]] std::string guess(std::string_view word, const std::vector<std::string>& known);

/// "did you mean 'planar-vpd'? MORE", or only MORE when no word is near.
[[nodiscard]] std::string didYouMean(std::string_view word, const std::vector<std::string>& known,
                                     const std::string& more = {});

} // namespace kest
