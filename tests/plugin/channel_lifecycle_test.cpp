// The instance's road from created to ready and back, driven through the DLL's exports.
#include <thread>

#include "plugin_host_fixture.h"

namespace {

using ChannelLifecycle = PluginOnHost;

TEST_F(ChannelLifecycle, TokenNameWorksBeforeInitAndIsCutToTheBuffer) {
    host.Exit();
    EXPECT_EQ(host.TokenName(), "fido2");
    EXPECT_EQ(host.TokenName(3), "fi");
    EXPECT_EQ(host.TokenName(1), "");
    ASSERT_TRUE(host.Init());
}

TEST_F(ChannelLifecycle, NoInstanceBeforeInitOrAfterExit) {
    host.Exit();
    TBXUserData instance = 77;
    EXPECT_FALSE(host.CreateInstance(&instance));
    EXPECT_EQ(instance, 77u) << "the out value is untouched";
    EXPECT_EQ(host.RegisteredSinks(), 0u);
    ASSERT_TRUE(host.Init());
    ASSERT_TRUE(host.Init()) << "a second init is harmless";
    EXPECT_TRUE(host.CreateInstance(&instance));
    instances.push_back(instance);
}

TEST_F(ChannelLifecycle, MissingHostTablesRefuseInstancesButStreamDataIsOptional) {
    struct Row {
        std::vector<uint16_t> withheld;
        bool initialises;
    } rows[] = {
        {{0x000B, 0x0010, 0x0006}, false},
        {{0x000B, 0x0010}, true},  // the older channel table serves
        {{0x0012, 0x000F, 0x000A, 0x0002}, false},
        {{0x0008, 0x0003}, false},
        {{0x0000}, false},
        {{0x000E, 0x000C}, true},
        {{0x0019, 0x0018, 0x0016, 0x0007, 0x0005}, false},
    };
    for (const Row& row : rows) {
        host.Exit();
        host.Reset();
        host.withheldIds.insert(row.withheld.begin(), row.withheld.end());
        host.Init();
        TBXUserData instance = 0;
        bool created = host.CreateInstance(&instance);
        EXPECT_EQ(created, row.initialises) << "first withheld id " << row.withheld[0];
        if (created) {
            EXPECT_TRUE(host.DestroyInstance(instance));
        }
    }
    host.Exit();
    host.Reset();
    ASSERT_TRUE(host.Init());
}

TEST_F(ChannelLifecycle, ConnectsWhenTheConnectionComesUpAndCreatesAnnouncedObjects) {
    NewInstance();
    EXPECT_EQ(host.ConnectCalls(), 0);
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    EXPECT_EQ(host.ConnectCalls(), 1);
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    EXPECT_TRUE(host.CreatedObjects().empty()) << "a client waits for the peer's announcement";
    host.AnnouncePeerObject("fido2DataObj");
    host.AnnouncePeerObject("fido2ControlObj");
    host.AnnouncePeerObject("somethingElse");
    auto objects = host.CreatedObjects();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects[0].name, "fido2DataObj");
    EXPECT_EQ(objects[1].name, "fido2ControlObj");
    EXPECT_EQ(objects[0].flags, 0x0Du);
    EXPECT_EQ(objects[1].flags, 0x0Du);
    host.AnnouncePeerObject("fido2ControlObj");
    host.AnnouncePeerObject("fido2DataObjTcp");
    EXPECT_EQ(host.CreatedObjects().size(), 2u) << "repeated and second data announcements keep the objects";
    EXPECT_FALSE(Answers());
    host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
    EXPECT_FALSE(Answers()) << "ready needs both objects";
    host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
    EXPECT_TRUE(Answers());
}

TEST_F(ChannelLifecycle, ReadyDoesNotDependOnTheOrderOfTheObjects) {
    NewInstance();
    UpToAnnouncedObjects("fido2DataObjTcp");
    host.SetObjectState("fido2DataObjTcp", TBX_STATE_CONNECTED);
    EXPECT_FALSE(Answers());
    host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
    EXPECT_TRUE(Answers()) << "the TCP data object name serves as well";
}

TEST_F(ChannelLifecycle, KeldaSessionSetsTheZephFlag) {
    host.sessionType = TBX_SESSION_KELDA;
    NewInstance();
    host.BringUp();
    for (const auto& o : host.CreatedObjects()) EXPECT_EQ(o.flags, 0x4Du) << o.name;
}

TEST_F(ChannelLifecycle, SinkRegisteredOnAChannelAlreadyUpConnectsAtOnce) {
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);  // no sink yet
    EXPECT_EQ(host.ConnectCalls(), 0);
    NewInstance();
    EXPECT_EQ(host.ConnectCalls(), 1) << "Connect comes from inside the instance's creation";
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.ObjectsUp();
    EXPECT_TRUE(Answers());
}

