#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <array>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/store.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"
#include "tools/common/startup.h"
#include "tools/kestctl/commands.h"
#include "tools/kestctl/context.h"

namespace
{

using namespace kest::tools;

KEST_STARTS_FIRST;

constexpr std::array areas{addSeeprom,  addCopy,    addMessage, addPort,   addDetect, addThermal, addScan,
                           addTopology, addDevices, addReset,   addErrors, addTrace,  addSim};

constexpr const char* about =
    "Reads and drives IIC devices: serial EEPROMs, LED drivers, I/O expanders,\nsensors, hubs.";

constexpr const char* footer = R"(DEVICE is a name or number of the device table ('kestctl devices') or a device
text, whose types, addresses and ports are hexadecimal:
  PATH,NODE,TYPE,ADDRESS                  sim:planar,L,2C0256,A0
  PATH,NODE,922,HUB,PORT,TYPE,ADDRESS     /dev/i2c-1,L,922,80,3,2C0128,A2
PATH is /dev/i2c-N or sim:BUS; NODE is L (local) or 0 to 7. Addresses are in the
8-bit form: A0 is the chip that other tools call 0x50.
Types: 1C0002 24C02, 2C0032 24C32, 2C0064 24C64, 2C0128 24C128, 2C0256 24C256,
2C0512 24C512, 9551 9552 9554 9555 PCA955x, 75 LM75, 92 LM92, 922 hub.

Try it without hardware:
  kestctl sim new demo && export KEST_CONFIG=$PWD/demo/kest.toml
  kestctl scan sim:planar
  kestctl seeprom read planar-vpd --length 64
  kestctl detect planar-vpd
  kestctl thermal read inlet-temp

Exit codes: 0 done, 1 failed, 2 wrong use, 3 refused (not permitted or not
confirmed), 4 device absent, 5 verify failed, 6 busy.)";

/// Breaks descriptions between words, so that help fits a terminal.
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

private:
    static constexpr std::size_t nameColumns = 22;
    static constexpr std::size_t textColumns = 80 - nameColumns;

    static std::string wrapped(const std::string& text)
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
};

void setUp(CLI::App& app, context& shared)
{
    app.formatter(std::make_shared<narrowFormatter>());
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(footer);
    app.set_version_flag("--version", "kestctl " KEST_VERSION, "show the version and end");
    app.add_flag("--json", shared.json, "JSON on standard output instead of text");
    app.add_option_function<std::string>(
           "--config", [](const std::string& file) { kest::host::useConfigurationFile(file); },
           "configuration to use instead of $KEST_CONFIG or /etc/kest/kest.toml")
        ->type_name("FILE");
    for (const auto& add : areas) {
        add(app, shared);
    }
}

/// The subcommand that the wrong use was about, for the hint: "kestctl port write".
std::string deepestCommand(const CLI::App& app)
{
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? app.get_name() : app.get_name() + " " + deepestCommand(*chosen.front());
}

/// What the parser complains about. Where it misses a subcommand, a word that is none says more.
std::string complaint(const CLI::App& app, const CLI::ParseError& why)
{
    for (const std::string& word : app.remaining(true)) {
        if (!word.starts_with('-') && std::string(why.what()).find("subcommand") != std::string::npos) {
            return "there is no '" + word + "'";
        }
    }
    return why.what();
}

/// One line that people can read, in the place of an entry's JSON. The failure itself, with its log id, is told at the
/// end.
void tellSpooledEntry(const std::string& problem)
{
    std::fputs((failureLine("kestctl", {.what = "the error log can't be used: " + problem,
                                        .tryThis = "entries wait in its spool"}) +
                "\n")
                   .c_str(),
               stderr);
}

int parseAndRun(int count, char** words, context& shared)
{
    CLI::App app(about, "kestctl");
    setUp(app, shared);
    try {
        app.parse(count, words);
    } catch (const CLI::ParseError& end) {
        if (end.get_exit_code() != 0) {
            throw wrongUse(complaint(app, end), "'" + deepestCommand(app) + " --help' shows how");
        }
        std::ostringstream text;
        app.exit(end, text, text);
        standardOutput().text(text.str());
        return exitDone;
    }
    if (shared.needsConfiguration && !kest::host::configurationError().empty()) {
        throw wrongUse(kest::host::configurationError(), "repair it, or name another file by --config");
    }
    return shared.action();
}

} // namespace

int main(int count, char** words)
{
    context shared;
    kest::host::tellSpooled(tellSpooledEntry);
    return runGuarded("kestctl", shared.json, [&] { return parseAndRun(count, words, shared); });
}
