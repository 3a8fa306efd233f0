#include "tools/kestctl/commands.h"
#include "tools/kestctl/copy.h"
#include "tools/kestctl/options.h"
#include "tools/kestctl/seeprom.h"

namespace kest::tools
{
namespace
{

void addCommon(CLI::App* verb, seepromOptions& options, bool withRange = true)
{
    if (withRange) {
        verb->add_option("--offset", options.offset, "first byte, counted from 0 (default 0)")->type_name("N");
        verb->add_option("--length", options.length, "how many bytes (default: up to the end)")->type_name("N");
    }
    verb->add_option("--mode", options.mode,
                     "hardware, file: the persisted copy, mixed: the copy if there is one, registry: what the registry "
                     "says (default: " +
                         std::string(withRange ? "hardware" : "where the bytes were saved from") + ")")
        ->type_name("MODE");
    addSpeed(verb, options.speedKhz, "400 otherwise");
    addVotes(verb, options.votes);
}

void addCare(CLI::App* verb, carefulWriteOptions& care)
{
    verb->add_flag("-y,--yes", care.yes, "do not ask; needed without a terminal");
    verb->add_flag("--dry-run", care.dryRun, "only tell what would be written");
    verb->add_flag("--force", care.force, "write also where a driver of the kernel has the device");
    verb->add_flag("--all-pages", care.allPages, "also write pages that hold the data already");
    verb->add_flag_callback(
        "--no-verify", [&care] { care.verify = false; }, "do not read back and compare");
}

void addRead(CLI::App* area, context& shared)
{
    const auto options = std::make_shared<seepromReadOptions>();
    CLI::App* verb = addVerb(area, "read", "read bytes, and show them or save them in a file");
    verb->add_option("DEVICE", options->from.device, "name, number or device text")->required();
    verb->add_option("-o,--output", options->output, "save the raw bytes in FILE, - for standard output")
        ->type_name("FILE");
    verb->add_flag("--force", options->force, "raw bytes even to a terminal");
    addCommon(verb, options->from);
    runs(verb, shared, options, runSeepromRead);
}

void addWrite(CLI::App* area, context& shared)
{
    const auto options = std::make_shared<seepromWriteOptions>();
    CLI::App* verb = addVerb(area, "write", "write bytes: asks, keeps the old ones in an undo file, reads back",
                             "Pages that hold the data already are left out. A write that fails tells how many\n"
                             "bytes are certain.");
    verb->add_option("DEVICE", options->to.device, "name, number or device text")->required();
    verb->add_option("-i,--input", options->input, "bytes to write from FILE, - for standard input")->type_name("FILE");
    verb->add_option("--hex", options->hex, "bytes to write as hexadecimal digits")->type_name("DIGITS");
    addCommon(verb, options->to);
    addNumber(verb, "--write-cycle", options->to.writeCycleMs, "longest write cycle of a page in ms (default 15)", 1,
              1000);
    addCare(verb, options->care);
    runs(verb, shared, options, runSeepromWrite);
}

void addCompare(CLI::App* area, context& shared, const char* name, const char* help, const char* otherHelp,
                int (*run)(const context&, const seepromCompareOptions&))
{
    const auto options = std::make_shared<seepromCompareOptions>();
    CLI::App* verb = addVerb(area, name, help);
    verb->add_option("DEVICE", options->with.device, "name, number or device text")->required();
    verb->add_option("OTHER", options->other, otherHelp)->required();
    addCommon(verb, options->with);
    runs(verb, shared, options, run);
}

void addDump(CLI::App* area, context& shared)
{
    const auto options = std::make_shared<seepromDumpOptions>();
    CLI::App* verb = addVerb(area, "dump", "save bytes with their device in a dump file, as JSON text");
    verb->add_option("DEVICE", options->from.device, "name, number or device text")->required();
    verb->add_option("-o,--output", options->output, "dump file, - for standard output (default)")->type_name("FILE");
    addCommon(verb, options->from);
    runs(verb, shared, options, runSeepromDump);
}

void addRestore(CLI::App* area, context& shared)
{
    const auto options = std::make_shared<seepromRestoreOptions>();
    CLI::App* verb = addVerb(area, "restore", "write a dump or undo file back");
    verb->add_option("FILE", options->file, "dump or undo file, - for standard input")->required();
    verb->add_option("--device", options->to.device, "another device of the same type than the one the file names")
        ->type_name("DEVICE");
    addCommon(verb, options->to, false);
    addCare(verb, options->care);
    runs(verb, shared, options, runSeepromRestore);
}

} // namespace

void addSeeprom(CLI::App& app, context& shared)
{
    CLI::App* area = addArea(app, "seeprom", "read, write and compare serial EEPROMs");
    addRead(area, shared);
    addWrite(area, shared);
    addCompare(area, shared, "verify", "compare with a file; exit code 5 when they differ",
               "file, - for standard input", runSeepromVerify);
    addCompare(area, shared, "diff", "show what differs from a file or another device; exit code 5 when anything does",
               "file, - for standard input, or a device", runSeepromDiff);
    addDump(area, shared);
    addRestore(area, shared);
}

namespace
{

void addCopyVerb(CLI::App* area, context& shared, const char* name, const char* help, const char* fileHelp,
                 const char* forceHelp, int (*run)(const context&, const copyOptions&))
{
    const auto options = std::make_shared<copyOptions>();
    CLI::App* verb = addVerb(area, name, help);
    verb->add_option("COPY", options->which, "device number, or name of the device table")->required();
    if (fileHelp != nullptr) {
        verb->add_option("FILE", options->file, fileHelp)->required();
    }
    verb->add_flag("-y,--yes", options->yes, "do not ask before a copy is replaced or removed");
    if (forceHelp != nullptr) {
        verb->add_flag("--force", options->force, forceHelp);
    }
    runs(verb, shared, options, run);
}

void addCapture(CLI::App* area, context& shared)
{
    const auto options = std::make_shared<copyCaptureOptions>();
    CLI::App* verb = addVerb(area, "capture", "make a copy from the device's hardware");
    verb->add_option("DEVICE", options->from.device, "name or number of the device table")->required();
    addSpeed(verb, options->from.speedKhz, "400 otherwise");
    addVotes(verb, options->from.votes);
    verb->add_flag("-y,--yes", options->yes, "do not ask before a copy is replaced");
    runs(verb, shared, options, runCopyCapture);
}

} // namespace

void addCopy(CLI::App& app, context& shared)
{
    CLI::App* area = addArea(app, "copy", "persisted copies of SEEPROMs, which file and mixed mode serve");
    runs(addVerb(area, "list", "show the copies"), shared, std::make_shared<copyListOptions>(), runCopyList);
    addCapture(area, shared);
    addCopyVerb(area, shared, "import", "make a copy from a file", "file, - for standard input",
                "also when the file is larger or smaller than the device", runCopyImport);
    addCopyVerb(area, shared, "export", "save a copy in a file", "file, - for standard output",
                "raw bytes even to a terminal", runCopyExport);
    addCopyVerb(area, shared, "remove", "remove a copy", nullptr, nullptr, runCopyRemove);
}

} // namespace kest::tools
