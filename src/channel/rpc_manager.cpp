#include "channel/rpc_manager.h"

#include <cstring>

#include "channel/rpc_plugin_instance.h"
#include "foundation/user_data_map.h"
#include "logging/function_trace.h"
#include "logging/log.h"
#include "registry/sy_reg_key.h"
#include "sysutil/string_utils.h"

namespace {

using ManagerMap = UserDataMap<WkPtr<RPCManager>>;
using InstanceMap = UserDataMap<WkPtr<RPCPluginInstance>>;

// Created by the first TBXPluginInit of any manager and never freed: callbacks may still
// look managers up while the process goes down.
ManagerMap* managerRegistry = nullptr;

SyMutex& ServerManagersMutex() {
    static SyMutex mutex(false, "");
    return mutex;
}
std::map<TBXHandle, RCPtr<RPCManager>>& ServerManagers() {
    static std::map<TBXHandle, RCPtr<RPCManager>> managers;
    return managers;
}

void* AsPointer(uint64_t value) { return reinterpret_cast<void*>(static_cast<uintptr_t>(value)); }

template <class Table>
bool Fetch(TBXQueryInterfaceFn query, const uint16_t* ids, size_t count, Table* table) {
    if (!query) return false;
    for (size_t i = 0; i < count; ++i) {
        TBXGuid id = TbxInterfaceId(ids[i]);
        if (query(&id, table)) return true;
    }
    return false;
}
#define FETCH(query, ids, table) Fetch(query, ids, sizeof(ids) / sizeof(ids[0]), table)

// Finds the instance of a callback, with its manager; logs and yields false if either is gone.
bool FindTarget(TBXUserData handle, RCPtr<RPCPluginInstance>& instance, RCPtr<RPCManager>& mgr,
                const char* function) {
    instance = FindInstance(handle);
    // An instance that a worker still holds after the host's destroy is gone for the host.
    if (!instance || instance->detached) {
        SY_LOG(LOG_WARN, function, "RPCPlugin 0x%p not found", AsPointer(handle));
        return false;
    }
    mgr = instance->LockManager();
    return static_cast<bool>(mgr);
}

}  // namespace

// The instance registry: built on first use, which is before any instance exists.
static InstanceMap& InstanceRegistry() {
    static InstanceMap registry(false);
    return registry;
}

bool ManagerRegistryExists() { return managerRegistry != nullptr; }

RCPtr<RPCManager> FindManager(uint64_t handle) {
    if (!managerRegistry) return nullptr;
    return managerRegistry->Find(handle).Lock();
}

RCPtr<RPCPluginInstance> FindInstance(uint64_t handle) { return InstanceRegistry().Find(handle).Lock(); }

uint64_t RegisterInstance(RPCPluginInstance* instance) {
    return InstanceRegistry().Add(WkPtr<RPCPluginInstance>(instance));
}

bool UnregisterInstance(uint64_t handle) { return InstanceRegistry().Remove(handle); }

std::string ChannelStateText(int32_t state) {
    switch (state) {
        case TBX_STATE_UNINITIALIZED: return "UNINITIALIZED";
        case TBX_STATE_DISCONNECTED: return "DISCONNECTED";
        case TBX_STATE_PENDING: return "PENDING";
        case TBX_STATE_CONNECTED: return "CONNECTED";
        default: return StringUtils::FormatString("unknown%d", state);
    }
}

std::string ObjectStateText(int32_t state) {
    switch (state) {
        case TBX_STATE_UNINITIALIZED:
        case TBX_STATE_DISCONNECTED:
        case TBX_STATE_PENDING:
        case TBX_STATE_CONNECTED: return ChannelStateText(state);
        case TBX_STATE_SIDE_CHANNEL_PENDING: return "SIDE_CHANNEL_PENDING";
        case TBX_STATE_SIDE_CHANNEL_CONNECTED: return "SIDE_CHANNEL_CONNECTED";
        case TBX_STATE_PENDING_AND_PEER_OBJ_CREATED: return "PENDING_AND_PEER_OBJ_CREATED";
        default: return StringUtils::FormatString("unknown[%d]", state);
    }
}

