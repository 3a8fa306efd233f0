/// Helpers for the sources that spell options. Includes the option parser: for those sources alone.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdint>
#include <fmt/format.h>
#include <limits>
#include <memory>
#include <string>

#include "tools/common/failure.h"
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

/// The option --speed. Faster modes of the bus than fast-mode plus begin with a byte of their own, which nothing here
/// sends.
inline CLI::Option* addSpeed(CLI::App* verb, std::uint32_t& target, const std::string& otherwise)
{
    const auto read = [&target](const std::string& text) {
        constexpr std::uint64_t fastestKhz = 1000;
        const std::uint64_t khz = parseNumber(text, "--speed", std::numeric_limits<std::uint32_t>::max());
        if (khz == 0 || khz > fastestKhz) {
            throw wrongUse(fmt::format("--speed {}: expected 1 to {} kHz; faster modes of the bus are not served", text,
                                       fastestKhz));
        }
        target = static_cast<std::uint32_t>(khz);
    };
    return verb->add_option_function<std::string>("--speed", read, "bus speed in kHz; " + otherwise)->type_name("N");
}

/// The option --voted.
inline CLI::Option* addVotes(CLI::App* verb, std::uint32_t& target)
{
    const auto read = [&target](const std::string& text) {
        constexpr std::uint64_t mostReads = 99;
        const std::uint64_t reads = parseNumber(text, "--voted", mostReads, 1);
        if (reads == 2) {
            throw wrongUse("--voted 2: two reads that differ have no majority; take 3 or more");
        }
        target = static_cast<std::uint32_t>(reads);
    };
    return verb->add_option_function<std::string>("--voted", read, "read N times and take the majority of each byte")
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
