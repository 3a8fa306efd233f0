/// Command lines of the programs: their help and their complaints.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/command.h"

namespace kest::tools
{

/// A program's command line.
class commandLine
{
public:
    /// @param name  of the program in its help; empty: as it was called
    explicit commandLine(const std::string& about, const std::string& name = {});
    commandLine(const commandLine&) = delete;
    commandLine& operator=(const commandLine&) = delete;
    ~commandLine();

    [[nodiscard]] command root() { return command(*m_app); }
    /// Help for 80 columns, with the names in a narrow column.
    void useNarrowHelp();

    /// The result of parsing a command line.
    struct outcome {
        bool wrong = false;
        std::string complaint; ///< what is wrong; without a line end
        std::string meant; ///< "did you mean 'detect'?"; empty: nothing is near
        std::string command; ///< the subcommand that it is about: "kestctl port write"
        std::optional<std::string> help; ///< help or version, when the user asked for that instead of a run
    };
    /// Fills in the targets of the options. Passes on what readers throw.
    [[nodiscard]] outcome parse(int count, char** words);
    /// What can stand in the place of the last word of an unfinished command line.
    struct completion {
        std::vector<std::string> words; ///< areas, verbs or options
        std::string value; ///< name, in the help, of an option's value or an argument; empty: neither is due
        std::string before; ///< of the last word, what stands before that value: "--mode="
    };
    /// @param words  behind the program's name
    [[nodiscard]] completion complete(const std::vector<std::string>& words) const;
    /// The same as parse() for a program without subcommands, in the words of the option parser.
    /// @return the exit code to end with, once help or complaint has been printed; none when the program is to run
    [[nodiscard]] std::optional<int> parseOrExit(int count, char** words, int wrongUseCode);

private:
    std::unique_ptr<CLI::App> m_app;
};

} // namespace kest::tools
