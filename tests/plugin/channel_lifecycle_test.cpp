// The instance's road from created to ready and back, driven through the exports, with the
// framework's log lines, its send gate and its handles seen through the real plug-in.
#include <atomic>
#include <functional>
#include <thread>

#include "plugin_host_fixture.h"
#include "sysutil/string_utils.h"

namespace {

using ChannelLifecycle = PluginOnHost;

const void* AsPtr(uint64_t handle) { return reinterpret_cast<const void*>(handle); }

// Reports the channel lost from a thread of its own; the result waits, bounded, for the report to
// return. A loss that hangs is left behind holding only the host singleton and its own flag.
std::function<bool(uint32_t)> StartLoss() {
    auto lost = std::make_shared<std::atomic<bool>>(false);
    std::thread([lost] {
        sim::Host::Get().ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
        *lost = true;
    }).detach();
    return [lost](uint32_t boundMs) { return WaitUntil([&] { return lost->load(); }, boundMs); };
}

DWORD WINAPI SendForever(void* instance) {
    RPCPluginInstance::SendScope scope(static_cast<RPCPluginInstance*>(instance));
    Sleep(INFINITE);
    return 0;
}

// One instance from its creation to its end, on a host whose true is an unusual non-zero value:
// every success line below needs that value read as true.
TEST_F(ChannelLifecycle, StateLinesOfOneChannelLife) {
    TBXChannelInterface table{};
    const TBXGuid channelId = TbxInterfaceId(kTbxChannelIds[0]);
    const TBXBool yes = sim::Host::QueryInterface(&channelId, &table);
    ASSERT_TRUE(yes != 0 && yes != 1 && (yes & 0xFF) == 0) << "the strict host's true must be an unusual one";
    ScopedLogCapture log(LOG_NEVER);
    const TBXUserData handle = NewInstance(false);
    RCPtr<RPCPluginInstance> instance = FindInstance(handle);
    ASSERT_TRUE(instance);
    const std::string who = StringUtils::FormatString("fido2(0x%p) - rpcPlugin(0x%p) ",
                                                      AsPtr(instance->LockManager()->handle), AsPtr(handle));
    const void* address = instance.Get();
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.ConnectCalls(), 1) << "the current state decides for the connection";
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);  // lost before it connected
    EXPECT_EQ(instance->connectFailedEvent.Wait(0), 0);
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    EXPECT_EQ(instance->connectFailedEvent.Wait(0), kWaitTimeout) << "reset by the next CONNECTED report";
    EXPECT_TRUE(host.CreatedObjects().empty()) << "a client waits for the peer's announcement";
    host.AnnouncePeerObject("fido2ControlObj");
    host.AnnouncePeerObject("fido2ControlObj");
    host.AnnouncePeerObject("fido2DataObj");
    host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
    EXPECT_FALSE(instance->IsReady()) << "ready needs both objects";
    host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
    EXPECT_TRUE(instance->IsReady());
    EXPECT_TRUE(Answers()) << "CreateContext, SetContextOption, Invoke";
    TBXHandle context = nullptr;
    ASSERT_TRUE(instance->CreateMessage(&context, 1));
    EXPECT_TRUE(instance->DestroyMessage(context)) << "DestroyContext";
    host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_CONNECTED);
    host.SetObjectState("fido2DataObj", TBX_STATE_PENDING);
    host.ReportConnection(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_FALSE(instance->IsReady());
    instance = nullptr;
    Destroy(handle);
    const std::string connection = "RPCManager::OnConnectionStateChanged()", channel = "RPCManager::OnChannelStateChanged()";
    const std::string create = "RPCPluginInstance::ChannelObjCreate()", destroy = "RPCPluginInstance::ChannelObjDestroy()";
    const std::string data = "RPCManager::OnChannelDataObjectStateChanged()";
    const std::string connect = "RPCPluginInstance::ChannelConnect()", destructor = "RPCPluginInstance::~RPCPluginInstance()";
    const std::vector<CapturedLine> expected = {
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
        {create, LOG_ERROR, "Exit - Channel object \"fido2ControlObj\" already created\n"},
        {"RPCPluginInstance::ChannelDataObjCreate()", LOG_INFO, "Creating data object: fido2DataObj\n"},
        {create, LOG_INFO, "Channel object \"fido2DataObj\" created with flags 0xd\n"},
        {"RPCManager::OnChannelControlObjectStateChanged()", LOG_INFO,
         "Enter - " + who + "Channel object \"fido2ControlObj\" is now CONNECTED\n"},
        {data, LOG_INFO, "Enter - " + who + "Channel object \"fido2DataObj\" is now CONNECTED\n"},
        {data, LOG_DEBUG, "DataObj options = 0x00000000\n"}, {"Fido2ClientPlugin::OnReady()", LOG_DEBUG, "Enter\n"},
        {data, LOG_INFO, "Enter - " + who + "Channel object \"fido2DataObj\" is now SIDE_CHANNEL_CONNECTED\n"},
        {data, LOG_INFO, "Side channel was not pending when connected was received.\n"},
        {data, LOG_ERROR, "Exit - State PENDING is not handled.\n"},
        {connection, LOG_INFO, "Enter - " + who + "Connection is now DISCONNECTED\n"},
        {"RPCPluginInstance::ChannelDisconnect()", LOG_INFO, "Channel.v1.Disconnect() [OK]\n"},
        {destroy, LOG_INFO, "Channel object \"fido2DataObj\" destroyed\n"},
        {"Fido2ClientPlugin::OnNotReady()", LOG_DEBUG, "Enter\n"},
        {destroy, LOG_INFO, "Channel object \"fido2ControlObj\" destroyed\n"},
        {"RPCPluginInstance::UnregisterChannelSink()", LOG_ERROR, "Exit - Channel.v1.UnregisterChannelNotifySink() [OK]\n"},
        {destructor, LOG_INFO, StringUtils::FormatString("Enter - 0x%p destroyed\n", address)},
        {destructor, LOG_INFO, StringUtils::FormatString("Exit - Handle 0x%p removed\n", AsPtr(handle))},
    };
    // Each expected line, in this order, among those captured; other lines may stand between.
    const auto lines = log->Lines();
    auto at = lines.begin();
    for (const CapturedLine& want : expected) {
        at = std::find_if(at, lines.end(), [&](const CapturedLine& l) {
            return l.function == want.function && l.level == want.level && l.text == want.text;
        });
        ASSERT_NE(at++, lines.end()) << "missing or out of order: " << want.function << " " << want.text;
    }
    size_t hooks = 0;
    for (const CapturedLine& line : lines) {
        EXPECT_TRUE(line.function.rfind("RPC", 0) != 0 || line.text.find("failed") == std::string::npos) << line.text;
        hooks += line.text == "Enter\n" && line.function.find("Ready()") != std::string::npos;
    }
    EXPECT_EQ(hooks, 2u) << "ready once; not ready on the first object destroyed, not the second";
    EXPECT_EQ(log->Count("Unable to set post mode"), 0u);
}

