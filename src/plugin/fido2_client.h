// The plug-in's manager: the one global object behind the DLL's exports.
#pragma once

#include "channel/rpc_manager.h"

class Fido2Client : public RPCManager {
public:
    // Lives in static storage: reference counting is off.
    Fido2Client();

    RPCPluginInstance* CreateClientInstance() override;
    void DestroyClientInstance(RCPtr<RPCPluginInstance> instance) override;
    bool OnPluginInit(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface) override;
    bool OnPluginExit() override;
};

// The token under which the plug-in is known on the channel.
extern const char kFido2TokenName[];

Fido2Client& TheFido2Client();
