/// The areas of kestctl: each function adds one to the tree of subcommands.
#pragma once

namespace CLI
{
class App;
}

namespace kest::tools
{

struct context;

void addCopy(CLI::App& app, context& shared);
void addDetect(CLI::App& app, context& shared);
void addDevices(CLI::App& app, context& shared);
void addErrors(CLI::App& app, context& shared);
void addMessage(CLI::App& app, context& shared);
void addPort(CLI::App& app, context& shared);
void addReset(CLI::App& app, context& shared);
void addScan(CLI::App& app, context& shared);
void addSeeprom(CLI::App& app, context& shared);
void addSim(CLI::App& app, context& shared);
void addThermal(CLI::App& app, context& shared);
void addTopology(CLI::App& app, context& shared);
void addTrace(CLI::App& app, context& shared);

} // namespace kest::tools
