#include "plugin/fido2_client_plugin.h"

#include <algorithm>

#include "channel/rpc_manager.h"
#include "logging/function_trace.h"
#include "logging/log.h"
#include "plugin/operation_seams.h"
#include "plugin/webauthn_binding.h"
#include "sysutil/sy_guid.h"
#include "wire/pdu.h"
#include "wire/record_decoders.h"
#include "wire/record_release.h"
#include "wire/record_trace.h"
#include "wire/request_decoders.h"
#include "wire/response_encoders.h"

#include <chrono>
#include <cstring>
#include <exception>
#include <new>
#include <set>

Fido2ClientPlugin::Fido2ClientPlugin(RPCManager* mgr) : RPCPluginInstance(mgr, false) {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::Fido2ClientPlugin()", nullptr, "Instance=0x%p",
                        static_cast<void*>(this));
    variantInterface = GetVariantInterface();
    channelContextInterface = GetChannelContextInterface();
}

Fido2ClientPlugin::~Fido2ClientPlugin() {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::~Fido2ClientPlugin()", nullptr, "Instance=0x%p",
                        static_cast<void*>(this));
    variantInterface = nullptr;
    channelContextInterface = nullptr;
}

void Fido2ClientPlugin::OnReady() { FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::OnReady()"); }

void Fido2ClientPlugin::OnNotReady() {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::OnNotReady()");
    StopCurrentOperation();
}

void Fido2ClientPlugin::OnDone(uint32_t, uintptr_t) { FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::OnDone()"); }

void Fido2ClientPlugin::OnInvoke(TBXHandle context) {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::OnInvoke()");
    RPCVariant variant(this);
    const uint32_t command = channelContextInterface && channelContextInterface->GetCommand
                                 ? channelContextInterface->GetCommand(context)
                                 : 0;
    if (command != FIDO2_DATA_BLOB) {
        SY_LOG(LOG_ERROR, "Fido2ClientPlugin::OnInvoke()", "Unknown command = 0x%x", command);
        return;
    }
    if (channelContextInterface->GetParam) channelContextInterface->GetParam(context, 0, variant.Get());
    const uint8_t* blob = variant.Get()->blobData;
    const uint32_t length = variant.Get()->blobLength;
    SY_LOG(LOG_DEBUG, "Fido2ClientPlugin::OnInvoke()", "Received FIDO2_DATA_BLOB blob=0x%p, len=%u\n",
           static_cast<const void*>(blob), length);
    SY_LOG_HEX(LOG_VERBOSE, "Fido2ClientPlugin::OnInvoke()", blob, static_cast<int32_t>(length));
    ProcessFido2Request(blob, length);
}

void Fido2ClientPlugin::ProcessFido2Request(const uint8_t* pRequestPDU, uint32_t len) {
    static const char* const kLabel = "Fido2ClientPlugin::ProcessFido2Request()";
    FunctionTrace trace(LOG_DEBUG, kLabel);
    RequestHeader header{};
    uint64_t total = 0;
    switch (CheckRequestFrame(pRequestPDU, len, &header, &total)) {
        case FrameCheck::TooShort:
            SY_LOG(LOG_ERROR, kLabel, "Invalid data received. pRequestPDU=0x%p, len=%u\n",
                   static_cast<const void*>(pRequestPDU), len);
            return;
        case FrameCheck::Overrun:
            // The line has room for 32 bits; a total past them shows as the largest, never wrapped
            // round to a small number that would read as a short frame.
            SY_LOG(LOG_ERROR, kLabel, "Invalid data received. len=%u, RequestPDUTotalLen=%u\n", len,
                   static_cast<unsigned>(std::min<uint64_t>(total, UINT32_MAX)));
            return;
        case FrameCheck::Ok:
            break;
    }
    switch (header.fido2Cmd) {
        case kCmdGetClientInfo:
            ProcessGetClientInfo(pRequestPDU);
            break;
        case kCmdGetWebauthnApiVersion:
            Process_GetWebauthnApiVersion(pRequestPDU);
            break;
        case kCmdMakeCredential:
            Process_AuthenticatorMakeCredential(pRequestPDU);
            break;
        case kCmdGetAssertion:
            Process_AuthenticatorGetAssertion(pRequestPDU);
            break;
        case kCmdCancelCurrentOperation:
            Process_CancelCurrentOperation(pRequestPDU);
            break;
        default:
            SY_LOG(LOG_ERROR, kLabel, "Unrecognize command, fido2Cmd=%u\n", header.fido2Cmd);
            break;
    }
}

void Fido2ClientPlugin::ProcessGetClientInfo(const uint8_t* pdu) {
    static const char* const kLabel = "Fido2ClientPlugin::ProcessGetClientInfo()";
    const RequestHeader header = ReadRequestHeader(pdu);
    if (header.dataLen >= 4) {
        uint32_t agent = ReadLe32(pdu + kRequestHeaderSize);
        SY_LOG(LOG_INFO, kLabel, "Agent version=%d.%d.%d\n", static_cast<int>(agent >> 24),
               static_cast<int>((agent >> 16) & 0xFF), static_cast<int>(agent & 0xFFFF));
    }
    uint8_t* response = AllocResponsePdu(4, header.requestId);
    if (!response) {
        SY_LOG(LOG_ERROR, kLabel, "Fail to allocate response pdu\n");
        return;
    }
    WriteLe32(response + kResponseHeaderSize, kClientVersion);
    SendBlob(response, 4 + kResponseHeaderSize);
    FreePdu(response);
}

void Fido2ClientPlugin::Process_GetWebauthnApiVersion(const uint8_t* pdu) {
    static const char* const kLabel = "Fido2ClientPlugin::Process_GetWebauthnApiVersion()";
    FunctionTrace trace(LOG_DEBUG, kLabel);
    // 0 stands for a client without a usable WebAuthn library.
    uint32_t version = 0;
    if (webauthn::LoadWebauthn()) version = webauthn::ApiVersionNumber()();
    uint8_t* response = AllocResponsePdu(4, ReadRequestHeader(pdu).requestId);
    if (!response) {
        SY_LOG(LOG_ERROR, kLabel, "Fail to allocate response pdu\n");
    } else {
        WriteLe32(response + kResponseHeaderSize, version);
        SendBlob(response, 4 + kResponseHeaderSize);
        FreePdu(response);
    }
    trace.SetExitText(LOG_DEBUG, "ver=%u", version);
}

void Fido2ClientPlugin::Process_AuthenticatorMakeCredential(const uint8_t* pdu) {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::Process_AuthenticatorMakeCredential()");
    ProcessReqInNewThread(pdu, AuthenticatorMakeCredentialThread, "AuthenticatorMakeCredential_Thread");
}

void Fido2ClientPlugin::Process_AuthenticatorGetAssertion(const uint8_t* pdu) {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::Process_AuthenticatorGetAssertion()");
    ProcessReqInNewThread(pdu, AuthenticatorGetAssertionThread, "AuthenticatorGetAssertion_Thread");
}

namespace {

// How long a stop waits for the worker (and for a library load under way) before it goes on.
constexpr uint32_t kStopWaitMs = 5000;

// Instances that have a worker thread, by handle, for the stop of them all at exit.
class WorkerRegistry {
public:
    static void Add(uint64_t handle) {
        SyMutexGuard guard(&Mutex());
        Handles().insert(handle);
    }
    static void Remove(uint64_t handle) {
        SyMutexGuard guard(&Mutex());
        Handles().erase(handle);
    }
    static std::set<uint64_t> Snapshot() {
        SyMutexGuard guard(&Mutex());
        return Handles();
    }

private:
    static std::set<uint64_t>& Handles() {
        static std::set<uint64_t> handles;
        return handles;
    }
    static SyMutex& Mutex() {
        static SyMutex mutex;
        return mutex;
    }
};

std::string GuidText(const void* guid) {
    if (!guid) return "NULL";
    uint64_t words[2];
    memcpy(words, guid, 16);
    return Syguid(words[0], words[1]).ToString();
}

}  // namespace

void Fido2ClientPlugin::Process_CancelCurrentOperation(const uint8_t* pdu) {
    static const char* const kLabel = "Fido2ClientPlugin::Process_CancelCurrentOperation()";
    FunctionTrace trace(LOG_DEBUG, kLabel);
    const uint8_t* data = pdu + kRequestHeaderSize;
    webauthn::GUID* guid = nullptr;
    if (webauthn::Decode_GUID(data, data + ReadRequestHeader(pdu).dataLen, &guid) == 0) {
        SY_LOG(LOG_ERROR, kLabel, "Fail to decode CancelCurrentOperation request\n");
    } else {
        SY_LOG(LOG_ERROR, kLabel, "CancelGuid=%s\n", GuidText(guid).c_str());
        if (webauthn::LoadWebauthn()) {
            HRESULT hr = webauthn::CancelCurrentOperation()(guid);
            SY_LOG(LOG_INFO, kLabel, "hr=0x%x\n", static_cast<unsigned>(hr));
        }
    }
    webauthn::Free_GUID(guid);
}

void Fido2ClientPlugin::ProcessReqInNewThread(const uint8_t* pdu, SyThreadCallback threadFunction, const char* name) {
    static const char* const kLabel = "Fido2ClientPlugin::ProcessReqInNewThread()";
    FunctionTrace trace(LOG_DEBUG, kLabel);
    // The new request wins: whatever ran before is stopped and gets no answer.
    ReachOperationPoint(kPointStopping);
    StopCurrentOperation();
    ReachOperationPoint(kPointStopped);
    uint8_t* copy = DuplicateRequestPdu(pdu);
    if (!copy) {
        SY_LOG(LOG_ERROR, kLabel, "Failed to duplicate request pdu\n");
        return;
    }
    auto* context = new (std::nothrow) Fido2ThreadContext;
    if (!context) {
        SY_LOG(LOG_ERROR, kLabel, "Failed to allocate thread ctx\n");
        FreePdu(copy);
        return;
    }
    context->plugin = this;
    context->requestPdu = copy;
    ReachOperationPoint(kPointStartingWorker);
    RCPtr<SyThread> thread;
    bool started = false;
    // A thread that can't be had surfaces as an exception; it must not reach the host's callback.
    try {
        thread = new SyThread(name);
        started = StartWorker(*thread, threadFunction, context);
    } catch (const std::exception& e) {
        SY_LOG(LOG_DEBUG, kLabel, "%s\n", e.what());
    }
    if (!started) {
        SY_LOG(LOG_ERROR, kLabel, "Failed to start thread\n");
        FreePdu(copy);
        delete context;  // with it goes the worker's reference to this instance
        return;
    }
    workerThread = thread;
    WorkerRegistry::Add(GetHandle());
}

bool Fido2ClientPlugin::OperationShouldStop(const void* cancellationId) {
    std::lock_guard<std::mutex> lock(operationMutex);
    if (stopRequested) {
        SY_LOG(LOG_DEBUG, "Fido2ClientPlugin::OperationShouldStop()", "Current operation is being stopped.\n");
        return true;
    }
    ReachOperationPoint(kPointPublishing);
    if (cancellationId) {
        memcpy(cancelGuid.bytes, cancellationId, 16);
    } else {
        memset(cancelGuid.bytes, 0, 16);
    }
    hasCancelGuid = cancellationId != nullptr;
    // Set with the id, so that no stop can see the id without knowing that a bind may follow.
    bindingPending = cancellationId != nullptr;
    return false;
}

void Fido2ClientPlugin::LibraryBindingSettled() {
    std::lock_guard<std::mutex> lock(operationMutex);
    bindingPending = false;
    bindingSettled.notify_all();  // under the lock: winpthreads' condition wants it so
}

void Fido2ClientPlugin::StopCurrentOperation() {
    static const char* const kLabel = "Fido2ClientPlugin::StopCurrentOperation()";
    if (!workerThread) {
        SY_LOG(LOG_DEBUG, kLabel, "There is no worker thread running!\n");
    } else {
        SY_LOG(LOG_DEBUG, kLabel, "Stopping current operation if any.\n");
        ReachOperationPoint(kPointStopLocking);
        {
            std::unique_lock<std::mutex> lock(operationMutex);
            stopRequested = true;
            if (!hasCancelGuid) {
                SY_LOG(LOG_DEBUG, kLabel, "No pending fido2 operation!\n");
            } else {
                SY_LOG(LOG_DEBUG, kLabel, "Cancelling fido2 operation.\n");
                SY_LOG(LOG_DEBUG, kLabel, "CancelGuid=%s\n", GuidText(cancelGuid.bytes).c_str());
                // A worker may have published its id during the process's first load of the
                // library: the cancel waits for that load (it never starts one), or it would find
                // no library and the worker would block in it until killed.
                if (bindingPending) ReachOperationPoint(kPointStopAwaitsWorker);
                if (!bindingSettled.wait_for(lock, std::chrono::milliseconds(kStopWaitMs),
                                             [this] { return !bindingPending; })) {
                    SY_LOG(LOG_WARN, kLabel, "Library load still under way, nothing to cancel with.\n");
                }
                // Under the mutex: a worker that returns now waits in OperationShouldStop and
                // finds the stop, so its answer is suppressed.
                if (webauthn::WebauthnUsable()) {
                    HRESULT hr = webauthn::CancelCurrentOperation()(reinterpret_cast<webauthn::GUID*>(cancelGuid.bytes));
                    SY_LOG(LOG_DEBUG, kLabel, "hr=0x%x\n", static_cast<unsigned>(hr));
                }
                SY_LOG(LOG_DEBUG, kLabel, "fido2 operation cancelled.\n");
            }
        }
        SY_LOG(LOG_DEBUG, kLabel, "Stopping worker thread.\n");
        ReachOperationPoint(kPointStopAwaitsWorker);
        workerThread->StopOrTerminate(kStopWaitMs, 0);
        SY_LOG(LOG_DEBUG, kLabel, "worker thread stopped.\n");
        workerThread = nullptr;
        WorkerRegistry::Remove(GetHandle());
    }
    hasCancelGuid = false;
    stopRequested = false;
    bindingPending = false;
    memset(cancelGuid.bytes, 0, 16);
}

void Fido2ClientPlugin::StopAllOperations() {
    for (uint64_t handle : WorkerRegistry::Snapshot()) {
        RCPtr<RPCPluginInstance> instance = FindInstance(handle);
        if (instance) static_cast<Fido2ClientPlugin*>(instance.Get())->StopCurrentOperation();
    }
}

namespace {

// What the two workers share: the steps around the library call, by the operation's types.
struct MakeCredentialOperation {
    using Request = webauthn::Fido2MakeCredentialRequest;
    using Result = webauthn::WEBAUTHN_CREDENTIAL_ATTESTATION;
    static constexpr const char* kLabel = "Fido2ClientPlugin::AuthenticatorMakeCredentialThread()";
    static Request* Decode(const uint8_t* data, const uint8_t* end) {
        return webauthn::Decode_AuthenticatorMakeCredentialRequest(data, end);
    }
    static void LogDecodeFailure() {
        SY_LOG(LOG_ERROR, kLabel, "%s: Fail to decode MakeCredential request package.",
               "Fido2ClientPlugin::AuthenticatorMakeCredentialThread");
    }
    static const void* CancellationId(const Request* r) {
        return r->pMakeCredentialOptions ? r->pMakeCredentialOptions->pCancellationId : nullptr;
    }
    static HRESULT Call(const Request* r, Result** result) {
        return webauthn::AuthenticatorMakeCredential()(GetForegroundWindow(), r->pRpInformation, r->pUserInformation,
                                                       r->pPubKeyCredParams, r->pClientData,
                                                       r->pMakeCredentialOptions, result);
    }
    static uint32_t Size(const Result* result) { return webauthn::Size_AuthenticatorMakeCredentialResponse(result); }
    static uint32_t Encode(uint8_t* data, const uint8_t* end, HRESULT hr, const Result* result) {
        return webauthn::Encode_AuthenticatorMakeCredentialResponse(data, end, static_cast<uint32_t>(hr), result);
    }
    static constexpr const char* kEncodeFailure = "Fail to encode CredentialAttestation\n";
    static void LogRequest(const Request* r) {
        webauthn::Log_RpEntityInformation(r->pRpInformation);
        webauthn::Log_UserEntityInformation(r->pUserInformation);
        webauthn::Log_CoseCredentialParameters(r->pPubKeyCredParams);
        webauthn::Log_ClientData(r->pClientData);
        webauthn::Log_AuthenticatorMakeCredentialOptions(r->pMakeCredentialOptions);
    }
    static void LogResult(const Result* result) { webauthn::Log_CredentialAttestation(result); }
    static void Release(Request* r, Result* result) {
        webauthn::Free_AuthenticatorMakeCredentialRequest(r);
        if (result) webauthn::FreeCredentialAttestation()(result);
    }
};

struct GetAssertionOperation {
    using Request = webauthn::Fido2GetAssertionRequest;
    using Result = webauthn::WEBAUTHN_ASSERTION;
    static constexpr const char* kLabel = "Fido2ClientPlugin::AuthenticatorGetAssertionThread()";
    static Request* Decode(const uint8_t* data, const uint8_t* end) {
        return webauthn::Decode_AuthenticatorGetAssertionRequest(data, end);
    }
    static void LogDecodeFailure() { SY_LOG(LOG_ERROR, kLabel, "Fail to decode GetAssertion request package\n"); }
    static const void* CancellationId(const Request* r) {
        return r->pGetAssertionOptions ? r->pGetAssertionOptions->pCancellationId : nullptr;
    }
    static HRESULT Call(const Request* r, Result** result) {
        return webauthn::AuthenticatorGetAssertion()(GetForegroundWindow(), r->pwszRpId, r->pClientData,
                                                     r->pGetAssertionOptions, result);
    }
    static uint32_t Size(const Result* result) { return webauthn::Size_AuthenticatorGetAssertionResponse(result); }
    static uint32_t Encode(uint8_t* data, const uint8_t* end, HRESULT hr, const Result* result) {
        return webauthn::Encode_AuthenticatorGetAssertionResponse(data, end, static_cast<uint32_t>(hr), result);
    }
    static constexpr const char* kEncodeFailure = "Fail to encode GetAssertion\n";
    static void LogRequest(const Request* r) {
        webauthn::Log_TextField(kLabel, "pwszRpId", r->pwszRpId);
        webauthn::Log_ClientData(r->pClientData);
        webauthn::Log_AuthenticatorGetAssertionOptions(r->pGetAssertionOptions);
    }
    static void LogResult(const Result* result) { webauthn::Log_Assertion(result); }
    static void Release(Request* r, Result* result) {
        webauthn::Free_AuthenticatorGetAssertionRequest(r);
        if (result) webauthn::FreeAssertion()(result);
    }
};

constexpr HRESULT kEFail = static_cast<HRESULT>(0x80004005);

// Measures, allocates, encodes and sends the answer; an answer that can't be built is lost.
template <class Op>
void Answer(Fido2ClientPlugin* plugin, uint32_t requestId, HRESULT hr, const typename Op::Result* result) {
    const uint32_t dataLen = Op::Size(result);
    uint8_t* response = AllocResponsePdu(dataLen, requestId);
    if (!response) {
        SY_LOG(LOG_ERROR, Op::kLabel, "Fail to allocate response pdu.\n");
        return;
    }
    uint8_t* data = response + kResponseHeaderSize;
    if (Op::Encode(data, data + dataLen, hr, result) == 0) {
        SY_LOG(LOG_ERROR, Op::kLabel, "%s", Op::kEncodeFailure);
    } else {
        plugin->SendBlob(response, dataLen + kResponseHeaderSize);
    }
    FreePdu(response);
}

template <class Op>
bool RunOperation(Fido2ThreadContext* context) {
    ReachOperationPoint(kPointWorkerEntered);
    FunctionTrace trace(LOG_DEBUG, Op::kLabel);
    Fido2ClientPlugin* plugin = context->plugin.Get();
    const uint8_t* pdu = context->requestPdu;
    const RequestHeader header = ReadRequestHeader(pdu);
    HRESULT hr = kEFail;
    typename Op::Result* result = nullptr;
    typename Op::Request* request = Op::Decode(pdu + kRequestHeaderSize, pdu + kRequestHeaderSize + header.dataLen);
    bool answer = true;
    if (request && processLogLevel >= LOG_DEBUG) Op::LogRequest(request);
    if (!request) {
        Op::LogDecodeFailure();
    } else if (ReachOperationPoint(kPointDecoded), plugin->OperationShouldStop(Op::CancellationId(request))) {
        answer = false;
    } else {
        ReachOperationPoint(kPointChecked);
        const bool usable = webauthn::LoadWebauthn();
        plugin->LibraryBindingSettled();
        if (usable) {
            hr = Op::Call(request, &result);
            if (hr >= 0 && processLogLevel >= LOG_DEBUG) Op::LogResult(result);
            SY_LOG(LOG_INFO, Op::kLabel, "hr=0x%lx\n", static_cast<unsigned long>(hr));
            // Withdraw the id; a stop that came meanwhile suppresses the answer.
            if (plugin->OperationShouldStop(nullptr)) answer = false;
        }  // without a usable library the answer is E_FAIL with no record
    }
    if (answer) Answer<Op>(plugin, header.requestId, hr, result);
    Op::Release(request, result);
    FreePdu(context->requestPdu);
    delete context;
    return false;
}

}  // namespace

bool Fido2ClientPlugin::AuthenticatorMakeCredentialThread(void* context, SyThread*) {
    return RunOperation<MakeCredentialOperation>(static_cast<Fido2ThreadContext*>(context));
}

bool Fido2ClientPlugin::AuthenticatorGetAssertionThread(void* context, SyThread*) {
    return RunOperation<GetAssertionOperation>(static_cast<Fido2ThreadContext*>(context));
}

bool Fido2ClientPlugin::SendBlob(const uint8_t* blob, uint32_t length) {
    static const char* const kLabel = "Fido2ClientPlugin::SendBlob()";
    FunctionTrace trace(LOG_DEBUG, kLabel);
    SY_LOG_HEX(LOG_VERBOSE, kLabel, blob, static_cast<int32_t>(length));
    // A channel loss now waits until this message is sent or given back.
    SendScope scope(this);
    TBXHandle context = nullptr;
    if (!CreateMessage(&context, 1)) {
        SY_LOG(LOG_ERROR, kLabel, "CreateMessage() failed\n");
        return false;
    }
    if (channelContextInterface && channelContextInterface->SetCommand) {
        channelContextInterface->SetCommand(context, FIDO2_DATA_BLOB);
    }
    RPCVariant variant(this);
    if (variantInterface && variantInterface->VariantFromBlob) {
        variantInterface->VariantFromBlob(variant.Get(), TBXBlob{length, blob});
    }
    if (channelContextInterface && channelContextInterface->AppendParam) {
        channelContextInterface->AppendParam(context, variant.Get());
    }
    if (InvokeMessage(context, false, 1)) {
        SY_LOG(LOG_DEBUG, kLabel, "SendBlob success length=%d\n", static_cast<int>(length));
        return true;
    }
    SY_LOG(LOG_ERROR, kLabel, "InvokeMessage() failed\n");
    DestroyMessage(context);
    return false;
}
