/// The [[bus]] tables of a machine file.
#pragma once

#include "sim/machinedescription.h"
#include "sim/tablereader.h"

#include <cstddef>

namespace kest::sim
{

/// @param machine  the buses before it: none has its name. Throws as a tableReader.
busDescription readBus(const tableReader& table, const machineDescription& machine);

/// The bus that a table names by 'bus' and 'node'. Throws as a tableReader.
std::size_t busOf(const tableReader& table, const machineDescription& machine);

} // namespace kest::sim