// A connect that fails is not undone by a disconnect, but tried again on the next report.
TEST_F(ChannelLifecycle, RetriesAFailedConnectAndCreatesTheAnnouncedObjects) {
    host.connectResult = false;
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);  // before the sink exists
    const TBXUserData instance = NewInstance(false);
    EXPECT_EQ(host.ConnectCalls(), 1) << "a sink registered on a connection that is up connects at once";
    host.ReportConnection(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.DisconnectCalls(), 0) << "nothing to disconnect after a failed connect";
    host.connectResult = true;
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    EXPECT_EQ(host.ConnectCalls(), 2);
    for (const char* name : {"fido2DataObjTcp", "fido2ControlObj", "somethingElse", "fido2ControlObj", "fido2DataObj"}) {
        host.AnnouncePeerObject(name);
    }
    const auto objects = host.CreatedObjects();
    ASSERT_EQ(objects.size(), 2u) << "repeated and second data announcements keep the objects";
    EXPECT_EQ(objects[0].name, "fido2DataObjTcp");
    EXPECT_EQ(objects[1].name, "fido2ControlObj");
    Destroy(instance);
    EXPECT_EQ(host.DisconnectCalls(), 1);
}

TEST_F(ChannelLifecycle, AnswerIsHandedOverAsOneBlobStructure) {
    NewInstance();
    // GetClientInfo with request id 0x0A0B0C0D and agent version 3.1.2: the client version 1.0.0.
    const sim::Bytes answer = Exchange({0x0D, 0x0C, 0x0B, 0x0A, 1, 0, 0, 0, 4, 0, 0, 0, 2, 0, 1, 3});
    EXPECT_EQ(answer, (sim::Bytes{0x0D, 0x0C, 0x0B, 0x0A, 0x04, 0, 0, 0, 0x00, 0x00, 0x00, 0x01}));
    const auto sent = host.Messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].command, 1u);
    EXPECT_EQ(sent[0].params.size(), 1u);
    EXPECT_TRUE(sent[0].postMode);
    EXPECT_EQ(sent[0].objectName, "fido2DataObj");
    host.invokeResult = false;
    EXPECT_TRUE(Exchange(agent::RequestPdu(7, kCmdGetClientInfo, {}), 150).empty());
    EXPECT_EQ(host.LiveContexts(), 0u) << "a context that wasn't sent is destroyed";
    host.invokeResult = true;
    host.setContextOptionResult = false;
    EXPECT_EQ(Exchange(agent::RequestPdu(7, kCmdGetClientInfo, {})).size(), 12u) << "a failed post mode doesn't stop it";
    host.SetObjectState("fido2ControlObj", TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.DestroyedObjects(), std::vector<std::string>{"fido2ControlObj"}) << "a lost object goes alone";
    EXPECT_FALSE(Answers()) << "and takes readiness with it";
}