std::string SessionText(int32_t sessionType) {
    switch (sessionType) {
        case TBX_SESSION_NONE: return "NONE SESSION";
        case TBX_SESSION_NORIX: return "NORIX SESSION";
        case TBX_SESSION_KELDA: return "KELDA SESSION";
        default: return StringUtils::FormatString("unknown %d", sessionType);
    }
}

RPCManager::RPCManager(const char* tokenName, const char* controlName, const char* dataName, const char* tcpDataName,
                       bool isStatic)
    : RCObject(!isStatic) {
    StringUtils::CopyBounded(name, tokenName, sizeof(name) - 1);
    StringUtils::CopyBounded(controlObjName, controlName, sizeof(controlObjName) - 1);
    StringUtils::CopyBounded(dataObjName, dataName, sizeof(dataObjName) - 1);
    StringUtils::CopyBounded(tcpDataObjName, tcpDataName, sizeof(tcpDataObjName) - 1);
    serverSink = {1, TbxOnServerConnected, TbxOnServerDisconnected, TbxOnServerInstanceCreated,
                  TbxOnServerInstanceDestroyed};
    channelSink = {1, OnConnectionStateChanged, OnChannelStateChanged, OnPeerChannelObjectCreated};
    controlSink = {1, OnControlMsgInvoke, OnChannelControlObjectStateChanged};
    dataSink = {1, OnDataMsgInvoke, OnChannelDataObjectStateChanged};
    messageSink = {1, OnMsgDone, OnMsgAbort};
}

RPCManager::~RPCManager() {
    FunctionTrace trace(LOG_INFO, "RPCManager::~RPCManager()", nullptr, "%s(0x%p) destroyed", name,
                        AsPointer(handle));
    if (handle != 0) {
        uint64_t old = handle;
        handle = 0;
        const char* outcome = !managerRegistry ? "not removed" : managerRegistry->Remove(old) ? "removed" : "not found";
        trace.SetExitText(LOG_INFO, "Handle 0x%p %s", AsPointer(old), outcome);
    }
}

