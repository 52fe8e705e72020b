// The channel framework in-process on the host simulator's tables, with the log captured from
// before each instance is made: the hooks a derived plug-in sees, the exact log lines, message
// accounting and handles.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "channel/rpc_manager.h"
#include "channel/rpc_plugin_instance.h"
#include "sim/host_sim.h"
#include "support/host_contract.h"
#include "support/log_capture.h"
#include "support/log_wait.h"
#include "support/registry_isolation.h"
#include "sysutil/string_utils.h"

namespace {

struct Counts {
    std::atomic<int> ready{0}, notReady{0}, connectFailed{0}, done{0}, aborted{0}, invoked{0};
    void Reset() {
        for (std::atomic<int>* count : {&ready, &notReady, &connectFailed, &done, &aborted, &invoked}) *count = 0;
    }
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

const void* AsPtr(uint64_t handle) { return reinterpret_cast<const void*>(handle); }

TestManager& Manager() {
    static TestManager manager;
    return manager;
}

// The exports of a plug-in built on this manager, for the host to call as it would a DLL's.
TBXBool TBXAPI CreateOnManager(TBXHandle channel, TBXUserData* instance) {
    return Manager().TBXPluginCreateInstance(channel, instance);
}
TBXBool TBXAPI DestroyOnManager(TBXUserData instance) { return Manager().TBXPluginDestroyInstance(instance); }

class Framework : public ::testing::Test {
protected:
    void SetUp() override {
        host.Reset();
        StartStrictHost(host);
        WriteHklmValue(L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2", L"tcpEnabled", REG_SZ, L"false", 12);
        counts().Reset();
        host.UsePlugin({nullptr, nullptr, CreateOnManager, DestroyOnManager, nullptr});
        Manager().TBXPluginInit(0, &sim::Host::QueryInterface);
        ASSERT_TRUE(host.CreateInstance(&handle));
        instance = FindInstance(handle);
        ASSERT_TRUE(instance);
    }
    void TearDown() override {
        instance = nullptr;
        host.DestroyInstance(handle);
        Manager().TBXPluginExit();
        ExpectHostContractKept(host);
    }
    Counts& counts() { return Manager().counts; }

    // The channel lost on a thread of the host's while the test's own thread goes on; the
    // result tells whether the loss has been handled within `ms`. A loss that hangs is left
    // behind, so that the failure is reported.
    std::function<bool(uint32_t ms)> StartLoss() {
        auto done = std::make_shared<std::atomic<bool>>(false);
        std::thread([this, done] {
            host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
            *done = true;
        }).detach();
        return [done](uint32_t ms) { return WaitUntil([&] { return done->load(); }, ms); };
    }

    ScopedHklmOverride isolation;
    ScopedLogCapture log{LOG_NEVER};
    sim::Host& host = sim::Host::Get();
    TBXUserData handle = 0;
    RCPtr<RPCPluginInstance> instance;
};

// Each expected line, in this order, among those captured; other lines may stand between.
void ExpectInOrder(const std::vector<CapturedLine>& lines, const std::vector<CapturedLine>& expected) {
    size_t at = 0;
    for (const CapturedLine& want : expected) {
        while (at < lines.size() &&
               !(lines[at].function == want.function && lines[at].level == want.level && lines[at].text == want.text)) {
            ++at;
        }
        ASSERT_LT(at++, lines.size()) << "missing or out of order: " << want.function << " [" << want.level << "] "
                                      << want.text;
    }
}

// One instance from its creation to its end, on a host whose true is an unusual non-zero value:
// every success line below needs that value read as true.
TEST_F(Framework, StateLinesOfOneChannelLife) {
    TBXChannelInterface table{};
    const TBXGuid channelId = TbxInterfaceId(kTbxChannelIds[0]);
    const TBXBool yes = sim::Host::QueryInterface(&channelId, &table);
    ASSERT_TRUE(yes != 0 && yes != 1 && (yes & 0xFF) == 0) << "the strict host's true must be an unusual one";
    const std::string who = StringUtils::FormatString("fido2(0x%p) - rpcPlugin(0x%p) ", AsPtr(Manager().handle),
                                                      AsPtr(handle));
    const void* address = instance.Get();

    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_DISCONNECTED);
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);  // lost before it connected
    EXPECT_EQ(counts().connectFailed, 1);
    EXPECT_EQ(instance->connectFailedEvent.Wait(0), 0);
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    EXPECT_EQ(instance->connectFailedEvent.Wait(0), kWaitTimeout) << "reset by the next CONNECTED report";
    host.AnnouncePeerObject("fido2ControlObj");
    host.AnnouncePeerObject("fido2ControlObj");
    host.AnnouncePeerObject("fido2DataObj");
    host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
    host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
    EXPECT_TRUE(instance->IsReady());
    TBXHandle context = nullptr;
    ASSERT_TRUE(instance->CreateMessage(&context, 1)) << "CreateContext";
    EXPECT_TRUE(instance->InvokeMessage(context, false, 1)) << "SetContextOption, Invoke";
    ASSERT_TRUE(instance->CreateMessage(&context, 1));
    EXPECT_TRUE(instance->DestroyMessage(context)) << "DestroyContext";
    host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_CONNECTED);
    host.SetObjectState("fido2DataObj", TBX_STATE_PENDING);
    host.ReportConnection(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_FALSE(instance->IsReady());
    ASSERT_TRUE(host.DestroyInstance(handle));
    instance = nullptr;
    EXPECT_EQ(counts().ready, 1);
    EXPECT_EQ(counts().notReady, 1) << "on the first object destroyed, not the second";
    EXPECT_EQ(counts().connectFailed, 1) << "not again: the channel had been connected";

    const std::string connection = "RPCManager::OnConnectionStateChanged()", channel = "RPCManager::OnChannelStateChanged()";
    const std::string create = "RPCPluginInstance::ChannelObjCreate()", destroy = "RPCPluginInstance::ChannelObjDestroy()";
    const std::string control = "RPCManager::OnChannelControlObjectStateChanged()";
    const std::string data = "RPCManager::OnChannelDataObjectStateChanged()";
    const std::string connect = "RPCPluginInstance::ChannelConnect()", destructor = "RPCPluginInstance::~RPCPluginInstance()";
    ExpectInOrder(log->Lines(), {
        {"RPCPluginInstance::RegisterChannelSink()", LOG_INFO, "Channel.v1.RegisterChannelNotifySink() [OK]\n"},
        {"RPCManager::TBXPluginCreateInstance()", LOG_INFO,
         StringUtils::FormatString("Exit - rpcPlugin(0x%p) created\n", AsPtr(handle))},
        {connection, LOG_INFO, "Enter - " + who + "Connection is now DISCONNECTED\n"},
        {connection, LOG_INFO, "   but the current state is CONNECTED\n"},
        {connect, LOG_INFO, "Channel.v1.Connect() [OK]\n"},
        {channel, LOG_INFO, "Enter - " + who + "Channel is now DISCONNECTED\n"},
        {connection, LOG_INFO, "Enter - " + who + "Connection is now CONNECTED\n"},
        {connect, LOG_INFO, "Channel.v1.Connect() [OK]\n"},
        {channel, LOG_INFO, "Enter - " + who + "Channel is now CONNECTED\n"},
        {channel, LOG_DEBUG, "Set session type of the channel to NORIX SESSION\n"},
        {"RPCPluginInstance::ChannelControlObjCreate()", LOG_DEBUG, "Creating control object: fido2ControlObj\n"},
        {create, LOG_INFO, "Channel object \"fido2ControlObj\" created with flags 0xd\n"},
        {"RPCPluginInstance::ChannelControlObjCreate()", LOG_DEBUG, "Creating control object: fido2ControlObj\n"},
        {create, LOG_ERROR, "Exit - Channel object \"fido2ControlObj\" already created\n"},
        {"RPCPluginInstance::ChannelDataObjCreate()", LOG_INFO, "Creating data object: fido2DataObj\n"},
        {create, LOG_INFO, "Channel object \"fido2DataObj\" created with flags 0xd\n"},
        {control, LOG_INFO, "Enter - " + who + "Channel object \"fido2ControlObj\" is now CONNECTED\n"},
        {data, LOG_INFO, "Enter - " + who + "Channel object \"fido2DataObj\" is now CONNECTED\n"},
        {data, LOG_DEBUG, "DataObj options = 0x00000000\n"},
        {data, LOG_INFO, "Enter - " + who + "Channel object \"fido2DataObj\" is now SIDE_CHANNEL_CONNECTED\n"},
        {data, LOG_INFO, "Side channel was not pending when connected was received.\n"},
        {data, LOG_ERROR, "Exit - State PENDING is not handled.\n"},
        {connection, LOG_INFO, "Enter - " + who + "Connection is now DISCONNECTED\n"},
        {"RPCPluginInstance::ChannelDisconnect()", LOG_INFO, "Channel.v1.Disconnect() [OK]\n"},
        {destroy, LOG_INFO, "Channel object \"fido2DataObj\" destroyed\n"},
        {destroy, LOG_INFO, "Channel object \"fido2ControlObj\" destroyed\n"},
        {"RPCPluginInstance::UnregisterChannelSink()", LOG_ERROR,
         "Exit - Channel.v1.UnregisterChannelNotifySink() [OK]\n"},
        {destructor, LOG_INFO, StringUtils::FormatString("Enter - 0x%p destroyed\n", address)},
        {destructor, LOG_INFO, StringUtils::FormatString("Exit - Handle 0x%p removed\n", AsPtr(handle))},
    });
    EXPECT_EQ(log->Count("Unable to set post mode"), 0u) << "SetContextOption";
    for (const CapturedLine& line : log->Lines()) {
        EXPECT_TRUE(line.function.rfind("RPC", 0) != 0 || line.text.find("failed") == std::string::npos) << line.text;
    }
}

TEST_F(Framework, MessagesNeedReadinessAndAreCountedWhileAReplyIsDue) {
    TBXHandle context = nullptr, post = nullptr;
    EXPECT_FALSE(instance->CreateMessage(&context, 1));
    EXPECT_EQ(log->Count("Failed to create message (hChannel == NULL)\n"), 1u);
    host.BringUp();
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(instance->CreateMessage(&context, 1));
        ASSERT_TRUE(instance->InvokeMessage(context, true, 1));
    }
    ASSERT_TRUE(instance->CreateMessage(&post, 0));
    host.setContextOptionResult = false;
    EXPECT_TRUE(instance->InvokeMessage(post, false, 0)) << "sent without the post mode it asked for";
    EXPECT_EQ(log->Count("Unable to set post mode for tbxservice.\n"), 1u);
    host.setContextOptionResult = true;
    EXPECT_EQ(instance->GetPendingCount(), 2) << "a message without reply doesn't count";
    EXPECT_EQ(instance->GetPendingRequestCount(), 2u);
    EXPECT_EQ(instance->noMessagesPending.Wait(0), kWaitTimeout);
    const auto sent = host.Messages();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_FALSE(sent[0].postMode);
    EXPECT_EQ(sent[2].objectName, "fido2ControlObj");

