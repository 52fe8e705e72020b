// The exports of fido2Client.dll: the host's contract, forwarded to the global manager.
#include <windows.h>

#include "logging/function_trace.h"
#include "plugin/fido2_client.h"
#include "sysutil/string_utils.h"

namespace {
// Built at load, before the host can call anything.
Fido2Client& client = TheFido2Client();
}  // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) { return TRUE; }

TBXBool TBXAPI TBXService_PluginInit(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface) {
    FunctionTrace trace(LOG_INFO, "TBXService_PluginInit()");
    client.TBXPluginInit(hostWord, queryInterface);
    return 1;
}

TBXBool TBXAPI TBXService_PluginExit() {
    FunctionTrace trace(LOG_INFO, "TBXService_PluginExit()");
    client.TBXPluginExit();
    return 1;
}

TBXBool TBXAPI TBXService_PluginCreateInstance(TBXHandle channel, TBXUserData* instanceHandle) {
    FunctionTrace trace(LOG_INFO, "TBXService_PluginCreateInstance()");
    return client.TBXPluginCreateInstance(channel, instanceHandle) ? 1 : 0;
}

TBXBool TBXAPI TBXService_PluginDestroyInstance(TBXUserData instanceHandle) {
    FunctionTrace trace(LOG_INFO, "TBXService_PluginDestroyInstance()");
    return client.TBXPluginDestroyInstance(instanceHandle) ? 1 : 0;
}

int32_t TBXAPI TBXService_PluginGetTokenName(char* buffer, int32_t size) {
    FunctionTrace trace(LOG_INFO, "TBXService_PluginGetTokenName()");
    int copied = 0;
    if (buffer && size > 0) copied = StringUtils::CopyBounded(buffer, kFido2TokenName, size - 1);
    // The text shown is what was copied: with no room the host's buffer holds no terminator.
    trace.SetExitText(LOG_INFO, "\"%.*s\"\n", copied, kFido2TokenName);
    return 1;
}

}  // extern "C"