TEST_F(ChannelLifecycle, PeerOptionsOrElseTheSettingsChooseTheSideChannel) {
    const uint32_t none = 0xFFFFFFFF, failed = 0xFFFFFFFE;  // no offer; an offer whose query fails
    const wchar_t* const off = L"false";
    const int32_t kelda = TBX_SESSION_KELDA, norix = TBX_SESSION_NORIX, tcpSide = TBX_SIDE_CHANNEL_TCP,
                  vchanSide = TBX_SIDE_CHANNEL_VIRTUAL;
    // tcp, vchan: the settings, null when absent; options: the peer's offer on the data object;
    // expectedType: of the side channel requested, 0 for none (the data object connects at once).
    const struct { const wchar_t *tcp, *vchan; int32_t session; uint32_t options; int32_t expectedType; } rows[] = {
        {off, off, kelda, 0x70, 0}, {off, off, norix, 0x30, 0},
        {off, off, norix, 0x40, tcpSide}, {off, off, norix, 0x20, tcpSide},
        {off, off, norix, 0x10, vchanSide}, {off, off, norix, 0x50, vchanSide},
        {off, off, kelda, 0x50, TBX_SIDE_CHANNEL_ZEPH}, {off, off, kelda, 0x10, vchanSide},
        {off, off, norix, 0x00, 0}, {off, off, norix, failed, 0},
        {nullptr, nullptr, norix, none, 0}, {L"true", nullptr, norix, none, tcpSide},
        {L"TRUEish", nullptr, norix, none, tcpSide},  // four letters count
        {off, L"true", norix, none, vchanSide}, {nullptr, L"TRUE", norix, none, vchanSide},
        {nullptr, L"trueish", norix, none, 0},  // the whole text counts here
        {L"true", L"true", norix, none, tcpSide}, {L"", off, norix, none, 0},
    };
    auto same = [](const wchar_t* a, const wchar_t* b) { return a == b || (a && b && wcscmp(a, b) == 0); };
    const wchar_t *tcp = off, *vchan = off;
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "tcp " << (row.tcp ? row.tcp : L"-") << " vchan " << (row.vchan ? row.vchan : L"-")
                                        << " options 0x" << std::hex << row.options << " session " << row.session);
        if (!same(row.tcp, tcp) || !same(row.vchan, vchan)) {
            Reinit(off, off);  // an absent setting keeps what the last init read
            tcp = row.tcp;
            vchan = row.vchan;
            Reinit(tcp, vchan);
        }
        host.Reset();
        host.sessionType = row.session;
        host.withholdObjectOptions = row.options == none;
        TBXUserData instance = NewInstance(false);
        host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
        host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
        host.AnnouncePeerObject("fido2ControlObj");
        host.AnnouncePeerObject("fido2DataObj");
        if (row.options != none) {
            const uint32_t offered = row.options == failed ? 0x20 : row.options;
            host.SetObjectOptions("fido2DataObj", offered, row.options != failed);
        }
        host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
        host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
        for (const auto& o : host.CreatedObjects()) {
            EXPECT_EQ(o.flags, row.session == kelda ? 0x4Du : 0x0Du) << o.name;
        }
        const auto requests = host.SideChannelRequests();
        ASSERT_EQ(requests.size(), row.expectedType ? 1u : 0u);
        if (row.expectedType) {
            EXPECT_EQ(requests[0].type, row.expectedType);
            EXPECT_EQ(requests[0].objectName, "fido2DataObj");
            EXPECT_EQ(requests[0].pluginName, "fido2");
            EXPECT_FALSE(Answers()) << "connected only when the side channel is";
            host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_CONNECTED);
            EXPECT_FALSE(Answers()) << "SIDE_CHANNEL_CONNECTED without PENDING doesn't connect";
            host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_PENDING);
            host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_CONNECTED);
        }
        EXPECT_TRUE(Answers());
        Destroy(instance);
    }
}

