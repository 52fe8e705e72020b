// The simulator's strict mode records each breach of the host contract; any breach fails the test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "sim/host_sim.h"

// For a fixture's SetUp: strict mode on, and breaches left by code that ran before this test
// (a late worker of an earlier one) are reported rather than pinned on this test's own steps.
inline void StartStrictHost(sim::Host& host) {
    host.strict = true;
    for (const std::string& breach : host.TakeViolations()) ADD_FAILURE() << "host contract broken before: " << breach;
}

// For a fixture's TearDown, after the instances are destroyed.
inline void ExpectHostContractKept(sim::Host& host) {
    for (const std::string& breach : host.TakeViolations()) ADD_FAILURE() << "host contract broken: " << breach;
}
