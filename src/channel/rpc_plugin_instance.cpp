#include "channel/rpc_plugin_instance.h"

#include <windows.h>

#include <cstring>

#include "channel/rpc_manager.h"
#include "logging/function_trace.h"
#include "logging/log.h"
#include "sysutil/string_utils.h"

namespace {
void* AsPointer(uint64_t value) { return reinterpret_cast<void*>(static_cast<uintptr_t>(value)); }

const char* const kStreamDataRefusal = " is not supported in streamData mode\n";
}  // namespace

RPCPluginInstance::RPCPluginInstance(RPCManager* mgr, bool isStatic) : RCObject(!isStatic), manager(mgr) {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::RPCPluginInstance()", nullptr, "%s(0x%p) created rcEnabled(%s)",
                        mgr ? mgr->name : "", static_cast<void*>(this), isStatic ? "FALSE" : "TRUE");
    handle = RegisterInstance(this);
    trace.SetExitText(LOG_INFO, "Handle 0x%p added", AsPointer(handle));
}

RPCPluginInstance::~RPCPluginInstance() {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::~RPCPluginInstance()", nullptr, "0x%p destroyed\n",
                        static_cast<void*>(this));
    uint64_t old = handle;
    handle = 0;
    trace.SetExitText(LOG_INFO, "Handle 0x%p %s", AsPointer(old), UnregisterInstance(old) ? "removed" : "not found");
    SyMutexGuard guard(&messageMutex);
    pendingRequests.clear();
}

RCPtr<RPCManager> RPCPluginInstance::LockManager() const { return manager.Lock(); }

const TBXVariantInterface* RPCPluginInstance::GetVariantInterface() {
    RCPtr<RPCManager> mgr = LockManager();
    return mgr ? &mgr->variantInterface : nullptr;
}

const TBXChannelContextInterface* RPCPluginInstance::GetChannelContextInterface() {
    RCPtr<RPCManager> mgr = LockManager();
    return mgr ? &mgr->channelContextInterface : nullptr;
}

// --- Sink registration and the channel ---

bool RPCPluginInstance::RegisterChannelSink(TBXHandle channelWord) {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::RegisterChannelSink()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "RegisterChannelSink%s", kStreamDataRefusal);
        return false;
    }
    if (sinkHandle != -1) {
        trace.SetExitText(LOG_ERROR, "Channel sink already registered\n");
        return true;
    }
    RCPtr<RPCManager> mgr = LockManager();
    if (!mgr || !mgr->channelInterface.RegisterChannelNotifySink ||
        !mgr->channelInterface.RegisterChannelNotifySink(&mgr->channelSink, handle, &sinkHandle)) {
        sinkHandle = -1;
        trace.SetExitText(LOG_ERROR, "Channel.v1.RegisterChannelNotifySink() failed\n");
        return false;
    }
    channel = channelWord;
    SY_LOG(LOG_INFO, "RPCPluginInstance::RegisterChannelSink()", "Channel.v1.RegisterChannelNotifySink() [OK]\n");
    if (mgr->channelInterface.GetChannelState && mgr->channelInterface.GetChannelState() == TBX_STATE_CONNECTED) {
        // The channel was up before this instance: take the same road as a real report.
        SY_LOG(LOG_INFO, "RPCPluginInstance::RegisterChannelSink()", "Simulating connect callback\n");
        RPCManager::OnConnectionStateChanged(handle, TBX_STATE_CONNECTED, TBX_STATE_CONNECTED, 0);
    }
    return true;
}

