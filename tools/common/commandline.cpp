#include "tools/common/commandline.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

#include "base/guess.h"

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

/// The long options that a command takes, its own and those of the commands above it.
std::vector<std::string> optionsOf(const CLI::App* app)
{
    std::vector<std::string> names;
    for (; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option* option : app->get_options()) {
            const bool isListed = !option->get_group().empty();
            for (const std::string& name : isListed ? option->get_lnames() : std::vector<std::string>{}) {
                names.push_back("--" + name);
            }
        }
    }
    return names;
}

const CLI::App* deepest(const CLI::App& app)
{
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? &app : deepest(*chosen.front());
}

/// @return "--length" of "--length=4"
std::string optionName(const std::string& word) { return word.substr(0, word.find('=')); }

bool isOptionOf(const CLI::App* app, const std::string& word)
{
    const auto known = optionsOf(app);
    return std::find(known.begin(), known.end(), optionName(word)) != known.end();
}

/// The complaint about words that nothing takes. An option is more to blame than the words behind it.
std::string unexpected(const CLI::App& app, const std::string& said)
{
    const std::vector<std::string> words = app.remaining(true);
    if (words.empty()) {
        return said;
    }
    const auto option =
        std::find_if(words.begin(), words.end(), [](const auto& word) { return word.compare(0, 1, "-") == 0; });
    const std::string& word = option == words.end() ? words.front() : *option;
    if (isOptionOf(deepest(app), word)) {
        return "'" + optionName(word) + "' stands in the wrong place: it is an option of '" + deepestCommand(app) + "'";
    }
    return "'" + word + "' was not expected";
}

/// The complaint about how often an option is given, or about a value that it lacks.
std::string mismatched(const std::string& said)
{
    const std::string name = said.substr(0, said.find(": "));
    if (said.find(": At Most 1 ") != std::string::npos) {
        return name + " can be given only once";
    }
    return said.find(" missing", name.size()) != std::string::npos ? name + ": the value is missing" : said;
}

/// The complaint of the parser, in the words of the documents. Where a subcommand is missing, a word that is none is a
/// better complaint.
std::string complaintOf(const CLI::App& app, const CLI::ParseError& why)
{
    std::string said = why.what();
    const auto kind = static_cast<CLI::ExitCodes>(why.get_exit_code());
    if (kind == CLI::ExitCodes::ExtrasError) {
        return unexpected(app, said);
    }
    if (kind == CLI::ExitCodes::ArgumentMismatch) {
        return mismatched(said);
    }
    if (said.find("subcommand") == std::string::npos) {
        return said;
    }
    for (const std::string& word : app.remaining(true)) {
        if (word.compare(0, 1, "-") != 0) {
            return "there is no '" + word + "'";
        }
    }
    return app.get_subcommands().empty() ? "AREA is required" : "VERB is required";
}

std::vector<std::string> verbsOf(const CLI::App& app)
{
    std::vector<std::string> verbs;
    for (const CLI::App* verb : app.get_subcommands([](const CLI::App*) { return true; })) {
        verbs.push_back(verb->get_name());
    }
    return verbs;
}

/// The words of a command line before the one that is being typed.
struct unfinished {
    const CLI::App* at; ///< the subcommand that they name
    std::size_t arguments = 0; ///< of it
    const CLI::Option* awaiting = nullptr; ///< its value is the next word
    bool argumentsAlone = false; ///< behind "--"

