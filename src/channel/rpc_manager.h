// The generic part of a TBXService plug-in: one object per plug-in and process. It knows the
// plug-in's names, holds the host's tables and the sink tables, makes the instances and
// keeps the side-channel settings. A concrete plug-in derives from it.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "channel/host_interfaces.h"
#include "foundation/rc_object.h"
#include "foundation/sy_mutex.h"

class RPCPluginInstance;

class RPCManager : public RCObject {
public:
    // isStatic: the object lives in static storage and is not reference counted.
    RPCManager(const char* name, const char* controlObjName, const char* dataObjName, const char* tcpDataObjName,
               bool isStatic);
    ~RPCManager() override;

    virtual bool TBXPluginInit(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface);
    virtual bool TBXPluginExit();
    virtual bool TBXPluginCreateInstance(TBXHandle channel, TBXUserData* instanceHandle);
    virtual bool TBXPluginDestroyInstance(TBXUserData instanceHandle);
    virtual RPCPluginInstance* CreateClientInstance();
    virtual void DestroyClientInstance(RCPtr<RPCPluginInstance> instance);
    virtual RPCPluginInstance* CreateServerInstance(TBXHandle serverId);
    virtual void DestroyServerInstance(TBXHandle serverId, RCPtr<RPCPluginInstance> instance);
    virtual bool OnPluginInit(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface);
    virtual bool OnPluginExit();
    virtual void ReservedHook1() {}
    virtual void ReservedHook2() {}
    virtual void OnClientInit() {}
    virtual void OnClientExit() {}
    virtual bool OnServerConnected(int32_t sessionType, TBXHandle serverId);
    virtual bool OnServerDisconnected(TBXHandle serverId);
    virtual bool ConfigureTcpSideChan();
    virtual bool ConfigureVirtualSideChan();
    virtual void ConfigureSidechannelType(int32_t sessionType);
    virtual bool ReservedHook3() { return true; }

    bool Init(bool server, uintptr_t hostWord, TBXQueryInterfaceFn queryInterface);
    bool ClientInit(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface);
    void ClientExit();

    // Registry path of one of the plug-in's settings.
    std::string SettingPath(const char* valueName) const;

    // Host callbacks. The user data is an instance handle (a manager handle for the server sink).
    static void TBXAPI OnConnectionStateChanged(TBXUserData handle, int32_t current, int32_t reported, uintptr_t);
    static void TBXAPI OnChannelStateChanged(TBXUserData handle, int32_t current, int32_t reported, uintptr_t);
    static void TBXAPI OnPeerChannelObjectCreated(TBXUserData handle, const char* objectName);
    static void TBXAPI OnControlMsgInvoke(TBXUserData handle, TBXHandle context);
    static void TBXAPI OnChannelControlObjectStateChanged(TBXUserData handle, int32_t);
    static void TBXAPI OnDataMsgInvoke(TBXUserData handle, TBXHandle context);
    static void TBXAPI OnChannelDataObjectStateChanged(TBXUserData handle, int32_t);
    static void TBXAPI OnMsgDone(TBXUserData handle, uint32_t messageId, uintptr_t hostWord);
    static void TBXAPI OnMsgAbort(TBXUserData handle, uint32_t messageId, int8_t flag, uint32_t code);
    static TBXBool TBXAPI TbxOnServerConnected(TBXUserData handle, int32_t sessionType, TBXHandle serverId);
    static TBXBool TBXAPI TbxOnServerDisconnected(TBXUserData handle, TBXHandle serverId);
    static TBXBool TBXAPI TbxOnServerInstanceCreated(TBXUserData handle, TBXHandle serverId, TBXUserData* instance);
    static TBXBool TBXAPI TbxOnServerInstanceDestroyed(TBXUserData handle, TBXUserData instance, TBXHandle serverId);

    bool isServer = false;
    bool isInitialized = false;
    char name[60] = {};
    char controlObjName[64] = {};
    char dataObjName[64] = {};
    char tcpDataObjName[64] = {};
    uintptr_t hostApi[2] = {};
    TBXServerInterface serverInterface = {};
    TBXChannelInterface channelInterface = {};
    TBXChannelObjectInterface channelObjectInterface = {};
    TBXChannelContextInterface channelContextInterface = {};
    TBXVariantInterface variantInterface = {};
    TBXServerSink serverSink = {};
    TBXChannelSink channelSink = {};
    TBXControlObjectSink controlSink = {};
    TBXDataObjectSink dataSink = {};
    TBXMessageSink messageSink = {};
    TBXGuestOverlayInterface guestInterface = {};
    TBXClientOverlayInterface clientInterface = {};
    TBXStreamDataInterface streamDataInterface = {};
    uint64_t handle = 0;
    SyMutex instanceMutex;
    std::map<TBXHandle, RCPtr<RPCPluginInstance>> serverInstances;
    bool tcpEnabled = false;
    bool tcpConfigured = false;
    bool zephSupported = false;
    bool vchanEnabled = false;
};

// Lookups by handle: null when the key is unknown or the object is dying.
RCPtr<RPCManager> FindManager(uint64_t handle);
RCPtr<RPCPluginInstance> FindInstance(uint64_t handle);
// The instance registry: an instance registers itself when built and leaves when it dies.
uint64_t RegisterInstance(RPCPluginInstance* instance);
bool UnregisterInstance(uint64_t handle);
// Whether the manager registry has been created (by the first TBXPluginInit).
bool ManagerRegistryExists();

// Texts of states and session types for log lines.
std::string ChannelStateText(int32_t state);
std::string ObjectStateText(int32_t state);
std::string SessionText(int32_t sessionType);
