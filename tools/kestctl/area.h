/// Helpers of the areas for what they add to the command line.
#pragma once

#include <memory>

#include "tools/common/commandline.h"
#include "tools/common/json.h"
#include "tools/kestctl/context.h"

namespace kest::tools
{

/// An area with verbs.
[[nodiscard]] command addArea(command program, const std::string& name, const std::string& help);

/// A verb, or an area without verbs of its own. @param more  shown below the options
[[nodiscard]] command addVerb(command area, const std::string& name, const std::string& help,
                              const std::string& more = {});

/// What the verb runs, with its options.
template <typename Options>
void runs(command verb, context& shared, const std::shared_ptr<Options>& options,
          int (*run)(const context&, const Options&))
{
    verb.whenGiven(
        [&shared, options, run] { shared.action = [&shared, options, run] { return run(shared, *options); }; });
}

/// What a verb without options runs.
void runs(command verb, context& shared, int (*run)(const context&));

/// The option --dry-run of a verb that changes anything: a device, a file, the machine, the error log.
void addDryRun(command verb);

/// In a dry run adds the field that says so.
void addDryRunField(jsonValue& result);

/// Reports what a dry run would have done: JSON with the field that says so, or a line of text.
void reportWould(const context& shared, jsonValue json, const std::string& text);

/// The argument DEVICE.
void addDevice(command verb, std::string& device);

/// The argument BUS and the option --node.
void addBus(command verb, std::string& bus, std::string& node);

/// The option --node.
void addNode(command verb, std::string& node);

/// The option --speed. @param otherwise  the speed without it, for the help: "default 400"
void addSpeed(command verb, std::uint32_t& speedKhz, const std::string& otherwise);

/// The option --voted.
void addVotes(command verb, std::uint32_t& votes);

/// The option --wait. @param waitNs  keeps its value without it
void addWait(command verb, std::uint64_t& waitNs);

/// An option that takes a time of a millisecond or more, in ms where it has no unit. A part of a millisecond counts as a
/// whole one.
void addMilliseconds(command verb, const std::string& name, std::uint32_t& milliseconds, const std::string& help,
                     std::uint32_t most);

constexpr const char* usualSpeed = "default 400";

/// What --force does in every verb that uses hardware, for the help.
inline const std::string forcedType = "take the type given, even if the device table has another";

} // namespace kest::tools
