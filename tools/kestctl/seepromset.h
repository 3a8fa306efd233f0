/// Verbs "seeprom set" and "seeprom make": fields of contents instead of bytes.
#pragma once

#include "tools/kestctl/context.h"

namespace kest::tools
{

class command;

void addSeepromSet(command area, context& shared);
void addSeepromMake(command area, context& shared);

} // namespace kest::tools