bool RPCPluginInstance::UnregisterChannelSink() {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::UnregisterChannelSink()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "UnregisterChannelSink%s", kStreamDataRefusal);
        return false;
    }
    if (sinkHandle == -1) {
        trace.SetExitText(LOG_ERROR, "Channel sink not registered\n");
        return true;
    }
    RCPtr<RPCManager> mgr = LockManager();
    if (mgr && mgr->channelInterface.GetChannelState && mgr->channelInterface.GetChannelState() == TBX_STATE_CONNECTED) {
        SY_LOG(LOG_INFO, "RPCPluginInstance::UnregisterChannelSink()", "Simulating disconnect callback\n");
        RPCManager::OnConnectionStateChanged(handle, TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED, 0);
    }
    bool ok = mgr && mgr->channelInterface.UnregisterChannelNotifySink &&
              mgr->channelInterface.UnregisterChannelNotifySink(sinkHandle);
    trace.SetExitText(LOG_ERROR, ok ? "Channel.v1.UnregisterChannelNotifySink() [OK]\n"
                                    : "Channel.v1.UnregisterChannelNotifySink() failed\n");
    channel = nullptr;
    sinkHandle = -1;
    return ok;
}

bool RPCPluginInstance::ChannelConnect() {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::ChannelConnect()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "ChannelConnect%s", kStreamDataRefusal);
        return false;
    }
    RCPtr<RPCManager> mgr = LockManager();
    if (mgr && mgr->channelInterface.Connect && mgr->channelInterface.Connect()) {
        SY_LOG(LOG_INFO, "RPCPluginInstance::ChannelConnect()", "Channel.v1.Connect() [OK]\n");
        connectRequested = true;
        return true;
    }
    SY_LOG(LOG_ERROR, "RPCPluginInstance::ChannelConnect()", "Channel.v1.Connect() failed\n");
    return false;
}

bool RPCPluginInstance::ChannelDisconnect() {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::ChannelDisconnect()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "ChannelDisconnect%s", kStreamDataRefusal);
        return false;
    }
    bool result = true;
    if (connectRequested) {
        RCPtr<RPCManager> mgr = LockManager();
        if (mgr && mgr->channelInterface.Disconnect && mgr->channelInterface.Disconnect()) {
            SY_LOG(LOG_INFO, "RPCPluginInstance::ChannelDisconnect()", "Channel.v1.Disconnect() [OK]\n");
        } else {
            SY_LOG(LOG_ERROR, "RPCPluginInstance::ChannelDisconnect()", "Channel.v1.Disconnect() failed\n");
            result = false;
        }
    }
    OnChannelDisconnected();
    connectFailedEvent.Reset();
    return result;
}

// --- Channel objects ---

bool RPCPluginInstance::ChannelControlObjCreate(const char* objectName) {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::ChannelControlObjCreate()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "ChannelControlObjCreate%s", kStreamDataRefusal);
        return false;
    }
    if (!objectName || !*objectName) return false;
    RCPtr<RPCManager> mgr = LockManager();
    if (!mgr) return false;
    StringUtils::CopyBounded(controlObjName, objectName, sizeof(controlObjName) - 1);
    SY_LOG(LOG_DEBUG, "RPCPluginInstance::ChannelControlObjCreate()", "Creating control object: %s\n", controlObjName);
    return ChannelObjCreate(controlObjName, &mgr->controlSink, false, false, &controlObject);
}

bool RPCPluginInstance::ChannelDataObjCreate(const char* objectName) {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::ChannelDataObjCreate()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "ChannelDataObjCreate%s", kStreamDataRefusal);
        return false;
    }
    if (!objectName || !*objectName) return false;
    RCPtr<RPCManager> mgr = LockManager();
    if (!mgr) return false;
    StringUtils::CopyBounded(dataObjName, objectName, sizeof(dataObjName) - 1);
    SY_LOG(LOG_INFO, "RPCPluginInstance::ChannelDataObjCreate()", "Creating data object: %s\n", dataObjName);
    return ChannelObjCreate(dataObjName, &mgr->dataSink, mgr->tcpEnabled, mgr->vchanEnabled, &dataObject);
}

