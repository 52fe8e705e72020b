#include "plugin/fido2_client.h"

#include "logging/fido2_logger.h"
#include "logging/function_trace.h"
#include "plugin/fido2_client_plugin.h"
#include "plugin/webauthn_binding.h"
#include "wire/response_encoders.h"

const char kFido2TokenName[] = "fido2";

Fido2Client::Fido2Client() : RPCManager(kFido2TokenName, "fido2ControlObj", "fido2DataObj", "fido2DataObjTcp", true) {
    // The encoders ask for "FIDO2Flags" only when a record is newer than they know.
    webauthn::SetStrictVersionsPolicy(webauthn::GetFIDO2Flags);
}

RPCPluginInstance* Fido2Client::CreateClientInstance() { return new Fido2ClientPlugin(this); }

// OnNotReady reaches only an instance that was ready, and a request can come on the data object
// of one that isn't: the host's destroy stops the operation itself, whatever the channel did.
void Fido2Client::DestroyClientInstance(RCPtr<RPCPluginInstance> instance) {
    if (instance) static_cast<Fido2ClientPlugin*>(instance.Get())->StopCurrentOperation();
    RPCManager::DestroyClientInstance(instance);
}

// The plug-in's log starts here and stops in OnPluginExit, so that every later step of the
// framework is logged. A log that can't start leaves the plug-in working without one.
bool Fido2Client::OnPluginInit(uintptr_t, TBXQueryInterfaceFn) { return TheFido2Logger().Start("fido2Client"); }

// After exit the host may unload the DLL: no worker may still run in it or return into it,
// also of an instance that the host never destroyed.
// The log stops last: nothing of the plug-in logs after it.
bool Fido2Client::OnPluginExit() {
    Fido2ClientPlugin::StopAllOperations();
    TheFido2Logger().Stop();
    return true;
}

Fido2Client& TheFido2Client() {
    static Fido2Client client;
    return client;
}