    void take(const std::string& word)
    {
        if (awaiting != nullptr) {
            awaiting = nullptr;
        } else if (!argumentsAlone && word == "--") {
            argumentsAlone = true;
        } else if (!argumentsAlone && word.size() > 1 && word[0] == '-') {
            const CLI::Option* given = option(word);
            awaiting = given != nullptr && given->get_items_expected_max() > 0 ? given : nullptr;
        } else if (const CLI::App* below = arguments == 0 ? verb(word) : nullptr) {
            at = below;
        } else {
            ++arguments;
        }
    }
    /// The subcommand of a name; null: none.
    [[nodiscard]] const CLI::App* verb(const std::string& name) const
    {
        for (const CLI::App* each : at->get_subcommands([](const CLI::App*) { return true; })) {
            if (each->get_name() == name) {
                return each;
            }
        }
        return nullptr;
    }
    /// The option of a name, "-o" or "--output", also of the commands above; null: none.
    [[nodiscard]] const CLI::Option* option(const std::string& name) const
    {
        for (const CLI::App* app = at; app != nullptr; app = app->get_parent()) {
            if (const CLI::Option* found = app->get_option_no_throw(name)) {
                return found;
            }
        }
        return nullptr;
    }
    /// The name of the argument that is due; the last one may be given several times.
    [[nodiscard]] std::string argument() const
    {
        std::string name;
        std::size_t before = 0;
        for (const CLI::Option* each : at->get_options()) {
            if (each->get_positional() && before <= arguments) {
                name = each->get_name(true);
                before += each->get_items_expected_max() > 1 ? arguments + 1 : 1;
            }
        }
        return before > arguments ? name : "";
    }
};

/// A guess at the first word that the parser did not know: an option, an area or a verb.
std::string meantBy(const CLI::App& app)
{
    const CLI::App* at = deepest(app);
    for (const std::string& word : app.remaining(true)) {
        if (word.compare(0, 2, "--") == 0) {
            return isOptionOf(at, word) ? "" : didYouMean(optionName(word), optionsOf(at));
        }
        if (word.compare(0, 1, "-") != 0) {
            return didYouMean(word, verbsOf(*at));
        }
    }
    return {};
}

/// The words behind the program's name as the parser takes them, the last one first. Of "--length=" the parser would take
/// the next word as the value: here its value is an empty word.
std::vector<std::string> parserWords(const std::vector<std::string>& words)
{
    std::vector<std::string> taken;
    bool optionsToo = true;
    for (const std::string& word : words) {
        optionsToo = optionsToo && word != "--";
        const bool endsEmpty = optionsToo && word.compare(0, 2, "--") == 0 && word.find('=') == word.size() - 1;
        taken.push_back(endsEmpty ? word.substr(0, word.size() - 1) : word);
        if (endsEmpty) {
            taken.emplace_back();
        }
    }
    std::reverse(taken.begin(), taken.end());
    return taken;
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
        m_app->parse(parserWords(std::vector<std::string>(words + 1, words + count)));
    } catch (const CLI::ParseError& end) {
        if (end.get_exit_code() != 0) {
            result.wrong = true;
            result.complaint = complaintOf(*m_app, end);
            result.meant = meantBy(*m_app);
            result.command = deepestCommand(*m_app);
            return result;
        }
        std::ostringstream text;
        m_app->exit(end, text, text);
        result.help = text.str();
    }
    return result;
}

commandLine::completion commandLine::complete(const std::vector<std::string>& words) const
{
    const std::string last = words.empty() ? "" : words.back();
    unfinished typed{m_app.get()};
    for (std::size_t at = 0; at + 1 < words.size(); ++at) {
        typed.take(words[at]);
    }
    completion due;
    const std::size_t equals = last.find('=');
    if (typed.awaiting != nullptr) {
        due.value = typed.awaiting->get_type_name();
    } else if (last.compare(0, 2, "--") == 0 && equals != std::string::npos) {
        const CLI::Option* option = typed.option(last.substr(0, equals));
        due.value = option == nullptr ? "" : option->get_type_name();
        due.before = last.substr(0, equals + 1);
    } else if (last.compare(0, 1, "-") == 0) {
        due.words = optionsOf(typed.at);
    } else if (typed.arguments == 0) {
        due.words = verbsOf(*typed.at);
    }
    const bool isArgument = typed.awaiting == nullptr && last.compare(0, 1, "-") != 0;
    if (isArgument && due.words.empty()) {
        due.value = typed.argument();
    }
    return due;
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