TEST_F(ChannelLifecycle, FailedConnectIsNotUndoneLater) {
    host.connectResult = false;
    TBXUserData instance = NewInstance();
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    EXPECT_EQ(host.ConnectCalls(), 1);
    host.ReportConnection(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.DisconnectCalls(), 0) << "nothing to disconnect after a failed connect";
    host.connectResult = true;
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    EXPECT_EQ(host.ConnectCalls(), 2) << "the next report tries again";
    Destroy(instance);
    EXPECT_EQ(host.DisconnectCalls(), 1);
}

TEST_F(ChannelLifecycle, LosingEitherObjectEndsReadiness) {
    for (const char* lost : {"fido2ControlObj", "fido2DataObj"}) {
        host.Reset();
        TBXUserData instance = NewInstance();
        host.BringUp();
        ASSERT_TRUE(Answers());
        host.SetObjectState(lost, TBX_STATE_DISCONNECTED);
        EXPECT_EQ(host.DestroyedObjects(), std::vector<std::string>{lost});
        EXPECT_FALSE(Answers()) << lost;
        Destroy(instance);
    }
}

TEST_F(ChannelLifecycle, ChannelLossDestroysTheDataObjectFirst) {
    NewInstance();
    host.BringUp();
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.DestroyedObjects(), (std::vector<std::string>{"fido2DataObj", "fido2ControlObj"}));
    EXPECT_EQ(host.LiveObjects(), 0u);
    EXPECT_EQ(host.DisconnectCalls(), 0) << "a lost channel is not disconnected by the client";
    // The same instance serves the next channel.
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.ObjectsUp();
    EXPECT_TRUE(Answers());
}

TEST_F(ChannelLifecycle, ConnectionLossDisconnectsAndDestroysBoth) {
    NewInstance();
    host.BringUp();
    host.ReportConnection(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.DisconnectCalls(), 1);
    EXPECT_EQ(host.DestroyedObjects(), (std::vector<std::string>{"fido2DataObj", "fido2ControlObj"}));
}

TEST_F(ChannelLifecycle, ConnectionReportsFollowTheCurrentStateChannelReportsTheReported) {
    NewInstance();
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.ConnectCalls(), 1) << "current CONNECTED decides";
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_CONNECTED);
    host.ObjectsUp();
    EXPECT_TRUE(Answers()) << "reported CONNECTED decides for the channel";
}

TEST_F(ChannelLifecycle, DestroyWhileConnectedDisconnectsOnceAndUnregisters) {
    TBXUserData instance = NewInstance();
    host.BringUp();
    EXPECT_EQ(host.RegisteredSinks(), 1u);
    Destroy(instance);
    EXPECT_EQ(host.DisconnectCalls(), 1) << "the simulated disconnect report finds nothing to disconnect";
    EXPECT_EQ(host.DestroyedObjects(), (std::vector<std::string>{"fido2DataObj", "fido2ControlObj"}));
    EXPECT_EQ(host.RegisteredSinks(), 0u);
    EXPECT_FALSE(host.DestroyInstance(instance)) << "a second destroy finds nothing";
    EXPECT_FALSE(host.DestroyInstance(0));
}

TEST_F(ChannelLifecycle, ReportsForADestroyedInstanceTouchNothing) {
    TBXUserData instance = NewInstance();
    host.BringUp();
    ASSERT_TRUE(Answers());
    Destroy(instance);
    const size_t sent = host.Messages().size();
    // Every report and callback the instance ever had a sink for, with its old user data.
    host.ReportToDestroyedInstance(instance);
    EXPECT_EQ(host.ConnectCalls(), 1) << "only the first bring-up connected";
    EXPECT_EQ(host.DisconnectCalls(), 1) << "only the destroy disconnected";
    EXPECT_EQ(host.CreatedObjects().size(), 2u) << "no object for the announcements";
    EXPECT_EQ(host.LiveObjects(), 0u);
    EXPECT_EQ(host.RegisteredSinks(), 0u);
    EXPECT_EQ(host.Messages().size(), sent) << "no answer to the request";
}

TEST_F(ChannelLifecycle, AnswerIsHandedOverAsOneBlobStructure) {
    NewInstance();
    host.BringUp();
    // GetClientInfo with request id 0x0A0B0C0D: the answer is the client version 1.0.0.
    const sim::Bytes answer = Exchange({0x0D, 0x0C, 0x0B, 0x0A, 0x01, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(answer, (sim::Bytes{0x0D, 0x0C, 0x0B, 0x0A, 0x04, 0, 0, 0, 0x00, 0x00, 0x00, 0x01}));
    const auto sent = host.Messages();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].command, 1u);
    EXPECT_EQ(sent[0].params.size(), 1u);
    EXPECT_TRUE(sent[0].postMode);
    EXPECT_EQ(sent[0].objectName, "fido2DataObj");
}

// --- Side channels ---

struct SideRow {
    uint32_t options;
    int32_t session;
    int32_t expectedType;  // 0: no request, the data object connects at once
};

