/// The [[chip]] tables of a machine file.
#pragma once

#include "sim/machinedescription.h"
#include "sim/tablereader.h"

namespace kest::sim
{

/// One chip, checked by itself alone. @param machine  its buses. Throws as a tableReader.
chipDescription readChip(const tableReader& table, const machineDescription& machine);

} // namespace kest::sim
