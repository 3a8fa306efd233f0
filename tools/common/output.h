/// Standard output of the programs: text or JSON, colour on a terminal only, and no byte lost without a word.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "tools/common/json.h"

namespace kest::tools
{

enum class colour {
    none,
    bold,
    red,
    green,
    yellow,
    faint
};

/// Standard output. Every call throws a `failure` (exit code 1) when the bytes can't be written, as on a full disk. It
/// is no failure when nobody reads any more, as with `| head`: the rest is dropped, and the command ends as it would
/// have.
class output
{
public:
    void text(std::string_view what);
    void bytes(std::span<const unsigned char> what);
    /// One JSON value and a line end.
    /// @param indent  columns for each level; -1 for one line
    void json(const jsonValue& value, int indent = 2);
    void flush();

    [[nodiscard]] bool terminal() const;
    /// `what` in a colour, or as it is when the user wants none: by --colour, else by $NO_COLOR or $CLICOLOR_FORCE, else
    /// because standard output is no terminal, or one without colours (TERM=dumb).
    [[nodiscard]] std::string paint(colour shade, std::string_view what) const;
    /// Further output is lost: nobody reads, or a write failed.
    [[nodiscard]] bool broken() const { return m_broken; }

private:
    void check(bool good);
    bool m_broken = false;
};

/// The process's standard output. The first call makes writes to closed pipes fail with EPIPE instead of ending
/// the process.
output& standardOutput();

/// Prints "kestctl: LINE", escaped, on standard error, unless the user wants results alone (-q): what helps to follow the
/// work, and leaves its result as it is.
void note(const std::string& line);

/// Whether $TERM names a terminal that takes escape sequences.
[[nodiscard]] bool takesSequences();

/// Whether standard input and standard error are a terminal, so that a question can be asked.
[[nodiscard]] bool canAsk();

/// Asks before something that can do harm. @param yes  already answered on the command line
/// Throws a `failure`: 3 when the answer is not yes, or there is nobody to ask; an interruption() when a signal comes.
void confirm(const std::string& question, bool yes);

} // namespace kest::tools