std::string RPCManager::SettingPath(const char* valueName) const {
    if (isServer) return std::string("HKLM\\Software\\Orvane, Inc.\\Orvane ") + name + "\\" + valueName;
    return std::string("HKLM\\Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\") + name + "\\" + valueName;
}

bool RPCManager::TBXPluginInit(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface) {
    FunctionTrace trace(LOG_INFO, "RPCManager::TBXPluginInit()", nullptr, "%s(0x%p)", name, AsPointer(handle));
    OnPluginInit(hostWord, queryInterface);
    if (handle == 0) {
        if (!managerRegistry) managerRegistry = new ManagerMap();
        handle = managerRegistry->Add(WkPtr<RPCManager>(this));
    }
    ClientInit(hostWord, queryInterface);
    return true;
}

bool RPCManager::ClientInit(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface) {
    FunctionTrace trace(LOG_INFO, "RPCManager::ClientInit()", nullptr, "%s(0x%p)", name, AsPointer(handle));
    if (isInitialized) {
        trace.SetExitText(LOG_ERROR, "Already initialized\n");
        return false;
    }
    if (!Init(false, hostWord, queryInterface)) {
        trace.SetExitText(LOG_ERROR, "Init() failed\n");
        return false;
    }
    if (!ConfigureTcpSideChan()) {
        trace.SetExitText(LOG_ERROR, "Error in configuring TcpSide Channel.\n");
        return false;
    }
    if (!tcpEnabled && !ConfigureVirtualSideChan()) {
        trace.SetExitText(LOG_ERROR, "Error in configuring Virtual Side Channel.\n");
        return false;
    }
    isInitialized = true;
    OnClientInit();
    return true;
}

bool RPCManager::Init(bool server, uintptr_t hostWord, TBXQueryInterfaceFn query) {
    FunctionTrace trace(LOG_INFO, "RPCManager::Init()", nullptr, "%s(0x%p) - isServer(%s)", name, AsPointer(handle),
                        server ? "TRUE" : "FALSE");
    if (!FETCH(query, kTbxChannelV2Ids, &channelInterface)) {
        if (server) {
            SY_LOG(LOG_DEBUG, "RPCManager::Init()",
                   "Failed to get TBXService_ChannelInterface_V2, streamData mode not supported\n");
        }
        if (!FETCH(query, kTbxChannelIds, &channelInterface)) {
            trace.SetExitText(LOG_ERROR, "Failed to get TBXService_ChannelInterface\n");
            return false;
        }
    }
    if (!FETCH(query, kTbxChannelObjectIds, &channelObjectInterface)) {
        trace.SetExitText(LOG_ERROR, "Failed to get TBXRPC_ChannelObjectInterface\n");
        return false;
    }
    if (!FETCH(query, kTbxChannelContextIds, &channelContextInterface)) {
        trace.SetExitText(LOG_ERROR, "Failed to get TBXRPC_ChannelContextInterface\n");
        return false;
    }
    if (!FETCH(query, kTbxVariantIds, &variantInterface)) {
        trace.SetExitText(LOG_ERROR, "Failed to get TBXRPC_VariantInterface\n");
        return false;
    }
    if (!FETCH(query, kTbxStreamDataIds, &streamDataInterface)) {
        streamDataInterface = {};
        SY_LOG(LOG_WARN, "RPCManager::Init()", "Failed to get TBXRPC_StreamDataInterface\n");
    }
    if (!server) {
        if (!FETCH(query, kTbxClientOverlayIds, &clientInterface)) {
            trace.SetExitText(LOG_ERROR, "Failed to get TBXOverlay_ClientInterface\n");
            return false;
        }
        zephSupported = true;
        trace.SetExitText(LOG_DEBUG, "ZEPH side channel %ssupported\n", "");
    } else {
        if (!FETCH(query, kTbxServerIds, &serverInterface)) {
            SY_LOG(LOG_WARN, "RPCManager::Init()", "Failed to get TBXService_ServerInterface\n");
        }
        if (!FETCH(query, kTbxGuestOverlayIds, &guestInterface)) {
            trace.SetExitText(LOG_ERROR, "Failed to get TBXOverlay_GuestInterface\n");
            return false;
        }
    }
    isServer = server;
    hostApi[0] = hostWord;
    hostApi[1] = reinterpret_cast<uintptr_t>(query);
    return true;
}

bool RPCManager::TBXPluginExit() {
    FunctionTrace trace(LOG_INFO, "RPCManager::TBXPluginExit()", nullptr, "%s(0x%p)", name, AsPointer(handle));
    ClientExit();
    OnPluginExit();
    return true;
}

void RPCManager::ClientExit() {
    FunctionTrace trace(LOG_INFO, "RPCManager::ClientExit()", nullptr, "%s(0x%p)", name, AsPointer(handle));
    if (!isInitialized) {
        trace.SetExitText(LOG_ERROR, "Not initialized\n");
        return;
    }
    isInitialized = false;
    OnClientExit();
}

bool RPCManager::TBXPluginCreateInstance(TBXHandle channelWord, TBXUserData* instanceHandle) {
    FunctionTrace trace(LOG_INFO, "RPCManager::TBXPluginCreateInstance()", nullptr, "%s(0x%p)", name,
                        AsPointer(handle));
    if (!isInitialized) {
        trace.SetExitText(LOG_WARN, "Plugin is not initialized yet.\n");
        return false;
    }
    RCPtr<RPCPluginInstance> instance(CreateClientInstance());
    if (!instance) return false;
    instance->RegisterChannelSink(channelWord);
    if (instanceHandle) *instanceHandle = instance->GetHandle();
    // Stands for the host's hold on the instance; only TBXPluginDestroyInstance gives it up.
    instance->AddRef();
    trace.SetExitText(LOG_INFO, "rpcPlugin(0x%p) created", AsPointer(instance->GetHandle()));
    return true;
}

bool RPCManager::TBXPluginDestroyInstance(TBXUserData instanceHandle) {
    RCPtr<RPCPluginInstance> instance = FindInstance(instanceHandle);
    // The host's reference goes once: a second destroy, also one while a worker keeps the
    // instance alive or while the first is still under way, finds nothing.
    if (!instance || instance->destroyRequested.exchange(true)) {
        SY_LOG(LOG_WARN, "RPCManager::TBXPluginDestroyInstance()", "RPCPlugin 0x%p not found",
               AsPointer(instanceHandle));
        return false;
    }
    FunctionTrace trace(LOG_INFO, "RPCManager::TBXPluginDestroyInstance()", nullptr,
                        "%s(0x%p) - rpcPlugin(0x%p)  refCount(%ld)", name, AsPointer(handle),
                        AsPointer(instanceHandle), static_cast<long>(instance->RefCount()));
    instance->ChannelDisconnect();
    instance->UnregisterChannelSink();
    instance->detached = true;
    DestroyClientInstance(instance);
    trace.SetExitText(LOG_INFO, "%s(0x%p) - rpcPlugin(0x%p)  refCount(%ld)", name, AsPointer(handle),
                      AsPointer(instanceHandle), static_cast<long>(instance->RefCount() - 2));
    // The host's reference, taken in TBXPluginCreateInstance. Ours goes with `instance`.
    instance->Release();
    return true;
}

RPCPluginInstance* RPCManager::CreateClientInstance() { return new RPCPluginInstance(this, false); }
void RPCManager::DestroyClientInstance(RCPtr<RPCPluginInstance>) {}
RPCPluginInstance* RPCManager::CreateServerInstance(TBXHandle) { return new RPCPluginInstance(this, false); }
void RPCManager::DestroyServerInstance(TBXHandle, RCPtr<RPCPluginInstance>) {}
bool RPCManager::OnPluginInit(uintptr_t, TBXQueryInterfaceFn) { return false; }
bool RPCManager::OnPluginExit() { return false; }

bool RPCManager::OnServerConnected(int32_t sessionType, TBXHandle serverId) {
    SY_LOG(LOG_INFO, "RPCManager::OnServerConnected()", "%s server [0x%p] connected.", SessionText(sessionType).c_str(),
           serverId);
    return true;
}

bool RPCManager::OnServerDisconnected(TBXHandle serverId) {
    SY_LOG(LOG_INFO, "RPCManager::OnServerDisconnected()", "Server [0x%p] disconnected.", serverId);
    return true;
}

bool RPCManager::ConfigureTcpSideChan() {
    static const char* const kLabel = "RPCManager::ConfigureTcpSideChan()";
    std::string path = SettingPath("tcpEnabled");
    std::string value = ReadRegString(path, RegView::Win32Default, 7);
    SY_LOG(LOG_INFO, kLabel, "Checking tcp side at \"%s\"\n", path.c_str());
    if (!value.empty() && _strnicmp(value.c_str(), "true", 4) == 0) {
        tcpEnabled = true;
        tcpConfigured = true;
        SY_LOG(LOG_INFO, kLabel, "tcp side channel is enabled\n");
    } else if (!value.empty() && _strnicmp(value.c_str(), "false", 5) == 0) {
        tcpEnabled = false;
        tcpConfigured = true;
        SY_LOG(LOG_INFO, kLabel, "tcp side channel is disabled\n");
    } else {
        SY_LOG(LOG_INFO, kLabel, "tcp side channel is %sabled (by default)\n", tcpEnabled ? "en" : "dis");
    }
    return true;
}

bool RPCManager::ConfigureVirtualSideChan() {
    static const char* const kLabel = "RPCManager::ConfigureVirtualSideChan()";
    std::string path = SettingPath("vchanSideChannelEnabled");
    std::string value = ReadRegString(path, RegView::Win32Default, 7);
    SY_LOG(LOG_INFO, kLabel, "Checking Virtual side channel at \"%s\"\n", path.c_str());
    if (_stricmp(value.c_str(), "true") == 0) {
        vchanEnabled = true;
        SY_LOG(LOG_INFO, kLabel, "Virtual side channel is enabled.\n");
    } else if (_stricmp(value.c_str(), "false") == 0) {
        vchanEnabled = false;
        SY_LOG(LOG_INFO, kLabel, "Virtual side channel is disabled.\n");
    } else {
        SY_LOG(LOG_INFO, kLabel, "Virtual side channel is %sabled (by default)\n", vchanEnabled ? "en" : "dis");
    }
    return true;
}

void RPCManager::ConfigureSidechannelType(int32_t sessionType) {
    if (!isServer) return;
    std::string value = ReadRegString(SettingPath("sideChannelType"), RegView::Win32Default, 7);
    auto is = [&](const char* word) { return _strnicmp(value.c_str(), word, strlen(word)) == 0; };
    auto tcpOnly = [&] {
        tcpEnabled = true;
        vchanEnabled = false;
    };
    auto kelda = [&](bool zeph) {
        if (sessionType == TBX_SESSION_KELDA) {
            tcpEnabled = false;
            vchanEnabled = true;
            zephSupported = zeph;
        } else {
            tcpOnly();
        }
    };
    if (is("none")) {
        tcpEnabled = false;
        vchanEnabled = false;
    } else if (is("norix")) {
        if (sessionType == TBX_SESSION_NORIX) {
            tcpEnabled = false;
            vchanEnabled = true;
        } else {
            tcpOnly();
        }
    } else if (is("vchan")) {
        tcpEnabled = false;
        vchanEnabled = true;
    } else if (is("tcp")) {
        tcpOnly();
    } else if (is("yfq")) {
        kelda(false);
    } else if (is("zeph")) {
        kelda(true);
    } else if (!tcpConfigured && strcmp(name, "qmrd") == 0) {
        kelda(false);
    }
    SY_LOG(LOG_INFO, "RPCManager::ConfigureSidechannelType()", "Sidechannel tcp:%sabled vchan:%sabled zeph:%spreferred.\n",
           tcpEnabled ? "en" : "dis", vchanEnabled ? "en" : "dis", zephSupported ? "" : "not ");
}

// --- Host callbacks ---

void TBXAPI RPCManager::OnConnectionStateChanged(TBXUserData h, int32_t current, int32_t reported, uintptr_t) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnConnectionStateChanged()")) {
        instance->HandleConnectionState(*mgr, current, reported);
    }
}