bool RPCPluginInstance::ChannelObjCreate(const char* objectName, const void* sink, bool useTcp, bool useVirtual,
                                         std::atomic<TBXHandle>* object) {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::ChannelObjCreate()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "ChannelObjCreate%s", kStreamDataRefusal);
        return false;
    }
    if (!object) return false;
    if (object->load() != nullptr) {
        trace.SetExitText(LOG_ERROR, "Channel object \"%s\" already created\n", objectName);
        return true;
    }
    RCPtr<RPCManager> mgr = LockManager();
    if (!mgr) return false;
    useTcpSideChannel = useTcp;
    useVirtualSideChannel = useVirtual;
    const int32_t session = mgr->channelInterface.GetSessionType ? mgr->channelInterface.GetSessionType()
                                                                 : TBX_SESSION_NONE;
    const bool zeph = session == TBX_SESSION_KELDA && mgr->zephSupported;
    uint32_t flags = ClearsObjectFlag4() ? 0x01 : 0x05;
    if (!mgr->isServer) {
        if (zeph) flags |= 0x40;
        if (!ClearsObjectFlag8()) flags |= 0x08;
    } else if (useTcp) {
        if (!ClearsObjectFlag8()) flags |= 0x08;
        flags |= 0x20;
    } else if (!useVirtual) {
        flags |= 0x30;
    } else {
        flags |= 0x10;
        if (zeph) flags |= 0x40;
    }
    TBXHandle created = nullptr;
    if (!mgr->channelObjectInterface.CreateChannelObject ||
        !mgr->channelObjectInterface.CreateChannelObject(objectName, sink, handle, flags, &created)) {
        SY_LOG(LOG_ERROR, "RPCPluginInstance::ChannelObjCreate()", "Failed to create channel object \"%s\"\n",
               objectName);
        return false;
    }
    object->store(created);
    SY_LOG(LOG_INFO, "RPCPluginInstance::ChannelObjCreate()", "Channel object \"%s\" created with flags 0x%x\n",
           objectName, flags);
    return true;
}

bool RPCPluginInstance::ChannelObjDestroy(const char* objectName, std::atomic<TBXHandle>* object) {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::ChannelObjDestroy()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "ChannelObjDestroy%s", kStreamDataRefusal);
        return false;
    }
    if (!object) {
        SY_LOG(LOG_ERROR, "RPCPluginInstance::ChannelObjDestroy()", "Null object handle in ChannelObjDestroy\n");
        return false;
    }
    bool result = true;
    // Out of its field first, so no new send finds it; then wait for a send that found it before.
    TBXHandle old = object->exchange(nullptr);
    if (old) {
        SendScope sends(this);
        RCPtr<RPCManager> mgr = LockManager();
        if (mgr && mgr->channelObjectInterface.DestroyChannelObject &&
            mgr->channelObjectInterface.DestroyChannelObject(old)) {
            SY_LOG(LOG_INFO, "RPCPluginInstance::ChannelObjDestroy()", "Channel object \"%s\" destroyed\n", objectName);
        } else {
            SY_LOG(LOG_ERROR, "RPCPluginInstance::ChannelObjDestroy()", "Failed to destroy channel object \"%s\"\n",
                   objectName);
            result = false;
        }
    }
    if (ready) {
        readyEvent.Reset();
        ready = false;
        OnNotReady();
    }
    return result;
}

void RPCPluginInstance::OnChannelDisconnected() {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::OnChannelDisconnected()");
    if (connectRequested && !channelConnected) {
        connectRequested = false;
        channelConnected = false;
        connectFailedEvent.Set();
        OnConnectFailed();
    } else {
        connectRequested = false;
        channelConnected = false;
    }
    // The data object goes first.
    if (dataObject.load()) {
        dataConnected = false;
        ChannelObjDestroy(dataObjName, &dataObject);
    }
    if (controlObject.load()) {
        controlConnected = false;
        ChannelObjDestroy(controlObjName, &controlObject);
    }
}

void RPCPluginInstance::BecomeReadyIfBothConnected() {
    if (controlConnected && dataConnected && !ready) {
        readyEvent.Set();
        ready = true;
        OnReady();
    }
}

void RPCPluginInstance::OnChannelDataObjConnected() {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::OnChannelDataObjConnected()");
    dataConnected = true;
    BecomeReadyIfBothConnected();
}

