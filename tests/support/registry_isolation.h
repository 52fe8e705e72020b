// The tests' registry isolation is the simulator's, which the soak uses too.
#pragma once

#include "sim/registry_isolation.h"
