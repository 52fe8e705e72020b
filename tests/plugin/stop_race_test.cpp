// A stop that meets the worker at each point of its road, forced by holding the worker there.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <thread>

#include "channel/rpc_manager.h"
#include "channel/rpc_plugin_instance.h"
#include "plugin/fido2_client.h"
#include "plugin/fido2_client_plugin.h"
#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"
#include "sim/host_sim.h"
#include "support/registry_isolation.h"

namespace {

std::atomic<int> holdAt{0};
HANDLE reached = CreateEventA(nullptr, TRUE, FALSE, nullptr);
HANDLE release = CreateEventA(nullptr, TRUE, FALSE, nullptr);

void Hold(int point) {
    if (point != holdAt) return;
    SetEvent(reached);
    WaitForSingleObject(release, 10000);
}

class StopRaces : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        ASSERT_TRUE(library.Loaded());
        library.Reset();
        host.Reset();
        TheFido2Client().TBXPluginInit(0, &sim::Host::QueryInterface);
        ASSERT_TRUE(TheFido2Client().TBXPluginCreateInstance(nullptr, &instance));
        host.BringUp();
        ResetEvent(reached);
        ResetEvent(release);
        SetOperationCheckpoint(Hold);
    }
    void TearDown() override {
        SetOperationCheckpoint(nullptr);
        holdAt = 0;
        SetEvent(release);
        TheFido2Client().TBXPluginDestroyInstance(instance);
        TheFido2Client().TBXPluginExit();
        library.Reset();
    }

    ScopedHklmOverride isolation;
    sim::Host& host = sim::Host::Get();
    sim::SoftwareAuthenticator library;
    TBXUserData instance = 0;
    agent::SampleArena arena;
};

TEST_P(StopRaces, ChannelLossAtEachPointLeavesNoAnswer) {
    const int point = GetParam();
    holdAt = point;
    const LONG callsBefore = library.Calls();
    host.DeliverMessage(agent::RequestPdu(1, 3, agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 2, true))));
    ASSERT_EQ(WaitForSingleObject(reached, 5000), WAIT_OBJECT_0) << "the worker reached point " << point;
    // The stop runs on a delivery thread of its own; the worker is let go once it is under way.
    std::thread stopper([&] { host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED); });
    Sleep(500);  // ample time for the stop to set its flag on a loaded machine
    SetEvent(release);
    stopper.join();
    EXPECT_FALSE(host.WaitForMessages(1, 200)) << "a stopped operation is never answered";
    const LONG calls = library.Calls() - callsBefore;
    // Before the first check the library is never entered; after it, the id was cancelled
    // before the call, which the library honours at once.
    EXPECT_EQ(calls, point == 1 ? 0 : 1);
    EXPECT_EQ(library.Blocked(), 0);
}

INSTANTIATE_TEST_SUITE_P(WorkerPoints, StopRaces, ::testing::Values(1, 2));

}  // namespace