void RPCPluginInstance::OnChannelControlObjConnected() {
    FunctionTrace trace(LOG_INFO, "RPCPluginInstance::OnChannelControlObjConnected()");
    controlConnected = true;
    BecomeReadyIfBothConnected();
}

// --- Reports of the host ---

void RPCPluginInstance::HandleConnectionState(RPCManager& mgr, int32_t current, int32_t reported) {
    static const char* const kLabel = "RPCManager::OnConnectionStateChanged()";
    FunctionTrace trace(LOG_INFO, kLabel, nullptr, "%s(0x%p) - rpcPlugin(0x%p) Connection is now %s", mgr.name,
                        AsPointer(mgr.handle), AsPointer(handle), ChannelStateText(reported).c_str());
    if (current != reported) {
        SY_LOG(LOG_INFO, kLabel, "   but the current state is %s\n", ChannelStateText(current).c_str());
    }
    switch (current) {
        case TBX_STATE_DISCONNECTED:
            ChannelDisconnect();
            break;
        case TBX_STATE_CONNECTED:
            if (discardNewConnection) {
                SY_LOG(LOG_WARN, kLabel, "New connection discarded by request.\n");
            } else {
                ChannelConnect();
            }
            break;
        default:
            trace.SetExitText(LOG_ERROR, "State %s is not handled\n", ChannelStateText(current).c_str());
            break;
    }
}

void RPCPluginInstance::HandleChannelState(RPCManager& mgr, int32_t current, int32_t reported) {
    static const char* const kLabel = "RPCManager::OnChannelStateChanged()";
    FunctionTrace trace(LOG_INFO, kLabel, nullptr, "%s(0x%p) - rpcPlugin(0x%p) Channel is now %s\n", mgr.name,
                        AsPointer(mgr.handle), AsPointer(handle), ChannelStateText(reported).c_str());
    if (current != reported) {
        SY_LOG(LOG_INFO, kLabel, "   but the current state is %s\n", ChannelStateText(current).c_str());
    }
    switch (reported) {
        case TBX_STATE_DISCONNECTED:
            OnChannelDisconnected();
            break;
        case TBX_STATE_CONNECTED: {
            int32_t session = mgr.channelInterface.GetSessionType ? mgr.channelInterface.GetSessionType()
                                                                  : TBX_SESSION_NONE;
            mgr.ConfigureSidechannelType(session);
            SY_LOG(LOG_DEBUG, kLabel, "Set session type of the channel to %s\n", SessionText(session).c_str());
            channelConnected = true;
            connectFailedEvent.Reset();
            break;
        }
        default:
            trace.SetExitText(LOG_ERROR, "State %s is not handled.\n", ChannelStateText(reported).c_str());
            break;
    }
    if (mgr.isServer && current == TBX_STATE_CONNECTED && reported == TBX_STATE_CONNECTED) {
        SY_LOG(LOG_INFO, kLabel, "Channel connect, creating channel objects.\n");
        ChannelControlObjCreate(mgr.controlObjName);
    }
}

void RPCPluginInstance::HandlePeerObject(RPCManager& mgr, const char* objectName) {
    FunctionTrace trace(LOG_INFO, "RPCManager::OnPeerChannelObjectCreated()", nullptr,
                        "%s(0x%p) - rpcPlugin(0x%p) Peer channel object \"%s\" created\n", mgr.name,
                        AsPointer(mgr.handle), AsPointer(handle), objectName ? objectName : "");
    if (mgr.isServer || !objectName) return;
    if (strcmp(objectName, mgr.controlObjName) == 0) ChannelControlObjCreate(objectName);
    if (strcmp(objectName, mgr.dataObjName) == 0) ChannelDataObjCreate(objectName);
    if (strcmp(objectName, mgr.tcpDataObjName) == 0) ChannelDataObjCreate(objectName);
}

