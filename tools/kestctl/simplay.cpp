#include "tools/kestctl/simplay.h"

#include <stdexcept>
#include <string>
#include <system_error>

#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/machine.h"
#include "tools/common/number.h"
#include "tools/common/preferences.h"
#include "tools/kestctl/area.h"
#include "tools/kestctl/simbus.h"

namespace kest::tools
{
namespace
{

struct playOptions {
    std::string file;
};

int runSimPlay(const context& shared, const playOptions& options)
{
    constexpr std::size_t longestScenario = 1 << 20;
    const auto bytes = readInput(options.file, longestScenario);
    const auto machine = openConfiguredMachine();
    try {
        const std::string scenario(bytes.begin(), bytes.end());
        if (preferred().dryRun) {
            const std::size_t found = machine->checkScenario(scenario, options.file);
            reportWould(shared, {{"events", found}}, countText(found, "event") + " would come");
            return exitDone;
        }
        const std::size_t events = machine->play(scenario, options.file);
        reportDone(shared, {{"events", events}}, countText(events, "event") + " to come");
    } catch (const std::system_error& why) {
        throw machineFailure(why);
    } catch (const std::runtime_error& why) {
        throw wrongUse(why.what(), "nothing has changed");
    }
    return exitDone;
}

} // namespace

void addSimPlay(command area, context& shared)
{
    const auto options = std::make_shared<playOptions>();
    command play = addVerb(area, "play", "let what a scenario lists happen as bus time passes",
                           "FILE has a table for each event, by bus time or number of transactions from now:\n"
                           "  [[event]]\n"
                           "  at_ms = 12.5          # or transaction = 40: before that one\n"
                           "  bus = \"planar\"        # with node = NAME; none: every bus\n"
                           "  do = \"remove\"         # insert, fault, temperature, power-cut\n"
                           "  address = 0xA0        # and hub, port\n"
                           "A file without events ends the scenario before.");
    play.text("FILE", options->file, "the scenario; - for standard input", "").required();
    addDryRun(play);
    runs(play, shared, options, runSimPlay);
}

} // namespace kest::tools
