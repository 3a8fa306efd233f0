/// The words in which a format is written down: tables of rows, one row for each field or structure. A file of
/// contents/formats holds such tables and no code; `reader` reads an image by them. docs/contents.md shows how to
/// write one.
///
/// Every block of a format has its own rows. Their offsets count from the block's first byte. A row's name is the last
/// part of the field's name ("serial" of "board.serial"), in camelBack; a structure without a name adds nothing to the
/// names of its fields. A block without a label, too, only groups rows: its fields are shown in its place. Where a row
/// refers to another field, it gives that last part; the value read last by that name counts. So the other row stands
/// before it. What is read in an element of a list or a repetition is forgotten at the element's end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

namespace kest::contents
{

enum class kind : std::uint8_t {
    // values
    number, ///< unsigned or signed, whole bytes or bits of them; scaled; `names` are special values with their texts
    choice, ///< a number that stands for one of `names`; any other is not known
    flags, ///< a set: `names` gives the bits (0 the lowest) and what each says
    hexadecimal, ///< a number that people know in hexadecimal
    version, ///< one byte: major in the high nibble, minor in the low
    bcd, ///< packed decimal digits, two in a byte, the first the most significant; scaled as a number
    real, ///< IEEE 754 of four bytes
    text, ///< ASCII, with `padding` behind it
    bytes, ///< shown as they are
    macAddress, ///< 6 bytes
    eisaId, ///< 2 bytes, big-endian: three letters of 5 bits, 1 for A
    jedecId, ///< 2 bytes of JEP106: count of continuation codes, then the code, each with odd parity in bit 7
    uuid, ///< 16 bytes, as RFC 4122 has them in a row
    minutesSince1996, ///< 3 bytes, little-endian: minutes since 1996-01-01 00:00; 0 is "not given"
    yearWeekBcd, ///< 2 bytes of decimal digits: year since 2000, week
    checksum, ///< `sum` says of what
    product, ///< no bytes of its own: `by` times `factors`; there is none when one of these has no value
    // structures
    block, ///< bytes with their own `rows`
    repetition, ///< blocks of the same `rows`, each `length` bytes long
    list, ///< entries with a type and a length: `entries`
    strings, ///< strings that each begin with a byte of type and length: `strings`
};

/// Whether a row of this kind has no value, but others in it.
[[nodiscard]] constexpr bool isStructure(kind which) { return which >= kind::block; }

enum class byteOrder : std::uint8_t {
    big,
    little
};

/// Bits of one byte.
struct place {
    std::size_t at = 0; ///< the byte
    std::uint8_t bit = 0; ///< the lowest of the bits, 0 to 7
    std::uint8_t bits = 8; ///< 1 to 8
};

/// A value is raw * factor / divisor + plus. The named fields, where given, multiply factor and divisor.
struct scale {
    std::int64_t factor = 1;
    std::int64_t divisor = 1;
    std::int64_t plus = 0;
    std::string_view factorField{};
    std::string_view divisorField{};
};

/// A finer part, which is added to a number in the same unit: a signed byte, or some unsigned bits of a byte.
struct fineCorrection {
    std::size_t at = 0; ///< 0: there is none
    std::uint8_t bit = 0; ///< the lowest of the bits
    std::uint8_t bits = 0; ///< 0: the signed byte
    scale by{};
};

/// One factor of a product: a field's value as stored, or what it stands for.
struct factor {
    std::string_view field{};
    std::span<const std::int64_t> values{}; ///< when given: the one at the place of the field's value counts, unless 0
    std::int64_t plus = 0;
    std::string_view plusField{}; ///< its value as stored is added, too
    std::int64_t times = 1; ///< multiplies the stored values before `plus` is added
    bool divides = false;
};

struct named {
    std::uint64_t value = 0; ///< of flags: the number of the bit
    std::string_view text{};
};

/// Holds when the field has been read, and its value & mask lies from `least` to `most`, both included, and the bit of
/// that number is set in `oneOf` (unless that is 0). A condition without a field holds always.
struct condition {
    std::string_view field{};
    std::uint64_t mask = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t least = 0;
    std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t oneOf = 0;
};

/// The values that a number may have as stored, both included. A special value of `names` is always allowed; any other
/// is damaged.
struct allowedValues {
    std::uint64_t least = 0;
    std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
};

/// What texts are padded with unless their row says otherwise: blanks and NUL.
inline constexpr std::string_view usualPadding(" \0", 2);
constexpr std::uint8_t mostDecimals = 6;

enum class sumKind : std::uint8_t {
    none,
    zero8, ///< the bytes of the range and the stored one sum to 0 modulo 256
    low8, ///< the stored byte is the low byte of the range's sum
    crc16Xmodem, ///< polynomial 0x1021, starts with 0; stored little-endian
    crc32Big, ///< base/crc32.h; stored big-endian
};

/// Which bytes a checksum covers. The stored sum itself may lie inside the range of zero8 alone.
struct sumRule {
    sumKind as = sumKind::none;
    bool fromImage = false; ///< the range counts from the image's first byte, not the block's
    std::size_t from = 0;
    std::size_t length = 0; ///< 0: up to the stored sum
    std::string_view lengthField{}; ///< when given: its value is the length
};

/// Where a block, repetition or list lies, beyond `at` and `length` of its row.
struct extent {
    /// Its position is `at` + this field * atUnit. The value 0 means that there is none.
    std::string_view atField{};
    std::size_t atUnit = 1;
    /// Its length is this field * lengthUnit + lengthPlus.
    std::string_view lengthField{};
    /// Its length is its own byte `ownLengthAt` * lengthUnit + lengthPlus.
    bool ownLength = false;
    std::size_t ownLengthAt = 0;
    std::size_t lengthUnit = 1;
    std::int64_t lengthPlus = 0;
    /// It ends where the next of the areas begins whose positions these fields give in `atUnit`.
    std::span<const std::string_view> beforeFields{};
    std::size_t least = 0; ///< a shorter one is damaged
};

struct row;

/// The rows of an array.
class rowList
{
public:
    constexpr rowList() = default;
    template <std::size_t Count>
    constexpr rowList(const row (&rows)[Count]) : m_first(rows), m_count(Count)
    {
    }
    [[nodiscard]] constexpr const row* begin() const { return m_first; }
    [[nodiscard]] constexpr const row* end() const;
    [[nodiscard]] constexpr std::size_t size() const { return m_count; }
    [[nodiscard]] constexpr bool empty() const { return m_count == 0; }
    [[nodiscard]] constexpr const row& operator[](std::size_t index) const;

private:
    const row* m_first = nullptr;
    std::size_t m_count = 0;
};

constexpr std::uint64_t noTag = std::numeric_limits<std::uint64_t>::max();

/// Entries of a list: a header, then a value. A row of `known` whose `tag` is the entry's type says what the value is;
/// its offsets count from the value's first byte, and a length of 0 is all of it. A block has all of it, too. A value of
/// another length than its row has is damaged. What has no row is shown as bytes.
struct listRule {
    std::size_t headerLength = 0;
    rowList
        header{}; ///< fields of the header, also checksums over the entry: offsets count from the entry's first byte
    std::string_view typeField{};
    std::string_view lengthField{}; ///< bytes of the value
    std::string_view lastField{}; ///< not 0 in the last entry
    std::uint64_t lastType = noTag; ///< the entry of this type is the last; it must be there
    bool zerosEnd = false; ///< bytes 0 from an entry's place up to the list's end are a fill
    /// The entries are blocks named by their position, and their headers are shown. Else an entry is its value.
    bool showHeader = false;
    rowList known{};
};

/// Strings of the FRU information form: a byte with type (bits 6 and 7) and length (bits 0 to 5), then the bytes. The
/// last byte of their block is its checksum, and none of theirs.
struct stringsRule {
    rowList known{}; ///< in their order; of each row only name, label and `english` count
    std::string_view moreName{}, moreLabel{}; ///< of further ones, which are numbered from 1
    std::string_view languageField{}; ///< none: English
    std::uint8_t end = 0xC1; ///< stands in place of a type and length behind the last
};

struct row {
    std::string_view name{};
    std::string_view label{};
    kind as = kind::bytes;
    std::uint64_t tag = noTag; ///< in a list: the type of its entry
    std::uint64_t lastTag = 0; ///< not 0: the types from `tag` to this one
    std::size_t at = 0; ///< bytes from the start of the block
    std::size_t fromEnd = 0; ///< not 0: it lies so many bytes before the end of the block instead
    std::size_t length = 1; ///< bytes; 0: up to the end of the block
    byteOrder order = byteOrder::big;
    std::uint8_t bit = 0; ///< the lowest bit, counted in the number that the bytes make
    std::uint8_t bits = 0; ///< 0: all from `bit` up
    bool isSigned = false; ///< two's complement
    std::span<const place> more{}; ///< further bits of the number, each above those before it
    scale by{};
    fineCorrection fine{};
    std::span<const factor> factors{};
    std::string_view unit{};
    std::uint8_t decimals = mostDecimals; ///< of a product: digits behind the point, at most
    std::span<const named> names{};
    allowedValues allowed{}; ///< of a number or choice
    std::string_view padding = usualPadding; ///< of a text: the characters that may follow it
    condition when{}; ///< the row counts only when both conditions hold
    condition also{};
    bool settable = false; ///< `seeprom set` may change it
    bool english = false; ///< a string: the language field does not apply to it
    bool isHidden = false; ///< a value that is not shown: only for conditions
    bool optional = false; ///< a block: no complaint when the bytes end where it begins
    sumRule sum{};
    extent where{}; ///< of structures
    rowList rows{}; ///< of a block, or of each block of a repetition
    std::size_t count = 0; ///< of a repetition; 0: as many as fit
    std::string_view countField{};
    std::size_t stopAtZeros = 0; ///< a repetition ends before an element that begins with so many bytes 0
    bool mustFill = false; ///< a repetition without a count: bytes behind its last whole element are damage
    listRule entries{};
    stringsRule strings{};
};

constexpr const row* rowList::end() const { return m_first + m_count; }
constexpr const row& rowList::operator[](std::size_t index) const { return m_first[index]; }

/// What must hold of an image's bytes for a format to be recognised.
struct signature {
    std::size_t at = 0;
    std::string_view bytes{}; ///< these stand there; when empty, the byte there & mask lies from `least` to `most`
    std::uint8_t mask = 0xFF;
    std::uint8_t least = 0;
    std::uint8_t most = 0xFF;
    /// Not 0: the byte at `at` is a position in this unit, not 0; the byte meant lies `plus` bytes behind it.
    std::size_t pointerUnit = 0;
    std::size_t plus = 0;
    std::size_t zeroSum = 0; ///< not 0: so many bytes from `at` sum to 0 modulo 256, and nothing else is asked
};

struct format {
    std::string_view name{}; ///< for command lines: lower-case letters and digits
    std::string_view title{}; ///< for people
    std::string_view document{}; ///< the public document and its revision
    std::size_t least = 1; ///< a shorter image is not recognised
    std::size_t length = 0; ///< of the whole contents; 0: the rows say
    std::span<const signature> signatures{}; ///< all must hold
    std::span<const signature> otherwise{}; ///< or all of these, when there are any
    rowList rows{};
};

} // namespace kest::contents