void RPCPluginInstance::HandleControlObjectState(RPCManager& mgr) {
    int32_t state = mgr.channelObjectInterface.GetObjectState
                        ? mgr.channelObjectInterface.GetObjectState(controlObject.load())
                        : TBX_STATE_UNINITIALIZED;
    FunctionTrace trace(LOG_INFO, "RPCManager::OnChannelControlObjectStateChanged()", nullptr,
                        "%s(0x%p) - rpcPlugin(0x%p) Channel object \"%s\" is now %s\n", mgr.name,
                        AsPointer(mgr.handle), AsPointer(handle), controlObjName, ObjectStateText(state).c_str());
    switch (state) {
        case TBX_STATE_DISCONNECTED: {
            FunctionTrace inner(LOG_INFO, "RPCPluginInstance::OnChannelControlObjDisconnected()");
            controlConnected = false;
            ChannelObjDestroy(controlObjName, &controlObject);
            break;
        }
        case TBX_STATE_CONNECTED:
            OnChannelControlObjConnected();
            if (mgr.isServer) ChannelDataObjCreate(mgr.tcpEnabled ? mgr.tcpDataObjName : mgr.dataObjName);
            break;
        default:
            trace.SetExitText(LOG_ERROR, "State %s is not handled.\n", ObjectStateText(state).c_str());
            break;
    }
}

void RPCPluginInstance::HandleDataObjectState(RPCManager& mgr) {
    static const char* const kLabel = "RPCManager::OnChannelDataObjectStateChanged()";
    int32_t state = mgr.channelObjectInterface.GetObjectState
                        ? mgr.channelObjectInterface.GetObjectState(dataObject.load())
                        : TBX_STATE_UNINITIALIZED;
    FunctionTrace trace(LOG_INFO, kLabel, nullptr, "%s(0x%p) - rpcPlugin(0x%p) Channel object \"%s\" is now %s\n",
                        mgr.name, AsPointer(mgr.handle), AsPointer(handle), dataObjName,
                        ObjectStateText(state).c_str());
    switch (state) {
        case TBX_STATE_DISCONNECTED: {
            FunctionTrace inner(LOG_INFO, "RPCPluginInstance::OnChannelDataObjDisconnected()");
            dataConnected = false;
            ChannelObjDestroy(dataObjName, &dataObject);
            break;
        }
        case TBX_STATE_CONNECTED:
            RequestSideChannelOrConnect(mgr);
            break;
        case TBX_STATE_SIDE_CHANNEL_PENDING:
            sideChannelPending = true;
            break;
        case TBX_STATE_SIDE_CHANNEL_CONNECTED:
            if (sideChannelPending) {
                OnChannelDataObjConnected();
                sideChannelPending = false;
            } else {
                SY_LOG(LOG_INFO, kLabel, "Side channel was not pending when connected was received.\n");
            }
            break;
        default:
            trace.SetExitText(LOG_ERROR, "State %s is not handled.\n", ObjectStateText(state).c_str());
            break;
    }
}