    host.DeliverMsgDone(handle, 999);  // unknown id: list unchanged, count down
    EXPECT_EQ(instance->GetPendingRequestCount(), 2u);
    EXPECT_EQ(instance->GetPendingCount(), 1);
    host.DeliverMsgAbort(handle, 1);
    EXPECT_EQ(instance->GetPendingCount(), 0);
    EXPECT_EQ(instance->GetPendingRequestCount(), 2u) << "an abort leaves the entry";
    EXPECT_EQ(instance->noMessagesPending.Wait(0), 0);
    host.DeliverMsgDone(handle, 999);
    EXPECT_EQ(instance->GetPendingCount(), 0) << "never below 0";
    EXPECT_EQ(counts().done + counts().aborted * 10, 12);

    ASSERT_TRUE(instance->CreateMessage(&context, 1));
    host.SetObjectState("fido2DataObj", TBX_STATE_DISCONNECTED);
    EXPECT_FALSE(instance->InvokeMessage(context, false, 1));
    EXPECT_EQ(log->Count("Failed to send message (not ready)\n"), 1u);
    EXPECT_EQ(host.LiveContexts(), 1u) << "the caller still owns it";
    EXPECT_TRUE(instance->DestroyMessage(context));
    EXPECT_EQ(host.LiveContexts(), 0u);
}