void TBXAPI RPCManager::OnChannelStateChanged(TBXUserData h, int32_t current, int32_t reported, uintptr_t) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnChannelStateChanged()")) {
        instance->HandleChannelState(*mgr, current, reported);
    }
}

void TBXAPI RPCManager::OnPeerChannelObjectCreated(TBXUserData h, const char* objectName) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnPeerChannelObjectCreated()")) {
        instance->HandlePeerObject(*mgr, objectName);
    }
}

void TBXAPI RPCManager::OnChannelControlObjectStateChanged(TBXUserData h, int32_t) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnChannelControlObjectStateChanged()")) {
        instance->HandleControlObjectState(*mgr);
    }
}

void TBXAPI RPCManager::OnChannelDataObjectStateChanged(TBXUserData h, int32_t) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnChannelDataObjectStateChanged()")) {
        instance->HandleDataObjectState(*mgr);
    }
}

void TBXAPI RPCManager::OnControlMsgInvoke(TBXUserData h, TBXHandle context) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnControlMsgInvoke()")) instance->OnInvoke(context);
}

void TBXAPI RPCManager::OnDataMsgInvoke(TBXUserData h, TBXHandle context) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnDataMsgInvoke()")) instance->OnInvoke(context);
}

void TBXAPI RPCManager::OnMsgDone(TBXUserData h, uint32_t messageId, uintptr_t hostWord) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnMsgDone()")) instance->HandleMsgDone(*mgr, messageId, hostWord);
}

