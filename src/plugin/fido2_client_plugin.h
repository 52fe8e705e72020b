// The per-connection object of the plug-in: takes a message from the agent apart, checks
// its frame, answers the small requests at once and hands the WebAuthn operations on.
#pragma once

#include <cstdint>
#include <mutex>

#include "channel/rpc_plugin_instance.h"
#include "foundation/sy_thread.h"

class RPCManager;
class Fido2ClientPlugin;

// The command of every message on the channel, both ways: one blob, one PDU.
constexpr uint32_t FIDO2_DATA_BLOB = 1;

struct Fido2Guid {
    uint8_t bytes[16];
};

// Points of an operation's road where a test can hold it or a benchmark read the clock. With
// no checkpoint set, each costs one atomic load.
enum OperationPoint : int {
    kPointDecoded = 1,         // worker: right after the decode, before the first stop check
    kPointChecked = 2,         // worker: after the first stop check, before the library call
    kPointStartingWorker = 3,  // delivery thread: request copied, the worker's thread about to be made
    kPointWorkerEntered = 4,   // worker: the first step of its callback, before the decode
    kPointStopping = 5,        // delivery thread: a new operation about to stop the one before
    kPointStopped = 6,         // delivery thread: the one before stopped and its thread deleted
};
using OperationCheckpoint = void (*)(int point);
void SetOperationCheckpoint(OperationCheckpoint checkpoint);

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
    // Cancels, stops (5,000 ms, then kills) and deletes the current worker, if any.
    void StopCurrentOperation();

private:
    const TBXVariantInterface* variantInterface = nullptr;
    const TBXChannelContextInterface* channelContextInterface = nullptr;
    RCPtr<SyThread> workerThread;
    std::mutex operationMutex;
    Fido2Guid cancelGuid{};
    bool hasCancelGuid = false;
    bool stopRequested = false;
};
