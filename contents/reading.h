/// What an image says: a tree of fields, each with its place and a verdict.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "contents/table.h"

namespace kest::contents
{

enum class verdict : std::uint8_t {
    good,
    damaged, ///< it breaks a rule of its format; `problem` says which
    unknown, ///< the format has no meaning for it; it is shown as bytes
};

/// Nothing for structures, and for what is damaged so that it has no value.
using fieldValue = std::variant<std::monostate, std::int64_t, double, std::string, std::vector<std::string>,
                                std::vector<std::uint8_t>>;

struct sumResult {
    sumKind as = sumKind::none;
    std::uint32_t stored = 0;
    std::uint32_t computed = 0;
    /// The bytes that it covers, in the image.
    std::size_t from = 0;
    std::size_t length = 0;
};

struct node {
    std::string name{}; ///< whole: "board.serial"; no other node of the image has it. Empty where a row has no name
    std::string label{};
    fieldValue value{};
    std::optional<std::uint64_t> raw{}; ///< of numbers and choices: as stored, before it is scaled
    std::string text{}; ///< the value for people, without the unit; may hold any UTF-8 text that the image holds
    std::string unit{};
    /// Where it lies: bytes of the image. Bits count in the number that these bytes make; 0 bits: all.
    std::size_t offset = 0;
    std::size_t length = 0;
    std::uint8_t bit = 0;
    std::uint8_t bits = 0;
    verdict is = verdict::good;
    std::string problem{}; ///< why it is damaged
    std::optional<sumResult> sum{}; ///< of a checksum that could be computed
    std::vector<node> children{};
    const row* source = nullptr; ///< its row of the format's table; null when it has none
};

/// An image as a format has it.
struct reading {
    const format* as = nullptr;
    std::size_t imageLength = 0;
    std::string problem{}; ///< of the image as a whole: it is too short, or does not carry the format
    /// In the order of the format's table, then the bytes that no row covers.
    std::vector<node> nodes{};
};

/// Nothing of it is damaged, and nothing is missing.
[[nodiscard]] bool isWhole(const reading& what);
/// The damaged nodes, in the order of the tree. They live as long as `what`.
[[nodiscard]] std::vector<const node*> damagedNodes(const reading& what);
/// All checksums, in the order of the tree.
[[nodiscard]] std::vector<const node*> checksums(const reading& what);
/// The node of this whole name, null when there is none.
[[nodiscard]] const node* findNode(const reading& what, std::string_view name);

} // namespace kest::contents
