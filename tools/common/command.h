/// Commands and options of the programs. The option parser itself takes long to compile, so only this unit and
/// `commandline` include it.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tools/common/number.h"

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace kest::tools
{

/// An option or argument that a command has.
class option
{
public:
    explicit option(CLI::Option& made) : m_made(&made) {}

    /// The command requires it.
    option& required();
    /// It requires the other one.
    option& needs(const option& other);
    /// The help does not list it.
    option& hidden();
    /// Whether the command line has it, once that has been parsed.
    [[nodiscard]] bool isGiven() const;

private:
    CLI::Option* m_made;
};

/// Reads the text of an option. Throws a `failure` (exit code 2) when the text is wrong.
using textReader = std::function<void(const std::string& text)>;

/// A program, or a subcommand of it. Targets of options must live until the command line has been parsed. An option's
/// names are "--output" or "-o,--output"; an argument's name is one word.
class command
{
public:
    explicit command(CLI::App& made) : m_made(&made) {}

    /// A subcommand.
    command add(const std::string& name, const std::string& help);
    /// Shown below the options.
    void footer(const std::string& text);
    /// One subcommand must be given.
    void requireSubcommand();
    /// Options that the command does not know are looked up in the command above it.
    void fallThrough();
    /// Called when the command line names this subcommand, once all of it has been read.
    void whenGiven(std::function<void()> action);

    /// @param valueName  the value in the help; empty for an argument, whose name says enough
    option text(const std::string& names, std::string& target, const std::string& help,
                const std::string& valueName = {});
    /// An argument that can be given several times.
    option texts(const std::string& names, std::vector<std::string>& target, const std::string& help,
                 const std::string& valueName);
    option real(const std::string& names, double& target, const std::string& help, const std::string& valueName);
    option read(const std::string& names, textReader reader, const std::string& help, const std::string& valueName);
    /// @param complaint  returns what is wrong with a text, empty when nothing is
    option checked(const std::string& names, std::string& target, const std::string& help, const std::string& valueName,
                   std::function<std::string(const std::string& text)> complaint);
    option flag(const std::string& names, bool& target, const std::string& help);
    /// A flag that counts how often it is given: -vv.
    option countedFlag(const std::string& names, unsigned& target, const std::string& help);
    /// A flag that clears its target.
    option clearingFlag(const std::string& names, bool& target, const std::string& help);
    /// A flag that calls a function.
    option actingFlag(const std::string& names, std::function<void()> act, const std::string& help);
    void versionFlag(const std::string& text);

    /// A number, decimal or hexadecimal after 0x.
    template <typename Number>
    option number(const std::string& name, Number& target, const std::string& help, std::uint64_t minimum = 0,
                  std::uint64_t maximum = std::numeric_limits<Number>::max())
    {
        return read(
            name,
            [&target, name, minimum, maximum](const std::string& text) {
                target = static_cast<Number>(parseNumber(text, name, maximum, minimum));
            },
            help, "N");
    }

private:
    CLI::App* m_made;
};

} // namespace kest::tools
