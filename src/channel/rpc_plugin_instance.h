// The per-connection object of the framework: follows the host's reports of connection,
// channel and channel objects, creates the objects the peer announces, tells the derived
// plug-in when it is ready, and creates and sends its messages.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>

#include "channel/host_interfaces.h"
#include "foundation/rc_object.h"
#include "foundation/sy_event.h"
#include "foundation/sy_mutex.h"
#include "foundation/sy_timer.h"

class RPCManager;

class RPCPluginInstance : public RCObject {
public:
    RPCPluginInstance(RPCManager* manager, bool isStatic);
    ~RPCPluginInstance() override;

    virtual bool ClearsObjectFlag8() { return false; }
    virtual bool ClearsObjectFlag4() { return false; }
    virtual void OnConnectFailed() {}
    virtual void ReservedHook1() {}
    virtual void ReservedHook2() {}
    virtual void OnReady() {}
    virtual void OnNotReady() {}
    virtual void OnDone(uint32_t /*messageId*/, uintptr_t /*hostWord*/) {}
    virtual void OnAbort(uint32_t /*messageId*/, int8_t /*flag*/, uint32_t /*code*/) {}
    virtual void OnInvoke(TBXHandle /*context*/) {}

    // For derived classes.
    const TBXVariantInterface* GetVariantInterface();
    const TBXChannelContextInterface* GetChannelContextInterface();
    // selector 1: the data object; any other: the control object.
    bool CreateMessage(TBXHandle* context, int32_t selector);
    bool DestroyMessage(TBXHandle context);
    // selector 0: the control object; any other: the data object. A context that was sent
    // belongs to the host; the caller destroys it only when this fails.
    bool InvokeMessage(TBXHandle context, bool replyExpected, int32_t selector);

    // Held by a derived class across one whole send, from CreateMessage to InvokeMessage or
    // DestroyMessage: no object it sends on is destroyed before the send is over. Inside an
    // outer scope of the same thread it costs nothing.
    class SendScope {
    public:
        explicit SendScope(RPCPluginInstance* instance);
        ~SendScope();
        SendScope(const SendScope&) = delete;
        SendScope& operator=(const SendScope&) = delete;

    private:
        RPCPluginInstance* instance;
        bool outer;
    };

    // The state machine, driven by the manager and the host callbacks.
    bool RegisterChannelSink(TBXHandle channelWord);
    bool UnregisterChannelSink();
    bool ChannelConnect();
    bool ChannelDisconnect();
    bool ChannelControlObjCreate(const char* objectName);
    bool ChannelDataObjCreate(const char* objectName);
    bool ChannelObjCreate(const char* objectName, const void* sink, bool useTcp, bool useVirtual,
                          std::atomic<TBXHandle>* object);
    bool ChannelObjDestroy(const char* objectName, std::atomic<TBXHandle>* object);
    void OnChannelDisconnected();
    void OnChannelDataObjConnected();
    void OnChannelControlObjConnected();

    void HandleConnectionState(RPCManager& mgr, int32_t current, int32_t reported);
    void HandleChannelState(RPCManager& mgr, int32_t current, int32_t reported);
    void HandlePeerObject(RPCManager& mgr, const char* objectName);
    void HandleControlObjectState(RPCManager& mgr);
    void HandleDataObjectState(RPCManager& mgr);
    void HandleMsgDone(RPCManager& mgr, uint32_t messageId, uintptr_t hostWord);
    void HandleMsgAbort(uint32_t messageId, int8_t flag, uint32_t code);

    uint64_t GetHandle() const { return handle; }
    bool IsReady() const { return ready; }
    int32_t GetPendingCount();
    size_t GetPendingRequestCount();
    RCPtr<RPCManager> LockManager() const;

    WkPtr<RPCManager> manager;
    TBXHandle channel = nullptr;
    int32_t sinkHandle = -1;
    bool discardNewConnection = false;
    char controlObjName[64] = {};
    std::atomic<TBXHandle> controlObject{nullptr};
    char dataObjName[64] = {};
    std::atomic<TBXHandle> dataObject{nullptr};
    bool connectRequested = false;
    bool channelConnected = false;
    bool useTcpSideChannel = false;
    bool useVirtualSideChannel = false;
    bool sideChannelPending = false;
    // Read by worker threads while host callbacks change it.
    std::atomic<bool> ready{false};
    bool controlConnected = false;
    bool dataConnected = false;
    bool streamData = false;
    SyMutex messageMutex;
    SyEvent noMessagesPending{true, true, ""};
    int32_t pendingCount = 0;
    SyEvent readyEvent{true, false, ""};
    SyEvent connectFailedEvent{true, false, ""};
    TBXHandle serverId = nullptr;
    uint64_t handle = 0;
    // The host's destroy has begun: a second one finds nothing to release.
    std::atomic<bool> destroyRequested{false};
    // The host's destroy has unregistered the sink: what still reports is stale and finds nothing.
    std::atomic<bool> detached{false};
    // Held by each send from its read of an object field to the host's answer, and by the
    // destroy of an object between taking it out of its field and DestroyChannelObject. A
    // system mutex: a worker killed in a send leaves it abandoned, not locked for good.
    SyMutex sendMutex;
    // The thread in the outermost SendScope; 0 when none.
    std::atomic<uint32_t> sendHolder{0};

    struct PendingRequest {
        uint32_t messageId;
        SyElapsedTimer timer;
    };
    std::list<PendingRequest> pendingRequests;

private:
    void Accounting(int32_t delta);
    void BecomeReadyIfBothConnected();
    void RequestSideChannelOrConnect(RPCManager& mgr);
};

// Holder of one host variant for the length of one send or receive.
class RPCVariant {
public:
    explicit RPCVariant(RPCPluginInstance* instance);
    ~RPCVariant();
    TBXVariant* Get() { return &variant; }
    // Clears the variant now; the destructor then clears it again, as the host allows.
    void Clear();

    RPCVariant(const RPCVariant&) = delete;
    RPCVariant& operator=(const RPCVariant&) = delete;

private:
    TBXVariant variant{};
    RCPtr<RPCPluginInstance> instance;
    const TBXVariantInterface* table = nullptr;
};