TEST_F(ChannelLifecycle, InstancesNeedAnInitWithEveryRequiredHostTable) {
    host.Exit();
    TBXUserData instance = 77;
    EXPECT_FALSE(host.CreateInstance(&instance)) << "after exit";
    EXPECT_EQ(instance, 77u) << "the out value is untouched";
    EXPECT_EQ(host.RegisteredSinks(), 0u);
    EXPECT_FALSE(host.DestroyInstance(0));
    // The older channel table serves for the newer (0x000B, 0x0010); stream data is optional (0x000E, 0x000C).
    const struct { std::vector<uint16_t> withheld; bool creates; } rows[] = {
        {{}, true}, {{0x000B, 0x0010, 0x0006}, false}, {{0x000B, 0x0010}, true}, {{0x0012, 0x000F, 0x000A, 0x0002}, false},
        {{0x0008, 0x0003}, false}, {{0x0000}, false}, {{0x000E, 0x000C}, true}, {{0x0019, 0x0018, 0x0016, 0x0007, 0x0005}, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "withheld ids from " << (row.withheld.empty() ? -1 : row.withheld[0]));
        host.Exit();
        host.Reset();
        host.withheldIds.insert(row.withheld.begin(), row.withheld.end());
        host.Init();
        ASSERT_TRUE(host.Init()) << "a second init is harmless";
        instance = 0;
        const bool created = host.CreateInstance(&instance);
        EXPECT_EQ(created, row.creates);
        if (created) EXPECT_TRUE(host.DestroyInstance(instance));
    }
    host.Reset();
}

TEST_F(ChannelLifecycle, PendingSideChannelSurvivesADisconnectAndBlocksTheNextRequest) {
    NewInstance(false);
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    for (int round = 0; round < 2; ++round) {
        if (round) host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
        host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
        host.AnnouncePeerObject("fido2DataObj");
        host.SetObjectOptions("fido2DataObj", 0x10);
        host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
        if (!round) host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_PENDING);
    }
    EXPECT_EQ(host.SideChannelRequests().size(), 1u) << "the refused second request makes no call";
}

// `instance` stands for a worker's hold on the instance: after the host's destroy, a second
// destroy and every report the host might still send touch nothing.
TEST_F(ChannelLifecycle, SecondDestroyWhileAWorkerHoldsTheInstanceReleasesNothing) {
    const TBXUserData handle = NewInstance();
    // A spare hold keeps a faulty second release from freeing it, so the fault fails, not crashes.
    RCPtr<RPCPluginInstance> instance = FindInstance(handle), spare = instance;
    TBXHandle message = nullptr;  // a message with a reply, so that done and abort can come
    ASSERT_TRUE(instance->CreateMessage(&message, 1));
    ASSERT_TRUE(instance->InvokeMessage(message, true, 1));
    const int32_t held = instance->RefCount();
    Destroy(handle);
    EXPECT_EQ(instance->RefCount(), held - 1) << "the host's reference went";
    ScopedLogCapture log(LOG_NEVER);
    EXPECT_FALSE(host.DestroyInstance(handle));
    const int32_t after = instance->RefCount();
    EXPECT_EQ(after, held - 1) << "a second destroy releases nothing";
    for (int32_t i = after; i < held - 1; ++i) instance->AddRef();  // what a faulty one took
    const int calls = host.ConnectCalls() + host.DisconnectCalls() * 100;
    const size_t objects = host.CreatedObjects().size(), sent = host.Messages().size();
    const int32_t pending = instance->GetPendingCount();
    host.ReportToDestroyedInstance(handle);
    EXPECT_EQ(host.ConnectCalls() + host.DisconnectCalls() * 100, calls);
    EXPECT_EQ(host.CreatedObjects().size(), objects);
    EXPECT_EQ(host.Messages().size(), sent) << "no answer to the request";
    EXPECT_EQ(instance->GetPendingCount(), pending) << "no accounting";
    EXPECT_FALSE(instance->IsReady());
    for (const CapturedLine& line : log->Lines()) EXPECT_NE(line.function.rfind("Fido2ClientPlugin::", 0), 0u) << line.text;
    // The second destroy; five channel reports, three for each of the two objects, done and abort.
    EXPECT_EQ(log->Count(StringUtils::FormatString("RPCPlugin 0x%p not found", AsPtr(handle))), 14u);
}

