/// Helpers for the sources that spell options. Includes the option parser: for those sources alone.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "tools/common/number.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

/// An option or argument that takes a number, decimal or after 0x, up to `maximum`.
template <typename Number>
CLI::Option* addNumber(CLI::App* verb, const std::string& name, Number& target, const std::string& help,
                       std::uint64_t minimum = 0, std::uint64_t maximum = std::numeric_limits<Number>::max())
{
    return verb
        ->add_option_function<std::string>(
            name,
            [&target, name, minimum, maximum](const std::string& text) {
                target = static_cast<Number>(parseNumber(text, name, maximum, minimum));
            },
            help)
        ->type_name("N");
}

/// An area without verbs of its own, or a verb: what it runs, with its options.
template <typename Options>
void runs(CLI::App* verb, context& shared, const std::shared_ptr<Options>& options,
          int (*run)(const context&, const Options&))
{
    verb->callback(
        [&shared, options, run] { shared.action = [&shared, options, run] { return run(shared, *options); }; });
}

/// An area with verbs.
inline CLI::App* addArea(CLI::App& app, const std::string& name, const std::string& help)
{
    CLI::App* area = app.add_subcommand(name, help);
    area->require_subcommand(1)->fallthrough();
    return area;
}

inline CLI::App* addVerb(CLI::App* area, const std::string& name, const std::string& help, const std::string& more = {})
{
    CLI::App* verb = area->add_subcommand(name, help);
    verb->fallthrough();
    verb->footer(more + (more.empty() ? "" : "\n") + "--json and --config FILE work here, too.");
    return verb;
}

} // namespace kest::tools
