#include "tools/common/command.h"

#include <CLI/App.hpp>
#include <utility>

namespace kest::tools
{
namespace
{

/// Makes it an option or argument with a value. An empty value, as of a variable that a script did not set, is refused:
/// many verbs would take it as "not given".
option valued(CLI::Option& made, const std::string& valueName)
{
    made.type_name(valueName)->check(
        [](const std::string& text) { return std::string(text.empty() ? "the value is empty" : ""); });
    return option(made);
}

} // namespace

option& option::required()
{
    m_made->required();
    return *this;
}

option& option::needs(const option& other)
{
    m_made->needs(other.m_made);
    return *this;
}

option& option::hidden()
{
    m_made->group("");
    return *this;
}

bool option::isGiven() const { return m_made->count() > 0; }

command command::add(const std::string& name, const std::string& help)
{
    return command(*m_made->add_subcommand(name, help));
}

void command::footer(const std::string& text) { m_made->footer(text); }
void command::requireSubcommand() { m_made->require_subcommand(1); }
void command::fallThrough() { m_made->fallthrough(); }
void command::whenGiven(std::function<void()> action) { m_made->callback(std::move(action)); }

option command::text(const std::string& names, std::string& target, const std::string& help,
                     const std::string& valueName)
{
    return valued(*m_made->add_option(names, target, help), valueName);
}

option command::texts(const std::string& names, std::vector<std::string>& target, const std::string& help,
                      const std::string& valueName)
{
    return valued(*m_made->add_option(names, target, help), valueName);
}

option command::real(const std::string& names, double& target, const std::string& help, const std::string& valueName)
{
    return valued(*m_made->add_option(names, target, help), valueName);
}

option command::read(const std::string& names, textReader reader, const std::string& help, const std::string& valueName)
{
    return valued(*m_made->add_option_function<std::string>(names, reader, help), valueName);
}

option command::checked(const std::string& names, std::string& target, const std::string& help,
                        const std::string& valueName, std::function<std::string(const std::string& text)> complaint)
{
    return valued(*m_made->add_option(names, target, help)->check(std::move(complaint)), valueName);
}

option command::flag(const std::string& names, bool& target, const std::string& help)
{
    return option(*m_made->add_flag(names, target, help));
}

option command::countedFlag(const std::string& names, unsigned& target, const std::string& help)
{
    return option(*m_made->add_flag(names, target, help));
}

option command::clearingFlag(const std::string& names, bool& target, const std::string& help)
{
    return option(*m_made->add_flag_callback(
        names, [&target] { target = false; }, help));
}

option command::actingFlag(const std::string& names, std::function<void()> act, const std::string& help)
{
    return option(*m_made->add_flag_callback(names, std::move(act), help));
}

void command::versionFlag(const std::string& text)
{
    m_made->set_version_flag("--version", text, "print the version and exit");
}

} // namespace kest::tools