TEST_F(ChannelLifecycle, PeerOptionsChooseTheSideChannel) {
    const SideRow rows[] = {
        {0x70, TBX_SESSION_KELDA, 0}, {0x30, TBX_SESSION_NORIX, 0},
        {0x40, TBX_SESSION_NORIX, TBX_SIDE_CHANNEL_TCP}, {0x20, TBX_SESSION_NORIX, TBX_SIDE_CHANNEL_TCP},
        {0x10, TBX_SESSION_NORIX, TBX_SIDE_CHANNEL_VIRTUAL}, {0x50, TBX_SESSION_NORIX, TBX_SIDE_CHANNEL_VIRTUAL},
        {0x50, TBX_SESSION_KELDA, TBX_SIDE_CHANNEL_ZEPH}, {0x10, TBX_SESSION_KELDA, TBX_SIDE_CHANNEL_VIRTUAL},
        {0x00, TBX_SESSION_NORIX, 0},
    };
    for (const SideRow& row : rows) {
        SCOPED_TRACE(testing::Message() << "options 0x" << std::hex << row.options << " session " << row.session);
        host.Reset();
        host.sessionType = row.session;
        TBXUserData instance = NewInstance();
        UpToAnnouncedObjects();
        host.SetObjectOptions("fido2DataObj", row.options);
        host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
        host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
        auto requests = host.SideChannelRequests();
        if (row.expectedType == 0) {
            EXPECT_TRUE(requests.empty());
            EXPECT_TRUE(Answers());
        } else {
            ASSERT_EQ(requests.size(), 1u);
            EXPECT_EQ(requests[0].type, row.expectedType);
            EXPECT_EQ(requests[0].objectName, "fido2DataObj");
            EXPECT_EQ(requests[0].pluginName, "fido2");
            EXPECT_FALSE(Answers()) << "connected only when the side channel is";
            host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_CONNECTED);
            EXPECT_FALSE(Answers()) << "SIDE_CHANNEL_CONNECTED without PENDING doesn't connect";
            host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_PENDING);
            host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_CONNECTED);
            EXPECT_TRUE(Answers());
        }
        Destroy(instance);
    }
}

struct SettingRow {
    const wchar_t* tcp;
    const wchar_t* vchan;
    int32_t expectedType;
};

TEST_F(ChannelLifecycle, RegistrySettingsDecideWithoutAnOffer) {
    const SettingRow rows[] = {
        {nullptr, nullptr, 0},
        {L"true", nullptr, TBX_SIDE_CHANNEL_TCP},
        {L"TRUEish", nullptr, TBX_SIDE_CHANNEL_TCP},  // the first four letters count
        {L"false", L"true", TBX_SIDE_CHANNEL_VIRTUAL},
        {nullptr, L"TRUE", TBX_SIDE_CHANNEL_VIRTUAL},
        {nullptr, L"trueish", 0},  // the whole text counts for the virtual one
        {L"true", L"true", TBX_SIDE_CHANNEL_TCP},
        {L"", L"false", 0},
    };
    for (const SettingRow& row : rows) {
        SCOPED_TRACE(testing::Message() << "tcp " << (row.tcp ? row.tcp : L"-") << " vchan "
                                        << (row.vchan ? row.vchan : L"-"));
        host.withholdObjectOptions = true;  // no offer from the peer: the settings decide
        ReinitWithSettings(row.tcp, row.vchan);
        TBXUserData instance = NewInstance();
        host.BringUp();
        auto requests = host.SideChannelRequests();
        if (row.expectedType == 0) {
            EXPECT_TRUE(requests.empty());
            EXPECT_TRUE(Answers());
        } else {
            ASSERT_EQ(requests.size(), 1u);
            EXPECT_EQ(requests[0].type, row.expectedType);
        }
        Destroy(instance);
    }
}

TEST_F(ChannelLifecycle, FailedOptionsQueryFallsBackToTheSettings) {
    NewInstance();
    UpToAnnouncedObjects();
    host.SetObjectOptions("fido2DataObj", 0x20, false);
    host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
    host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
    EXPECT_TRUE(host.SideChannelRequests().empty());
    EXPECT_TRUE(Answers());
}

TEST_F(ChannelLifecycle, PendingSideChannelSurvivesADisconnectAndBlocksTheNextRequest) {
    TBXUserData instance = NewInstance();
    UpToAnnouncedObjects();
    host.SetObjectOptions("fido2DataObj", 0x10);
    host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
    host.SetObjectState("fido2DataObj", TBX_STATE_SIDE_CHANNEL_PENDING);
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
    host.AnnouncePeerObject("fido2DataObj");
    host.SetObjectOptions("fido2DataObj", 0x10);
    host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
    EXPECT_EQ(host.SideChannelRequests().size(), 1u) << "the refused second request makes no call";
    Destroy(instance);
}

// --- Handles against a racing destroy ---

TEST_F(ChannelLifecycle, CallbacksRacingDestroyNeverTouchADestroyedInstance) {
    const sim::Bytes request = Request(9, kCmdGetClientInfo, {});
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

}  // namespace
