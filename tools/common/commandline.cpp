#include "tools/common/commandline.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <sstream>
#include <utility>

namespace kest::tools
{
namespace
{

constexpr std::size_t helpColumns = 80;
constexpr std::size_t nameColumns = 22;
constexpr std::size_t textColumns = helpColumns - nameColumns;

/// Breaks a text between words, so that help fits a terminal.
std::string wrapped(const std::string& text)
{
    std::istringstream words(text);
    std::string result;
    std::size_t column = 0;
    for (std::string word; words >> word;) {
        const bool fits = column + 1 + word.size() <= textColumns;
        result += (column == 0 ? "" : fits ? " " : "\n") + word;
        column = word.size() + (fits && column != 0 ? column + 1 : 0);
    }
    return result;
}

class narrowFormatter : public CLI::Formatter
{
public:
    narrowFormatter()
    {
        column_width(nameColumns);
        // the usage line has the others in brackets
        label("REQUIRED", "");
    }
    std::string make_option_desc(const CLI::Option* option) const override
    {
        return wrapped(Formatter::make_option_desc(option));
    }
    std::string make_subcommand(const CLI::App* verb) const override
    {
        std::ostringstream text;
        CLI::detail::format_help(text, verb->get_name(), wrapped(verb->get_description()), nameColumns);
        return text.str();
    }
};

/// The subcommand that a wrong use was about.
std::string deepestCommand(const CLI::App& app)
{
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? app.get_name() : app.get_name() + " " + deepestCommand(*chosen.front());
}

/// The complaint of the parser. Where a subcommand is missing, a word that is none is a better complaint.
std::string complaintOf(const CLI::App& app, const CLI::ParseError& why)
{
    std::string said = why.what();
    if (said.find("subcommand") == std::string::npos) {
        return said;
    }
    for (const std::string& word : app.remaining(true)) {
        if (word.compare(0, 1, "-") != 0) {
            return "there is no '" + word + "'";
        }
    }
    return said;
}

} // namespace

commandLine::commandLine(const std::string& about, const std::string& name)
    : m_app(std::make_unique<CLI::App>(about, name))
{
    m_app->set_help_flag("-h,--help", "print this help and exit");
}

commandLine::~commandLine() = default;

void commandLine::useNarrowHelp() { m_app->formatter(std::make_shared<narrowFormatter>()); }

commandLine::outcome commandLine::parse(int count, char** words)
{
    outcome result;
    try {
        m_app->parse(count, words);
    } catch (const CLI::ParseError& end) {
        if (end.get_exit_code() != 0) {
            result.wrong = true;
            result.complaint = complaintOf(*m_app, end);
            result.command = deepestCommand(*m_app);
            return result;
        }
        std::ostringstream text;
        m_app->exit(end, text, text);
        result.help = text.str();
    }
    return result;
}

std::optional<int> commandLine::parseOrExit(int count, char** words, int wrongUseCode)
{
    try {
        m_app->parse(count, words);
        return std::nullopt;
    } catch (const CLI::ParseError& end) {
        return m_app->exit(end) == 0 ? 0 : wrongUseCode;
    }
}

} // namespace kest::tools
