#include "tools/kestctl/commands.h"
#include "tools/kestctl/message.h"
#include "tools/kestctl/options.h"

namespace kest::tools
{
namespace
{

CLI::App* addMessageVerb(CLI::App* area, context& shared, const char* name, const char* help,
                         const std::shared_ptr<messageOptions>& options,
                         int (*run)(const context&, const messageOptions&))
{
    CLI::App* verb = addVerb(area, name, help);
    verb->add_option("--socket", options->socket, "the service's socket (default: that of the configuration)")
        ->type_name("PATH");
    verb->add_option("--timeout", options->timeout, "longest wait for the reply, in seconds (default 60)")
        ->type_name("S");
    runs(verb, shared, options, run);
    return verb;
}

} // namespace

void addMessage(CLI::App& app, context& shared)
{
    CLI::App* area = addArea(app, "message", "requests through the message service, kestd");
    const auto read = std::make_shared<messageOptions>();
    CLI::App* verb = addMessageVerb(area, shared, "read", "read a SEEPROM by message", read, runMessageRead);
    verb->add_option("DEVICE", read->device, "name, number or device text")->required();
    verb->add_option("--offset", read->offset, "first byte, counted from 0 (default 0)")->type_name("N");
    verb->add_option("--length", read->length, "how many bytes (default: up to the end, at most 65536)")
        ->type_name("N");
    verb->add_option("-o,--output", read->output, "save the raw bytes in FILE, - for standard output")
        ->type_name("FILE");
    verb->add_flag("--force", read->force, "raw bytes even to a terminal; also through a hub");

    const auto write = std::make_shared<messageOptions>();
    verb = addMessageVerb(area, shared, "write", "write a SEEPROM by message", write, runMessageWrite);
    verb->add_option("DEVICE", write->device, "name, number or device text")->required();
    verb->add_option("-i,--input", write->input, "bytes to write from FILE, - for standard input")->type_name("FILE");
    verb->add_option("--hex", write->hex, "bytes to write as hexadecimal digits")->type_name("DIGITS");
    verb->add_option("--offset", write->offset, "first byte, counted from 0 (default 0)")->type_name("N");
    verb->add_flag("-y,--yes", write->yes, "do not ask; needed without a terminal");
    verb->add_flag("--force", write->force, "write also where a driver of the kernel has the device");

    const auto location = std::make_shared<messageOptions>();
    verb = addMessageVerb(area, shared, "location", "show the device text of a device number", location,
                          runMessageLocation);
    verb->add_option("NUMBER", location->device, "device number")->required();
    addNumber(verb, "--position", location->position, "which of the places the number can have (default 0)");
}

} // namespace kest::tools