// `instance` of the fixture stands for a worker's hold on the instance: after the host's
// destroy, a second destroy and every report the host might still send touch nothing.
TEST_F(Framework, SecondDestroyWhileAWorkerHoldsTheInstanceReleasesNothing) {
    host.BringUp();
    TBXHandle message = nullptr;  // a message with a reply, so that done and abort can come
    ASSERT_TRUE(instance->CreateMessage(&message, 1));
    ASSERT_TRUE(instance->InvokeMessage(message, true, 1));
    const int32_t held = instance->RefCount();
    ASSERT_TRUE(host.DestroyInstance(handle));
    EXPECT_EQ(instance->RefCount(), held - 1) << "the host's reference went";
    log->ClearLines();
    EXPECT_FALSE(host.DestroyInstance(handle));
    const int32_t after = instance->RefCount();
    EXPECT_EQ(after, held - 1) << "a second destroy releases nothing";
    // Give back what a faulty second destroy took, so the fault shows as this failure, not a crash.
    for (int32_t i = after; i < held - 1; ++i) instance->AddRef();

    counts().Reset();
    const int calls = host.ConnectCalls() + host.DisconnectCalls() * 100;
    const size_t objects = host.CreatedObjects().size(), sent = host.Messages().size();
    const int32_t pending = instance->GetPendingCount();
    host.ReportToDestroyedInstance(handle);
    EXPECT_EQ(host.ConnectCalls() + host.DisconnectCalls() * 100, calls);
    EXPECT_EQ(host.CreatedObjects().size(), objects);
    EXPECT_EQ(host.Messages().size(), sent) << "no answer to the request";
    EXPECT_EQ(instance->GetPendingCount(), pending) << "no accounting";
    EXPECT_EQ(counts().ready + counts().notReady + counts().connectFailed + counts().done + counts().aborted +
                  counts().invoked, 0);
    EXPECT_FALSE(instance->IsReady());
    // The second destroy; five channel reports, three for each of the two objects, done and abort.
    EXPECT_EQ(log->Count(StringUtils::FormatString("RPCPlugin 0x%p not found", AsPtr(handle))), 14u);
}

