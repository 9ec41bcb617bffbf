// The host's JSON module: FromString, Set (JSON, STRING and NUMBER values),
// CreateEmptyArray, ArrayAppend and ToString.
#pragma once

#include <vector>

#include "Engine.h"

namespace Ombrix::Host {

std::vector<HostRoutine> JsonModuleRoutines();

}  // namespace Ombrix::Host
