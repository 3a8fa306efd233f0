/// A JSON text that has been read, to look things up in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kest::host
{

/// All values of a JSON text, in their order: no level of lists and objects is too deep for it.
class jsonDocument
{
public:
    enum class kind : std::uint8_t {
        null,
        truth,
        number, ///< a whole one
        realNumber,
        text,
        list,
        object,
    };

private:
    struct node {
        kind what = kind::null;
        std::string name; ///< of the field whose value it is
        std::string text;
        std::uint64_t number = 0;
        std::size_t end = 0; ///< index behind it and all that it holds
    };

public:
    class value
    {
    public:
        [[nodiscard]] kind what() const { return here().what; }
        [[nodiscard]] bool truth() const { return here().number != 0; }
        /// A whole number; a negative one as its two's complement.
        [[nodiscard]] std::uint64_t number() const { return here().number; }
        [[nodiscard]] const std::string& text() const { return here().text; }
        [[nodiscard]] std::vector<value> items() const;
        /// @return the value of an object's field, of the last one where several have the name
        [[nodiscard]] std::optional<value> field(std::string_view name) const;

    private:
        friend class jsonDocument;
        value(const jsonDocument& document, std::size_t index) : m_document(&document), m_index(index) {}
        [[nodiscard]] const node& here() const { return m_document->m_nodes[m_index]; }

        const jsonDocument* m_document;
        std::size_t m_index;
    };

    /// @return nothing when the text is not JSON
    static std::optional<jsonDocument> read(std::string_view text);

    [[nodiscard]] value root() const { return {*this, 0}; }

private:
    friend class documentBuilder;
    std::vector<node> m_nodes;
};

} // namespace kest::host