// When the data object connects: take the side channel that the peer offers, or the one
// our settings ask for, or none.
void RPCPluginInstance::RequestSideChannelOrConnect(RPCManager& mgr) {
    static const char* const kLabel = "RPCManager::OnChannelDataObjectStateChanged()";
    uint32_t options = 0;
    bool zeph = false;
    const TBXHandle object = dataObject.load();
    if (mgr.channelObjectInterface.GetObjectOptions) {
        uint32_t raw = 0;
        if (!mgr.channelObjectInterface.GetObjectOptions(object, &raw)) {
            options = 0;
            SY_LOG(LOG_WARN, kLabel, "Obtain DataObj options failed \n");
        } else {
            SY_LOG(LOG_DEBUG, kLabel, "DataObj options = 0x%08x\n", raw);
            if ((raw & 0x40) && mgr.channelInterface.GetSessionType &&
                mgr.channelInterface.GetSessionType() == TBX_SESSION_KELDA) {
                zeph = mgr.zephSupported;
            }
            options = raw & 0x70;
        }
    }
    if ((options & 0x30) == 0x30) {
        OnChannelDataObjConnected();
        return;
    }
    auto request = [&](int32_t type) {
        if (mgr.channelObjectInterface.RequestSideChannel) {
            mgr.channelObjectInterface.RequestSideChannel(object, type, mgr.name);
        }
    };
    auto requestVirtual = [&] {
        if (zeph) {
            SY_LOG(LOG_INFO, kLabel, "Requesting ZEPH side channel.\n");
            request(TBX_SIDE_CHANNEL_ZEPH);
        } else {
            SY_LOG(LOG_INFO, kLabel, "Requesting virtual side channel.\n");
            request(TBX_SIDE_CHANNEL_VIRTUAL);
        }
    };
    if (!mgr.isServer && options != 0) {
        if (sideChannelPending) {
            SY_LOG(LOG_ERROR, kLabel, "Side channel request failed.\n");
        } else if (options & 0x10) {
            requestVirtual();
        } else {
            SY_LOG(LOG_INFO, kLabel, "Requesting tcp side channel.\n");
            request(TBX_SIDE_CHANNEL_TCP);
        }
        return;
    }
    SY_LOG(LOG_DEBUG, kLabel, "Determine sc[0x%08x] type by itself.\n", options);
    if (useTcpSideChannel) {
        if (sideChannelPending) {
            SY_LOG(LOG_ERROR, kLabel, "TCP Side channel request failed.\n");
        } else {
            SY_LOG(LOG_INFO, kLabel, "Requesting TCP side channel.\n");
            request(TBX_SIDE_CHANNEL_TCP);
        }
    } else if (useVirtualSideChannel) {
        if (sideChannelPending) {
            SY_LOG(LOG_ERROR, kLabel, "Virtual Side channel request failed.\n");
        } else {
            requestVirtual();
        }
    } else {
        OnChannelDataObjConnected();
    }
}

// --- Messages ---