void TBXAPI RPCManager::OnMsgAbort(TBXUserData h, uint32_t messageId, int8_t flag, uint32_t code) {
    RCPtr<RPCPluginInstance> instance;
    RCPtr<RPCManager> mgr;
    if (FindTarget(h, instance, mgr, "RPCManager::OnMsgAbort()")) instance->HandleMsgAbort(messageId, flag, code);
}

// --- Server half: carried by the class, unused by this client plug-in. ---

TBXBool TBXAPI RPCManager::TbxOnServerConnected(TBXUserData h, int32_t sessionType, TBXHandle serverId) {
    RCPtr<RPCManager> mgr = FindManager(h);
    if (!mgr) {
        SY_LOG(LOG_WARN, "RPCManager::TbxOnServerConnected()", "RPCManager 0x%p not found", AsPointer(h));
        return false;
    }
    FunctionTrace trace(LOG_INFO, "RPCManager::TbxOnServerConnected()", nullptr, "%s(0x%p) - hServerId(0x%p) %s",
                        mgr->name, AsPointer(mgr->handle), serverId, SessionText(sessionType).c_str());
    {
        SyMutexGuard guard(&ServerManagersMutex());
        ServerManagers()[serverId] = mgr;
    }
    return mgr->OnServerConnected(sessionType, serverId);
}

