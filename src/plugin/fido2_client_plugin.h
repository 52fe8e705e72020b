// The per-connection object of the plug-in: takes a message from the agent apart, checks
// its frame, answers the small requests at once and hands the WebAuthn operations on.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "channel/rpc_plugin_instance.h"
#include "foundation/sy_thread.h"
#include "plugin/operation_seams.h"

class RPCManager;
class Fido2ClientPlugin;

// The command of every message on the channel, both ways: one blob, one PDU.
constexpr uint32_t FIDO2_DATA_BLOB = 1;

struct Fido2Guid {
    uint8_t bytes[16];
};

// One per started operation: made by the delivery thread, freed by the worker.
struct Fido2ThreadContext {
    RCPtr<Fido2ClientPlugin> plugin;  // keeps the instance alive while the worker runs
    uint8_t* requestPdu = nullptr;    // the worker's own copy of the request
};

class Fido2ClientPlugin : public RPCPluginInstance {
public:
    explicit Fido2ClientPlugin(RPCManager* manager);
    ~Fido2ClientPlugin() override;

    void OnReady() override;
    void OnNotReady() override;
    void OnDone(uint32_t messageId, uintptr_t hostWord) override;
    void OnInvoke(TBXHandle context) override;

    void ProcessFido2Request(const uint8_t* pRequestPDU, uint32_t len);
    void ProcessGetClientInfo(const uint8_t* pdu);
    void Process_GetWebauthnApiVersion(const uint8_t* pdu);
    void Process_AuthenticatorMakeCredential(const uint8_t* pdu);
    void Process_AuthenticatorGetAssertion(const uint8_t* pdu);
    void Process_CancelCurrentOperation(const uint8_t* pdu);
    // The one way back to the agent: the response PDU as the blob of a post-mode message.
    bool SendBlob(const uint8_t* blob, uint32_t length);

    void ProcessReqInNewThread(const uint8_t* pdu, SyThreadCallback threadFunction, const char* name);
    static bool AuthenticatorMakeCredentialThread(void* context, SyThread* thread);
    static bool AuthenticatorGetAssertionThread(void* context, SyThread* thread);
    // Worker side of the stop protocol: publishes the operation's cancellation id (or withdraws
    // it for null); true when the operation must end without further effect.
    bool OperationShouldStop(const void* cancellationId);
    // Worker side: the library binding that followed the published id is settled.
    void LibraryBindingSettled();
    // Cancels, stops (5,000 ms, then kills) and deletes the current worker, if any.
    void StopCurrentOperation();
    // Stops the operation of every instance that still has a worker, so that no thread of
    // ours runs on inside the DLL once the host lets go of it.
    static void StopAllOperations();

private:
    const TBXVariantInterface* variantInterface = nullptr;
    const TBXChannelContextInterface* channelContextInterface = nullptr;
    RCPtr<SyThread> workerThread;
    std::mutex operationMutex;
    Fido2Guid cancelGuid{};
    bool hasCancelGuid = false;
    bool stopRequested = false;
    // The worker has published its id and not yet bound the library; a stop waits for it.
    bool bindingPending = false;
    std::condition_variable bindingSettled;
};
