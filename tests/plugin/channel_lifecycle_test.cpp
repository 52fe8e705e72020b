// The instance's road from created to ready and back, driven through the exports.
#include <thread>

#include "plugin_host_fixture.h"

namespace {

using ChannelLifecycle = PluginOnHost;

TEST_F(ChannelLifecycle, InstancesNeedAnInitWithEveryRequiredHostTable) {
    host.Exit();
    TBXUserData instance = 77;
    EXPECT_FALSE(host.CreateInstance(&instance)) << "after exit";
    EXPECT_EQ(instance, 77u) << "the out value is untouched";
    EXPECT_EQ(host.RegisteredSinks(), 0u);
    EXPECT_FALSE(host.DestroyInstance(0));
    const struct {
        std::vector<uint16_t> withheld;
        bool creates;
    } rows[] = {
        {{}, true}, {{0x000B, 0x0010, 0x0006}, false},
        {{0x000B, 0x0010}, true},  // the older channel table serves
        {{0x0012, 0x000F, 0x000A, 0x0002}, false}, {{0x0008, 0x0003}, false}, {{0x0000}, false},
        {{0x000E, 0x000C}, true},  // stream data is optional
        {{0x0019, 0x0018, 0x0016, 0x0007, 0x0005}, false},
    };
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

TEST_F(ChannelLifecycle, ConnectsCreatesTheAnnouncedObjectsAndIsReadyWithBoth) {
    const TBXUserData first = NewInstance(false);
    EXPECT_EQ(host.ConnectCalls(), 0);
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.ConnectCalls(), 1) << "the current state decides for the connection";
    host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_CONNECTED);  // the reported one for the channel
    EXPECT_TRUE(host.CreatedObjects().empty()) << "a client waits for the peer's announcement";
    for (const char* name : {"fido2DataObjTcp", "fido2ControlObj", "somethingElse", "fido2ControlObj", "fido2DataObj"}) {
        host.AnnouncePeerObject(name);
    }
    const auto objects = host.CreatedObjects();
    ASSERT_EQ(objects.size(), 2u) << "repeated and second data announcements keep the objects";
    EXPECT_EQ(objects[0].name, "fido2DataObjTcp");
    EXPECT_EQ(objects[1].name, "fido2ControlObj");
    for (const auto& o : objects) EXPECT_EQ(o.flags, 0x0Du) << o.name;
    host.SetObjectState("fido2DataObjTcp", TBX_STATE_CONNECTED);
    EXPECT_FALSE(Answers()) << "ready needs both objects";
    host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
    EXPECT_TRUE(Answers());
    Destroy(first);

    // A connect that fails is not undone by a disconnect, but tried again on the next report.
    host.Reset();
    host.sessionType = TBX_SESSION_KELDA;
    host.connectResult = false;
    host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);  // before the sink exists
    const TBXUserData second = NewInstance(false);
    EXPECT_EQ(host.ConnectCalls(), 1) << "a sink registered on a connection that is up connects at once";
    host.ReportConnection(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
    EXPECT_EQ(host.DisconnectCalls(), 0) << "nothing to disconnect after a failed connect";
    host.connectResult = true;
    host.BringUp();
    EXPECT_EQ(host.ConnectCalls(), 2);
    for (const auto& o : host.CreatedObjects()) EXPECT_EQ(o.flags, 0x4Du) << "Kelda session: " << o.name;
    EXPECT_TRUE(Answers());
    Destroy(second);
    EXPECT_EQ(host.DisconnectCalls(), 1);
}

TEST_F(ChannelLifecycle, EachLossEndsReadinessAndDestroysWhatItMust) {
    const struct {
        const char* lost;  // an object, "channel" or "connection"
        std::vector<std::string> destroyed;
        int disconnects;
    } rows[] = {
        {"fido2ControlObj", {"fido2ControlObj"}, 0},
        {"fido2DataObj", {"fido2DataObj"}, 0},
        {"channel", {"fido2DataObj", "fido2ControlObj"}, 0},  // a lost channel isn't disconnected by the client
        {"connection", {"fido2DataObj", "fido2ControlObj"}, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lost);
        host.Reset();
        TBXUserData instance = NewInstance();
        ASSERT_TRUE(Answers());
        const std::string lost = row.lost;
        if (lost == "channel") {
            host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
        } else if (lost == "connection") {
            host.ReportConnection(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
        } else {
            host.SetObjectState(lost, TBX_STATE_DISCONNECTED);
        }
        EXPECT_EQ(host.DestroyedObjects(), row.destroyed);
        EXPECT_EQ(host.DisconnectCalls(), row.disconnects);
        EXPECT_FALSE(Answers());
        if (lost == "channel") {
            host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
            host.ObjectsUp();
            EXPECT_TRUE(Answers()) << "the same instance serves the next channel";
        }
        Destroy(instance);
    }
}

TEST_F(ChannelLifecycle, AnswerIsHandedOverAsOneBlobStructure) {
    NewInstance();
    // GetClientInfo with request id 0x0A0B0C0D and agent version 3.1.2: the answer is the client
    // version 1.0.0.
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
    EXPECT_EQ(Exchange(agent::RequestPdu(7, kCmdGetClientInfo, {})).size(), 12u)
        << "a failed post-mode option doesn't stop the send";
}

TEST_F(ChannelLifecycle, PeerOptionsOrElseTheSettingsChooseTheSideChannel) {
    const uint32_t none = 0xFFFFFFFF, failed = 0xFFFFFFFE;  // no offer; an offer whose query fails
    const wchar_t* const off = L"false";
    const int32_t kelda = TBX_SESSION_KELDA, norix = TBX_SESSION_NORIX, tcpSide = TBX_SIDE_CHANNEL_TCP,
                  vchanSide = TBX_SIDE_CHANNEL_VIRTUAL;
    const struct {
        const wchar_t* tcp;  // settings; null: absent
        const wchar_t* vchan;
        int32_t session;
        uint32_t options;      // the peer's offer on the data object
        int32_t expectedType;  // 0: no request, the data object connects at once
    } rows[] = {
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
            Reinit(tcp = row.tcp, vchan = row.vchan);
        }
        host.Reset();
        host.sessionType = row.session;
        host.withholdObjectOptions = row.options == none;
        TBXUserData instance = NewInstance(false);
        host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
        host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
        host.AnnouncePeerObject("fido2ControlObj");
        host.AnnouncePeerObject("fido2DataObj");
        if (row.options != none) host.SetObjectOptions("fido2DataObj", row.options == failed ? 0x20 : row.options, row.options != failed);
        host.SetObjectState("fido2ControlObj", TBX_STATE_CONNECTED);
        host.SetObjectState("fido2DataObj", TBX_STATE_CONNECTED);
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

}  // namespace