TBXBool TBXAPI RPCManager::TbxOnServerDisconnected(TBXUserData h, TBXHandle serverId) {
    RCPtr<RPCManager> mgr = FindManager(h);
    if (!mgr) {
        SY_LOG(LOG_WARN, "RPCManager::TbxOnServerDisconnected()", "RPCManager(0x%p) hServerId(0x%p) not found",
               AsPointer(h), serverId);
        return false;
    }
    FunctionTrace trace(LOG_INFO, "RPCManager::TbxOnServerDisconnected()", nullptr, "%s(0x%p) - hServerId(0x%p)",
                        mgr->name, AsPointer(mgr->handle), serverId);
    mgr->OnServerDisconnected(serverId);
    return true;
}

TBXBool TBXAPI RPCManager::TbxOnServerInstanceCreated(TBXUserData h, TBXHandle serverId, TBXUserData* out) {
    RCPtr<RPCManager> mgr = FindManager(h);
    if (!mgr) {
        SY_LOG(LOG_WARN, "RPCManager::TbxOnServerInstanceCreated()", "RPCManager(0x%p) hServerId(0x%p) not found",
               AsPointer(h), serverId);
        return false;
    }
    FunctionTrace trace(LOG_INFO, "RPCManager::TbxOnServerInstanceCreated()", nullptr, "%s(0x%p) - hServerId(0x%p)",
                        mgr->name, AsPointer(mgr->handle), serverId);
    RCPtr<RPCPluginInstance> instance(mgr->CreateServerInstance(serverId));
    if (!instance) return false;
    if (out) *out = instance->GetHandle();
    {
        SyMutexGuard guard(&mgr->instanceMutex);
        mgr->serverInstances[serverId] = instance;
        instance->serverId = serverId;
    }
    TBXHandle channelWord =
        mgr->serverInterface.GetServerChannel ? mgr->serverInterface.GetServerChannel(serverId) : nullptr;
    instance->RegisterChannelSink(channelWord);
    trace.SetExitText(LOG_INFO, "rpcInstance(0x%p) created", AsPointer(instance->GetHandle()));
    return true;
}

TBXBool TBXAPI RPCManager::TbxOnServerInstanceDestroyed(TBXUserData h, TBXUserData instanceHandle,
                                                        TBXHandle serverId) {
    RCPtr<RPCManager> mgr = FindManager(h);
    if (!mgr) {
        SY_LOG(LOG_WARN, "RPCManager::TbxOnServerInstanceDestroyed()", "RPCManager(0x%p) hServerId(0x%p) not found",
               AsPointer(h), serverId);
        return false;
    }
    FunctionTrace trace(LOG_INFO, "RPCManager::TbxOnServerInstanceDestroyed()", nullptr,
                        "%s(0x%p) - hServerId(0x%p) rpcInstance(0x%p)", mgr->name, AsPointer(mgr->handle), serverId,
                        AsPointer(instanceHandle));
    RCPtr<RPCPluginInstance> instance;
    {
        SyMutexGuard guard(&mgr->instanceMutex);
        auto it = mgr->serverInstances.find(serverId);
        if (it != mgr->serverInstances.end()) {
            instance = it->second;
            mgr->serverInstances.erase(it);
        }
    }
    if (!instance) {
        trace.SetExitText(LOG_WARN, "rpcInstance(0x%p) for hServerId(0x%p) not found", AsPointer(instanceHandle),
                          serverId);
        return false;
    }
    instance->ChannelDisconnect();
    instance->UnregisterChannelSink();
    instance->detached = true;
    mgr->DestroyServerInstance(serverId, instance);
    {
        SyMutexGuard guard(&ServerManagersMutex());
        ServerManagers().erase(serverId);
    }
    trace.SetExitText(LOG_INFO, "rpcInstance(0x%p) destroyed", AsPointer(instanceHandle));
    return true;
}
