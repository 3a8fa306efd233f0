/// The engine: reads an image by the tables of a format. What the image says about places only ever narrows the bytes
/// that are read: a structure never reaches beyond the one that it lies in, so nothing outside the image is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "contents/area.h"
#include "contents/coverage.h"
#include "contents/knownfields.h"
#include "contents/listentry.h"
#include "contents/reading.h"

namespace kest::contents
{

/// Reads an image as a format, whether it was recognised or not. Nothing in `image` makes it fail: what can't be right
/// is a node with a problem.
[[nodiscard]] reading readAs(const format& as, std::span<const std::uint8_t> image);

/// More entries of a list than any document allows in an image. They bound what a hostile image can make of its bytes.
constexpr std::size_t mostEntries = 4096;

/// Bytes without a meaning, without a name and a label.
[[nodiscard]] node bytesNode(std::span<const std::uint8_t> image, const window& where);

/// Reads one image once. Prefixes of names are empty, or end with a point. What a function reads is added to `into`.
class reader
{
public:
    explicit reader(std::span<const std::uint8_t> image) : m_image(image) {}

    /// Reads the rows of a block. @return false when the block ends before one of them
    bool readRows(const rowList& rows, const window& block, const std::string& prefix, std::vector<node>& into);
    /// The bytes that no row covered, as one node; nothing when there are none.
    [[nodiscard]] std::optional<node> others() const;

private:
    bool readRow(const row& field, const window& block, const std::string& prefix, std::vector<node>& into);
    bool readValue(const row& field, const window& block, const std::string& prefix, std::vector<node>& into);
    void readProduct(const row& field, const window& block, const std::string& prefix, std::vector<node>& into) const;
    void cover(const row& field, const window& block, const node& value);
    void setValue(const row& field, const window& block, node& into);
    void checkSum(const row& field, const window& block, node& into) const;
    bool readArea(const row& field, const window& outer, const std::string& prefix, std::vector<node>& into);
    bool readRepetition(const row& field, const window& outer, const std::string& prefix, std::vector<node>& into);
    void addRest(const row& field, const window& rest, const std::string& prefix, std::vector<node>& into);
    void readElement(const row& field, const window& element, const std::string& name, std::uint64_t number,
                     std::vector<node>& into);
    void readEntries(const row& field, const window& list, const std::string& prefix, node& into);
    [[nodiscard]] node readEntry(const listRule& rule, const row* known, const listEntry& entry,
                                 const std::string& name);
    [[nodiscard]] node plainEntry(const row* known, const listEntry& entry, const std::string& name);
    [[nodiscard]] node entryWithHeader(const listRule& rule, const row* known, const listEntry& entry,
                                       const std::string& name);
    bool readStrings(const row& field, const window& block, const std::string& prefix, std::vector<node>& into);

    std::span<const std::uint8_t> m_image;
    knownFields m_known;
    coverage m_covered;
};

} // namespace kest::contents
