/// @file
/// Everything that the library exports.
#pragma once

#include "kest/address.h"
#include "kest/dataport.h"
#include "kest/detect.h"
#include "kest/message.h"
#include "kest/reasons.h"
#include "kest/seeprom.h"
#include "kest/text.h"
#include "kest/thermal.h"
#include "kest/version.h"
