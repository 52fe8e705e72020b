// The channel framework in-process on the host simulator's tables, with the log captured:
// the hooks a derived plug-in sees, the exact log lines, message accounting and handles.
#include <gtest/gtest.h>

#include <atomic>

#include "channel/rpc_manager.h"
#include "channel/rpc_plugin_instance.h"
#include "sim/host_sim.h"
#include "support/log_capture.h"
#include "support/registry_isolation.h"

namespace {

struct Counts {
    std::atomic<int> ready{0}, notReady{0}, connectFailed{0}, done{0}, aborted{0}, invoked{0};
};

class RecordingInstance : public RPCPluginInstance {
public:
    RecordingInstance(RPCManager* mgr, Counts* counts) : RPCPluginInstance(mgr, false), counts(counts) {}
    void OnReady() override { ++counts->ready; }
    void OnNotReady() override { ++counts->notReady; }
    void OnConnectFailed() override { ++counts->connectFailed; }
    void OnDone(uint32_t, uintptr_t) override { ++counts->done; }
    void OnAbort(uint32_t, int8_t, uint32_t) override { ++counts->aborted; }
    void OnInvoke(TBXHandle) override { ++counts->invoked; }
    Counts* counts;
};

class TestManager : public RPCManager {
public:
    TestManager() : RPCManager("fido2", "fido2ControlObj", "fido2DataObj", "fido2DataObjTcp", true) {}
    RPCPluginInstance* CreateClientInstance() override { return new RecordingInstance(this, &counts); }
    Counts counts;
};

TestManager& Manager() {
    static TestManager manager;
    return manager;
}

class Framework : public ::testing::Test {
protected:
    void SetUp() override {
        host.Reset();
        WriteHklmValue(L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2", L"tcpEnabled", REG_SZ, L"false",
                       12);
        Manager().counts.ready = Manager().counts.notReady = Manager().counts.connectFailed = 0;
        Manager().counts.done = Manager().counts.aborted = Manager().counts.invoked = 0;
        Manager().TBXPluginInit(0, &sim::Host::QueryInterface);
        ASSERT_TRUE(Manager().TBXPluginCreateInstance(nullptr, &handle));
        instance = FindInstance(handle);
        ASSERT_TRUE(instance);
    }
    void TearDown() override {
        instance = nullptr;
        Manager().TBXPluginDestroyInstance(handle);
        Manager().TBXPluginExit();
    }
    Counts& counts() { return Manager().counts; }

    ScopedHklmOverride isolation;
    sim::Host& host = sim::Host::Get();
    TBXUserData handle = 0;
    RCPtr<RPCPluginInstance> instance;
};

TEST_F(Framework, ReadyAndNotReadyComeOnceEach) {
    host.BringUp();
    EXPECT_EQ(counts().ready, 1);
    EXPECT_TRUE(instance->IsReady());
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(counts().notReady, 1) << "on the first object destroyed, not the second";
    EXPECT_FALSE(instance->IsReady());
    EXPECT_EQ(counts().connectFailed, 0) << "the channel had been connected";
}

TEST_F(Framework, ChannelLostBeforeItConnectedReportsConnectFailed) {
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(counts().connectFailed, 1);
    EXPECT_EQ(instance->connectFailedEvent.Wait(0), 0);
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    EXPECT_EQ(instance->connectFailedEvent.Wait(0), kWaitTimeout) << "reset by the next CONNECTED report";
}

TEST_F(Framework, LogLinesOfTheObjectRoad) {
    ScopedLogCapture log(LOG_NEVER);
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_DISCONNECTED);
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.AnnouncePeerObject("fido2ControlObj");
    host.AnnouncePeerObject("fido2ControlObj");
    host.AnnouncePeerObject("fido2DataObj");
    host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_CONNECTED);
    host.SetObjectState("fido2DataObj", TBX_STATE_PENDING);
    EXPECT_EQ(log->Count("   but the current state is CONNECTED\n"), 1u);
    EXPECT_EQ(log->Count("Channel.v1.Connect() [OK]\n"), 1u);
    EXPECT_EQ(log->Count("Set session type of the channel to NORIX SESSION\n"), 1u);
    EXPECT_EQ(log->Count("Creating control object: fido2ControlObj\n"), 2u);
    EXPECT_EQ(log->Count("Channel object \"fido2ControlObj\" created with flags 0xd\n"), 1u);
    EXPECT_EQ(log->Count("Channel object \"fido2ControlObj\" already created\n"), 1u);
    EXPECT_EQ(log->Count("Side channel was not pending when connected was received.\n"), 1u);
    EXPECT_EQ(log->Count("State PENDING is not handled.\n"), 1u);
}

TEST_F(Framework, CallbackForAGoneHandleIsDroppedWithAWarning) {
    ScopedLogCapture log(LOG_WARN);
    RPCManager::OnChannelStateChanged(0x1234, TBX_STATE_CONNECTED, TBX_STATE_CONNECTED, 0);
    RPCManager::OnDataMsgInvoke(0x1234, nullptr);
    EXPECT_EQ(log->Count("RPCPlugin 0x0000000000001234 not found"), 2u);
    EXPECT_EQ(counts().invoked, 0);
}