TEST_F(Framework, ChannelLossWaitsForASendInFlight) {
    host.BringUp();
    host.HoldInvokes(true);
    std::thread sender([&] {
        RPCPluginInstance::SendScope scope(instance.Get());
        TBXHandle context = nullptr;
        if (instance->CreateMessage(&context, 1) && !instance->InvokeMessage(context, false, 1)) {
            instance->DestroyMessage(context);
        }
    });
    ASSERT_TRUE(host.WaitForHeldInvokes(1, 5000));
    auto lossDone = StartLoss();
    // Time for a loss that doesn't wait to destroy the object under the send.
    EXPECT_FALSE(lossDone(500)) << "the loss must wait until the send has been handed over";
    host.HoldInvokes(false);
    sender.join();
    ASSERT_TRUE(lossDone(10000));
    ASSERT_EQ(host.Messages().size(), 1u) << "sent on a live object";
    EXPECT_EQ(host.DestroyedObjects(), (std::vector<std::string>{"fido2DataObj", "fido2ControlObj"}));
    EXPECT_EQ(counts().notReady, 1);
}

DWORD WINAPI SendForever(void* owner) {
    RPCPluginInstance::SendScope scope(static_cast<RPCPluginInstance*>(owner));
    Sleep(INFINITE);
    return 0;
}

TEST_F(Framework, SenderKilledInItsSendDoesNotBlockTheNextLoss) {
    host.BringUp();
    HANDLE sender = CreateThread(nullptr, 0, SendForever, instance.Get(), 0, nullptr);
    ASSERT_NE(sender, nullptr);
    while (instance->sendHolder.load() == 0) Sleep(1);
    TerminateThread(sender, 1);
    WaitForSingleObject(sender, INFINITE);
    CloseHandle(sender);
    ASSERT_TRUE(StartLoss()(10000)) << "the loss hangs on a lock the killed sender left";
    EXPECT_EQ(host.DestroyedObjects(), (std::vector<std::string>{"fido2DataObj", "fido2ControlObj"}));
}

TEST(FrameworkHandles, KeysCarryProcessAndSessionAndCountOnwardsAndOrphansTouchNoHost) {
    RCPtr<RPCPluginInstance> a(new RPCPluginInstance(nullptr, false));
    RCPtr<RPCPluginInstance> b(new RPCPluginInstance(nullptr, false));
    const uint64_t base = (static_cast<uint64_t>(GetCurrentProcessId() & 0xFFFF) << 48);
    EXPECT_EQ(a->GetHandle() & 0xFFFF000000000000ULL, base);
    EXPECT_EQ(b->GetHandle(), a->GetHandle() + 1) << "consecutive lower halves";
    EXPECT_EQ(FindInstance(a->GetHandle()).Get(), a.Get());
    EXPECT_EQ(FindInstance(0).Get(), nullptr);
    uint64_t gone = a->GetHandle();
    a = nullptr;
    EXPECT_EQ(FindInstance(gone).Get(), nullptr);
    EXPECT_FALSE(UnregisterInstance(gone)) << "the destructor takes the handle out of the registry";
    EXPECT_EQ(FindManager(gone).Get(), nullptr);

    RPCVariant variant(b.Get());
    variant.Get()->value = 0x5A5A;
    EXPECT_EQ(variant.Get()->value, 0x5A5Au) << "a holder without manager leaves the variant alone";
}

}  // namespace