TEST_F(ChannelLifecycle, ChannelLossWaitsForASendInFlight) {
    RCPtr<RPCPluginInstance> instance = FindInstance(NewInstance());
    host.HoldInvokes(true);
    std::thread sender([&] {  // as a worker sends its answer, outside the host's callbacks
        RPCPluginInstance::SendScope scope(instance.Get());
        TBXHandle context = nullptr;
        if (instance->CreateMessage(&context, 1) && !instance->InvokeMessage(context, false, 1)) {
            instance->DestroyMessage(context);
        }
    });
    ASSERT_TRUE(host.WaitForHeldInvokes(1, 5000));
    auto lossReturned = StartLoss();
    // Time for a loss that doesn't wait to destroy the object under the send.
    EXPECT_FALSE(lossReturned(500)) << "the loss must wait until the send has been handed over";
    host.HoldInvokes(false);
    sender.join();
    ASSERT_TRUE(lossReturned(10000));
    EXPECT_EQ(host.Messages().size(), 1u) << "sent on a live object";
    EXPECT_EQ(host.DestroyedObjects(), (std::vector<std::string>{"fido2DataObj", "fido2ControlObj"}));
    EXPECT_EQ(host.DisconnectCalls(), 0) << "a lost channel isn't disconnected by the client";
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.ObjectsUp();
    EXPECT_TRUE(Answers()) << "the same instance serves the next channel";
}

// A worker killed inside its send leaves the send gate abandoned, not held for good.
TEST_F(ChannelLifecycle, SenderKilledInItsSendDoesNotBlockTheNextLoss) {
    RCPtr<RPCPluginInstance> instance = FindInstance(NewInstance());
    HANDLE sender = CreateThread(nullptr, 0, SendForever, instance.Get(), 0, nullptr);
    ASSERT_NE(sender, nullptr);
    ASSERT_TRUE(WaitUntil([&] { return instance->sendHolder.load() != 0; }, 5000));
    TerminateThread(sender, 1);
    WaitForSingleObject(sender, INFINITE);
    CloseHandle(sender);
    if (!StartLoss()(10000)) {
        ADD_FAILURE() << "the loss hangs on the gate the killed sender left";
        // The fixture's teardown would wait on that gate too: the run ends here, failed.
        fflush(stdout);
        TerminateProcess(GetCurrentProcess(), 1);
    }
    EXPECT_EQ(host.DestroyedObjects(), (std::vector<std::string>{"fido2DataObj", "fido2ControlObj"}));
}

TEST_F(ChannelLifecycle, CallbacksRacingDestroyNeverTouchADestroyedInstance) {
    const sim::Bytes request = agent::RequestPdu(9, kCmdGetClientInfo, {});
    for (int round = 0; round < 200; ++round) {
        host.Reset();
        TBXUserData instance = 0;
        ASSERT_TRUE(host.CreateInstance(&instance));
        host.BringUp();
        std::atomic<bool> stop{false};
        std::thread deliverer([&] {
            while (!stop) {
                host.DeliverMessage(request);
                host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
            }
        });
        std::this_thread::yield();
        EXPECT_TRUE(host.DestroyInstance(instance));
        stop = true;
        deliverer.join();
        EXPECT_FALSE(host.DestroyInstance(instance));
        EXPECT_EQ(host.LiveContexts(), 0u) << "every context was sent or destroyed";
    }
}

// Whatever the host's buffer, the copy is terminated and the trace shows what was copied.
TEST(TokenName, CopiesWhatFitsAndTracesOnlyThat) {
    // buffer: after the call, X marking bytes that must stay untouched.
    const struct { int32_t size; const char *buffer, *exitText; } rows[] = {
        {16, "fido2", "\"fido2\"\n"}, {6, "fido2", "\"fido2\"\n"}, {3, "fi", "\"fi\"\n"},
        {1, "", "\"\"\n"}, {0, "XXXXXXXX", "\"\"\n"}, {-5, "XXXXXXXX", "\"\"\n"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "size " << row.size);
        // Eight marked bytes with no terminator of the host's, then our own to stop any overread
        // in the expectation rather than in the code under test.
        char buffer[17] = {};
        memset(buffer, 'X', 8);
        ScopedLogCapture log(LOG_INFO);
        EXPECT_EQ(TBXService_PluginGetTokenName(buffer, row.size), 1);
        EXPECT_STREQ(buffer, row.buffer);
        ASSERT_FALSE(log->Lines().empty());
        EXPECT_NE(log->Lines().back().text.find(row.exitText), std::string::npos) << log->Lines().back().text;
    }
    EXPECT_EQ(TBXService_PluginGetTokenName(nullptr, 8), 1);
}

}  // namespace