TEST_F(Framework, RepliedMessagesAreCountedAndListed) {
    host.BringUp();
    TBXHandle first = nullptr, second = nullptr, third = nullptr;
    ASSERT_TRUE(instance->CreateMessage(&first, 1));
    ASSERT_TRUE(instance->InvokeMessage(first, true, 1));
    ASSERT_TRUE(instance->CreateMessage(&second, 1));
    ASSERT_TRUE(instance->InvokeMessage(second, true, 1));
    ASSERT_TRUE(instance->CreateMessage(&third, 0));
    ASSERT_TRUE(instance->InvokeMessage(third, false, 0));
    EXPECT_EQ(instance->GetPendingCount(), 2) << "post mode doesn't count";
    EXPECT_EQ(instance->GetPendingRequestCount(), 2u);
    EXPECT_EQ(instance->noMessagesPending.Wait(0), kWaitTimeout);
    auto sent = host.Messages();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_FALSE(sent[0].postMode);
    EXPECT_TRUE(sent[2].postMode);
    EXPECT_EQ(sent[2].objectName, "fido2ControlObj");

    host.DeliverMsgDone(handle, 999);  // unknown id: list unchanged, count down
    EXPECT_EQ(instance->GetPendingRequestCount(), 2u);
    EXPECT_EQ(instance->GetPendingCount(), 1);
    EXPECT_EQ(counts().done, 1);
    host.DeliverMsgAbort(handle, 1);
    EXPECT_EQ(instance->GetPendingCount(), 0);
    EXPECT_EQ(instance->GetPendingRequestCount(), 2u) << "an abort leaves the entry";
    EXPECT_EQ(instance->noMessagesPending.Wait(0), 0);
    host.DeliverMsgDone(handle, 999);
    EXPECT_EQ(instance->GetPendingCount(), 0) << "never below 0";
    EXPECT_EQ(instance->noMessagesPending.Wait(0), 0);
    EXPECT_EQ(counts().aborted, 1);
}

TEST_F(Framework, SendingNeedsReadinessAndTheCallerKeepsAFailedContext) {
    ScopedLogCapture log(LOG_NEVER);
    TBXHandle context = nullptr;
    EXPECT_FALSE(instance->CreateMessage(&context, 1));
    EXPECT_EQ(log->Count("Failed to create message (hChannel == NULL)\n"), 1u);
    host.BringUp();
    ASSERT_TRUE(instance->CreateMessage(&context, 1));
    host.setContextOptionResult = false;
    EXPECT_TRUE(instance->InvokeMessage(context, false, 1));
    EXPECT_EQ(log->Count("Unable to set post mode for tbxservice.\n"), 1u);
    host.setContextOptionResult = true;

    ASSERT_TRUE(instance->CreateMessage(&context, 1));
    host.SetObjectState("fido2DataObj", TBX_STATE_DISCONNECTED);
    EXPECT_FALSE(instance->InvokeMessage(context, false, 1));
    EXPECT_EQ(log->Count("Failed to send message (not ready)\n"), 1u);
    EXPECT_EQ(host.LiveContexts(), 1u) << "the caller still owns it";
    EXPECT_TRUE(instance->DestroyMessage(context));
    EXPECT_EQ(host.LiveContexts(), 0u);
}

TEST(FrameworkVariants, HolderWithoutManagerLeavesTheVariantAlone) {
    RCPtr<RPCPluginInstance> orphan(new RPCPluginInstance(nullptr, false));
    TBXVariant* seen = nullptr;
    {
        RPCVariant variant(orphan.Get());
        variant.Get()->value = 0x5A5A;
        seen = variant.Get();
        EXPECT_EQ(seen->value, 0x5A5Au) << "no VariantInit without a manager";
    }
}

TEST(FrameworkHandles, KeysCarryProcessAndSessionAndCountOnwards) {
    RCPtr<RPCPluginInstance> a(new RPCPluginInstance(nullptr, false));
    RCPtr<RPCPluginInstance> b(new RPCPluginInstance(nullptr, false));
    const uint64_t base = (static_cast<uint64_t>(GetCurrentProcessId() & 0xFFFF) << 48);
    EXPECT_EQ(a->GetHandle() & 0xFFFF000000000000ULL, base);
    EXPECT_EQ(b->GetHandle(), a->GetHandle() + 1) << "consecutive lower halves";
    EXPECT_EQ(FindInstance(a->GetHandle()).Get(), a.Get());
    EXPECT_EQ(FindInstance(0).Get(), nullptr);
    uint64_t gone = a->GetHandle();
    a = nullptr;
    EXPECT_EQ(FindInstance(gone).Get(), nullptr) << "removed by the destructor";
    EXPECT_EQ(FindManager(gone).Get(), nullptr);
}

TEST(FrameworkTexts, StateAndSessionTexts) {
    EXPECT_EQ(ChannelStateText(-1), "UNINITIALIZED");
    EXPECT_EQ(ChannelStateText(4), "unknown4");
    EXPECT_EQ(ObjectStateText(4), "SIDE_CHANNEL_CONNECTED");
    EXPECT_EQ(ObjectStateText(5), "PENDING_AND_PEER_OBJ_CREATED");
    EXPECT_EQ(ObjectStateText(9), "unknown[9]");
    EXPECT_EQ(SessionText(-1), "NONE SESSION");
    EXPECT_EQ(SessionText(1), "KELDA SESSION");
    EXPECT_EQ(SessionText(7), "unknown 7");
}

}  // namespace
