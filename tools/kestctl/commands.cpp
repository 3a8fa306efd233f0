#include "tools/kestctl/commands.h"

#include "tools/kestctl/busareas.h"
#include "tools/kestctl/options.h"
#include "tools/kestctl/port.h"
#include "tools/kestctl/records.h"
#include "tools/kestctl/sim.h"
#include "tools/kestctl/thermal.h"

namespace kest::tools
{
namespace
{

void addBus(CLI::App* verb, std::string& bus, std::string& node)
{
    verb->add_option("BUS", bus, "/dev/i2c-N, sim:NAME, or a device on the bus")->required()->type_name("");
    verb->add_option("--node", node, "node of the bus: L (local) or 0 to 7")
        ->type_name("NODE")
        ->check([](const std::string& text) {
            return text == "L" || (text.size() == 1 && text[0] >= '0' && text[0] <= '7') ? "" : "expected L or 0 to 7";
        });
}

void addDeviceArgument(CLI::App* verb, std::string& device)
{
    verb->add_option("DEVICE", device, "name, number or device text")->required()->type_name("");
}

void addFilter(CLI::App* verb, errorsFilter& filter)
{
    verb->add_option("--since", filter.since, "committed then or later: 2024-05-01, 2024-05-01T12:00:00Z, 15m, 2h, 7d")
        ->type_name("TIME");
    verb->add_option_function<std::string>(
            "--severity",
            [&filter](const std::string& text) {
                filter.severity = text == "recovered" ? 0x10U
                                  : text == "unrecovered"
                                      ? 0x20U
                                      : static_cast<std::uint32_t>(parseNumber(text, "--severity", 0xFF));
            },
            "recovered, unrecovered, or a number")
        ->type_name("NAME");
    verb->add_option_function<std::string>(
            "--component",
            [&filter](const std::string& text) {
                filter.component = static_cast<std::uint32_t>(parseNumber(text, "--component", 0xFFFF));
            },
            "made by this component; 0x1300 is this library")
        ->type_name("N");
    addNumber(verb, "--last", filter.limit, "the latest N alone", 1);
}

void addSimFaultAdd(CLI::App* fault, context& shared)
{
    const auto adding = std::make_shared<simFaultAddOptions>();
    CLI::App* add = addVerb(fault, "add", "add a fault; prints its number",
                            "Kinds, and what --value means:\n"
                            "  nack               the address is not acknowledged\n"
                            "  nack-data          data byte --byte of a write is not acknowledged\n"
                            "  hold-sda hold-scl  the line is held until a reset     resets that it outlasts\n"
                            "  short              a STOP in the middle of --byte\n"
                            "  arbitration        another controller wins at --byte\n"
                            "  corrupt            data byte --byte is changed        XOR mask, 0 is 0xFF\n"
                            "  stuck-write-cycle  the write cycle does not end       its ms, 0 for ever\n"
                            "  gone               the adapter is gone\n"
                            "  hub-status         a hub transfer ends with a status  the status\n"
                            "  hub-silent         the hub answers nothing\n"
                            "  hub-bad-first-byte a hub read begins with no status   that byte, 0 is 0xA5\n"
                            "  hub-hold-sda hub-hold-scl  the sub-bus is held        resets that it outlasts\n"
                            "It strikes at every matching transaction until cleared, unless told otherwise.\n"
                            "  kestctl sim fault add nack --bus planar --address 0xA0 --count 1");
    sim::machine::fault& what = adding->what;
    add->add_option("KIND", what.kind, "what happens, see below")->required()->type_name("");
    add->add_option_function<std::string>(
           "--bus", [adding](const std::string& name) { adding->bus = name; }, "on this bus alone")
        ->type_name("NAME");
    add->add_option_function<std::string>(
           "--address", [adding](const std::string& number) { adding->address = number; },
           "at this address alone, 8-bit form")
        ->type_name("N");
    add->add_option("--way", what.way, "read or write alone")->type_name("WAY");
    addNumber(add, "--nth", what.nth, "strike first at the Nth matching transaction", 1);
    addNumber(add, "--count", what.count, "strike N times", 1);
    add->add_option("--probability", what.probability, "strike so often, 0 to 1")->type_name("P");
    addNumber(add, "--seed", what.seed, "of the probability's random numbers");
    addNumber(add, "--value", what.value, "see the kinds");
    addNumber(add, "--byte", what.byte, "data byte it strikes at, from 0");
    add->add_flag("--until-reset", what.untilReset, "ends for good with a reset of the bus or hub");
    runs(add, shared, adding, runSimFaultAdd);
}

void addSimFault(CLI::App* area, context& shared)
{
    CLI::App* fault = addVerb(area, "fault", "make transactions fail");
    fault->require_subcommand(1);
    addSimFaultAdd(fault, shared);
    runs(addVerb(fault, "list", "list faults and how often they struck"), shared,
         std::make_shared<simFaultListOptions>(), runSimFaultList);
    const auto clearing = std::make_shared<simFaultClearOptions>();
    CLI::App* clear = addVerb(fault, "clear", "clear one fault, or all");
    clear
        ->add_option_function<std::string>(
            "N",
            [clearing](const std::string& text) {
                clearing->number = static_cast<std::uint32_t>(parseNumber(text, "fault", 0xFFFFFFFF));
            },
            "number of the fault; none: all")
        ->type_name("");
    runs(clear, shared, clearing, runSimFaultClear);
}

void addSimWave(CLI::App* area, context& shared)
{
    CLI::App* wave = addVerb(area, "wave", "record a bus's waveform as a VCD file (SCL, SDA)");
    wave->require_subcommand(1);
    const auto starting = std::make_shared<simWaveOptions>();
    CLI::App* start = addVerb(wave, "start", "record what all processes send until stopped");
    start->add_option("BUS", starting->bus, "name of the bus")->required()->type_name("");
    start->add_option("FILE", starting->file, "VCD file to write")->required()->type_name("");
    runs(start, shared, starting, runSimWaveStart);
    const auto stopping = std::make_shared<simWaveOptions>();
    CLI::App* stop = addVerb(wave, "stop", "end the recording");
    stop->add_option("BUS", stopping->bus, "name of the bus")->required()->type_name("");
    runs(stop, shared, stopping, runSimWaveStop);
}

} // namespace

void addScan(CLI::App& app, context& shared)
{
    const auto options = std::make_shared<scanOptions>();
    CLI::App* verb = addVerb(&app, "scan", "show what answers on a bus, as a grid",
                             "The grid has 7-bit addresses, as other tools show them; the list below it has\n"
                             "both forms. Marks: a number, something answers; --, nothing does; UU, a driver\n"
                             "of the kernel has it and it was not asked; ??, it can't be told. Nothing is\n"
                             "written to any device.");
    addBus(verb, options->bus, options->node);
    runs(verb, shared, options, runScan);
}

void addReset(CLI::App& app, context& shared)
{
    const auto options = std::make_shared<resetOptions>();
    CLI::App* verb = addVerb(&app, "reset", "free a held bus: nine clocks and a STOP, where the adapter can");
    addBus(verb, options->bus, options->node);
    runs(verb, shared, options, runReset);
}

void addTopology(CLI::App& app, context& shared)
{
    const auto options = std::make_shared<topologyOptions>();
    CLI::App* verb = addVerb(&app, "topology", "show buses, hubs with their ports, and devices as a tree",
                             "Devices come from the device table and the simulated machine.");
    verb->add_flag("--probe", options->probe, "ask each device whether it is there");
    runs(verb, shared, options, runTopology);
}

void addDevices(CLI::App& app, context& shared)
{
    const auto options = std::make_shared<devicesOptions>();
    runs(addVerb(&app, "devices", "list the device table: number, name, type, device text"), shared, options,
         runDevices);
}

void addDetect(CLI::App& app, context& shared)
{
    const auto options = std::make_shared<detectOptions>();
    CLI::App* verb = addVerb(&app, "detect", "tell whether devices are there",
                             "A SEEPROM behind a hub is detected by reading one byte of it. The exit code is 0\n"
                             "when all devices are there, else that of the first one that is not: 4 when\n"
                             "nothing answers.");
    verb->add_option("DEVICE", options->devices, "names, numbers or device texts; none: the whole device table")
        ->type_name("");
    addSpeed(verb, options->speedKhz, "the bus's own otherwise");
    runs(verb, shared, options, runDetect);
}

void addPort(CLI::App& app, context& shared)
{
    constexpr const char* defaultSpeed = "400 otherwise";
    CLI::App* area = addArea(app, "port", "pins of LED drivers and I/O expanders (PCA9551, 9552, 9554, 9555)");

    const auto reading = std::make_shared<portReadOptions>();
    CLI::App* read = addVerb(area, "read", "read the levels of the pins");
    addDeviceArgument(read, reading->device);
    addNumber(read, "--mask", reading->mask, "the pins that are wanted, as bits", 0, 0xFFFF);
    addSpeed(read, reading->speedKhz, defaultSpeed);
    runs(read, shared, reading, runPortRead);

    const auto writing = std::make_shared<portWriteOptions>();
    CLI::App* write = addVerb(area, "write", "change outputs; pins that are not chosen stay as they are",
                              "Operations: low, high; on (low), off (let go), blink0, blink1 for LED drivers;\n"
                              "copy sets the pins of --mask to the levels in BITS. A pin of an I/O expander\n"
                              "must be an output to show it. Pin 15 of a PCA9552 at C0 or C2 is the reset line\n"
                              "of two hubs: driving it asks first.\n"
                              "  kestctl port write panel-leds on --pins 0,3-5\n"
                              "  kestctl port write panel-leds copy 0x0A --mask 0x0F");
    addDeviceArgument(write, writing->device);
    write->add_option("OPERATION", writing->operation, "low, high, on, off, blink0, blink1 or copy")
        ->required()
        ->type_name("");
    write->add_option("BITS", writing->bits, "pins as bits, pin 0 in bit 0; for copy their levels")->type_name("");
    write->add_option("--pins", writing->pins, "pins as a list instead: 0,3-5")->type_name("LIST");
    write->add_option("--mask", writing->mask, "for copy: the pins to change, as bits; all otherwise")->type_name("N");
    write->add_flag("--yes", writing->yes, "drive a hub's reset line without asking");
    write->add_flag("--force", writing->force, "write also where a driver of the kernel has the device");
    addSpeed(write, writing->speedKhz, defaultSpeed);
    runs(write, shared, writing, runPortWrite);

    const auto configuring = std::make_shared<portConfigOptions>();
    CLI::App* config = addVerb(area, "config", "set pin directions, blink rates or polarity",
                               "Functions: input, output (pins) and polarity0, polarity1 (a byte) of I/O\n"
                               "expanders; prescaler0, duty0, prescaler1, duty1 (a byte) of LED drivers.\n"
                               "  kestctl port config straps output --pins 4-7\n"
                               "  kestctl port config panel-leds prescaler0 43");
    addDeviceArgument(config, configuring->device);
    config->add_option("FUNCTION", configuring->function, "what to set")->required()->type_name("");
    config->add_option("VALUE", configuring->value, "pins as bits, or the register's byte")->type_name("");
    config->add_option("--pins", configuring->pins, "pins as a list instead: 0,3-5")->type_name("LIST");
    config->add_flag("--force", configuring->force, "write also where a driver of the kernel has the device");
    addSpeed(config, configuring->speedKhz, defaultSpeed);
    runs(config, shared, configuring, runPortConfig);
}

void addThermal(CLI::App& app, context& shared)
{
    CLI::App* area = addArea(app, "thermal", "temperature sensors (LM75, LM92)");
    const auto options = std::make_shared<thermalReadOptions>();
    CLI::App* read = addVerb(area, "read", "read a sensor: degrees Celsius and its raw word");
    addDeviceArgument(read, options->device);
    CLI::Option* watch =
        read->add_option_function<std::string>(
                "--watch", [options](const std::string& text) { options->intervalNs = parseSeconds(text, "--watch"); },
                "read again every so many seconds until interrupted, one line each")
            ->type_name("SECONDS");
    addNumber(read, "--count", options->count, "end after N readings", 1)->needs(watch);
    runs(read, shared, options, runThermalRead);
}

void addErrors(CLI::App& app, context& shared)
{
    CLI::App* area = addArea(app, "errors", "the error log: what failed, where and why");

    const auto listing = std::make_shared<errorsListOptions>();
    CLI::App* list = addVerb(area, "list", "list entries, latest first");
    addFilter(list, listing->filter);
    runs(list, shared, listing, runErrorsList);

    const auto showing = std::make_shared<errorsShowOptions>();
    CLI::App* show = addVerb(area, "show", "show a whole entry: reasons, callouts, user details, traces");
    show->add_option("ID", showing->id, "number of the entry, or 'last'")->required()->type_name("");
    runs(show, shared, showing, runErrorsShow);

    const auto exporting = std::make_shared<errorsExportOptions>();
    CLI::App* exported = addVerb(area, "export", "write whole entries as JSON, one a line, oldest first");
    exported->add_option("FILE", exporting->file, "file to write; - or none for standard output")->type_name("");
    addFilter(exported, exporting->filter);
    runs(exported, shared, exporting, runErrorsExport);

    const auto clearing = std::make_shared<errorsClearOptions>();
    CLI::App* clear = addVerb(area, "clear", "delete all entries; asks first");
    clear->add_flag("--yes", clearing->yes, "don't ask");
    runs(clear, shared, clearing, runErrorsClear);
}

void addTrace(CLI::App& app, context& shared)
{
    const auto options = std::make_shared<traceOptions>();
    CLI::App* verb = addVerb(&app, "trace", "show what processes traced, also ended ones, oldest first");
    verb->add_option_function<std::string>(
            "--pid",
            [options](const std::string& text) {
                options->pid = static_cast<std::uint32_t>(parseNumber(text, "--pid", 0xFFFFFFFF));
            },
            "of one process")
        ->type_name("N");
    verb->add_option("--buffer", options->buffer, "of one buffer: kest, IIC")->type_name("NAME");
    addNumber(verb, "--last", options->last, "the latest N records", 1);
    verb->add_flag("--list", options->list, "list processes and buffers instead");
    verb->add_option("--folder", options->folder, "read this folder's rings")->type_name("DIR");
    runs(verb, shared, options, runTrace);
}

void addSim(CLI::App& app, context& shared)
{
    CLI::App* area = addArea(app, "sim", "the simulated machine: make one, look into it, break it");

    const auto making = std::make_shared<simNewOptions>();
    CLI::App* make = addVerb(area, "new", "write a demo machine and its configuration into a new folder");
    make->add_option("DIR", making->folder, "folder to make")->required()->type_name("");
    make->callback([&shared, making] {
        shared.needsConfiguration = false;
        shared.action = [&shared, making] { return runSimNew(shared, *making); };
    });

    runs(addVerb(area, "show", "show chips, registers, what pins do, and faults"), shared,
         std::make_shared<simShowOptions>(), runSimShow);

    addSimFault(area, shared);
    addSimWave(area, shared);
    runs(addVerb(area, "power-cycle", "registers to their defaults, hubs out of reset, held lines free; images stay"),
         shared, std::make_shared<simPowerCycleOptions>(), runSimPowerCycle);
}

} // namespace kest::tools