bool RPCPluginInstance::CreateMessage(TBXHandle* context, int32_t selector) {
    static const char* const kLabel = "RPCPluginInstance::CreateMessage()";
    SendScope sends(this);
    TBXHandle object = selector == 1 ? dataObject.load() : controlObject.load();
    if (!object) {
        SY_LOG(LOG_DEBUG, kLabel, "Failed to create message (hChannel == NULL)\n");
        return false;
    }
    if (!ready) {
        SY_LOG(LOG_DEBUG, kLabel, "Failed to create message (not ready)\n");
        return false;
    }
    RCPtr<RPCManager> mgr = LockManager();
    if (!mgr || !mgr->channelObjectInterface.CreateContext ||
        !mgr->channelObjectInterface.CreateContext(object, context)) {
        SY_LOG(LOG_DEBUG, kLabel, "Failed to create message (CreateContext failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::DestroyMessage(TBXHandle context) {
    SendScope sends(this);
    RCPtr<RPCManager> mgr = LockManager();
    if (!mgr || !mgr->channelObjectInterface.DestroyContext || !mgr->channelObjectInterface.DestroyContext(context)) {
        SY_LOG(LOG_DEBUG, "RPCPluginInstance::DestroyMessage()", "Failed to destroy message (DestroyContext failed)\n");
        return false;
    }
    return true;
}

bool RPCPluginInstance::InvokeMessage(TBXHandle context, bool replyExpected, int32_t selector) {
    FunctionTrace trace(LOG_TRACE, "RPCPluginInstance::InvokeMessage()");
    if (streamData) {
        trace.SetExitText(LOG_ERROR, "InvokeMessage%s", kStreamDataRefusal);
        return false;
    }
    SendScope sends(this);
    RCPtr<RPCManager> mgr = LockManager();
    if (!mgr) return false;
    TBXMessageSink sink = mgr->messageSink;
    if (!replyExpected) {
        // Post mode: the host sends no done or abort report for this message.
        sink.OnMsgDone = nullptr;
        sink.OnMsgAbort = nullptr;
        RPCVariant variant(this);
        if (mgr->variantInterface.VariantFromUInt32) mgr->variantInterface.VariantFromUInt32(variant.Get(), 1);
        if (!mgr->channelContextInterface.SetContextOption ||
            !mgr->channelContextInterface.SetContextOption(context, 1, variant.Get())) {
            SY_LOG(LOG_WARN, "RPCPluginInstance::InvokeMessage()", "Unable to set post mode for tbxservice.\n");
        }
    }
    TBXHandle object = selector == 0 ? controlObject.load() : dataObject.load();
    if (!object || !ready) {
        trace.SetExitText(LOG_DEBUG, "Failed to send message (not ready)\n");
        return false;
    }
    Accounting(replyExpected ? 1 : 0);
    uint32_t id = mgr->channelContextInterface.GetContextId ? mgr->channelContextInterface.GetContextId(context) : 0;
    SyElapsedTimer timer;
    if (!mgr->channelObjectInterface.Invoke || !mgr->channelObjectInterface.Invoke(object, context, &sink, handle)) {
        trace.SetExitText(LOG_ERROR, "Failed to send message (Invoke failed)\n");
        return false;
    }
    if (replyExpected) {
        SyMutexGuard guard(&messageMutex);
        pendingRequests.push_back(PendingRequest{id, timer});
    }
    return true;
}

void RPCPluginInstance::Accounting(int32_t delta) {
    SyMutexGuard guard(&messageMutex);
    int32_t count = pendingCount + delta;
    if (count < 0) {
        count = 0;
        noMessagesPending.Set();
    } else if (count == 0) {
        noMessagesPending.Set();
    } else {
        noMessagesPending.Reset();
    }
    pendingCount = count;
}

int32_t RPCPluginInstance::GetPendingCount() {
    SyMutexGuard guard(&messageMutex);
    return pendingCount;
}

size_t RPCPluginInstance::GetPendingRequestCount() {
    SyMutexGuard guard(&messageMutex);
    return pendingRequests.size();
}

void RPCPluginInstance::HandleMsgDone(RPCManager& mgr, uint32_t messageId, uintptr_t hostWord) {
    {
        SyMutexGuard guard(&messageMutex);
        for (auto it = pendingRequests.begin(); it != pendingRequests.end(); ++it) {
            if (it->messageId == messageId) {
                pendingRequests.erase(it);
                break;
            }
            int64_t waited = it->timer.ElapsedMs();
            if (waited > 1000) {
                SY_LOG(LOG_DEBUG, "RPCManager::OnMsgDone()",
                       "%s(0x%p) - rpcPlugin(0x%p) Request %d still pending sfter %dms\n", mgr.name,
                       AsPointer(mgr.handle), AsPointer(handle), static_cast<int>(it->messageId),
                       static_cast<int>(waited));
            }
        }
    }
    Accounting(-1);
    OnDone(messageId, hostWord);
}

void RPCPluginInstance::HandleMsgAbort(uint32_t messageId, int8_t flag, uint32_t code) {
    Accounting(-1);
    OnAbort(messageId, flag, code);
}

RPCPluginInstance::SendScope::SendScope(RPCPluginInstance* owner)
    : instance(owner), outer(owner->sendHolder.load() != GetCurrentThreadId()) {
    if (!outer) return;
    instance->sendMutex.Acquire();
    instance->sendHolder = GetCurrentThreadId();
}

RPCPluginInstance::SendScope::~SendScope() {
    if (!outer) return;
    instance->sendHolder = 0;
    instance->sendMutex.Release();
}

// --- RPCVariant ---

RPCVariant::RPCVariant(RPCPluginInstance* owner) : instance(owner) {
    RCPtr<RPCManager> mgr = owner ? owner->LockManager() : nullptr;
    if (mgr) {
        table = &mgr->variantInterface;
        if (table->VariantInit) table->VariantInit(&variant);
    }
}

void RPCVariant::Clear() {
    if (table && table->VariantClear) table->VariantClear(&variant);
}

RPCVariant::~RPCVariant() {
    Clear();
    instance = nullptr;
}
