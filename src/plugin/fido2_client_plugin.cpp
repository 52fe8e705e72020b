#include "plugin/fido2_client_plugin.h"

#include "channel/rpc_manager.h"
#include "logging/function_trace.h"
#include "logging/log.h"
#include "plugin/webauthn_binding.h"
#include "wire/pdu.h"

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

void Fido2ClientPlugin::OnNotReady() { FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::OnNotReady()"); }

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
            SY_LOG(LOG_ERROR, kLabel, "Invalid data received. len=%u, RequestPDUTotalLen=%u\n", len,
                   static_cast<unsigned>(total));
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

// The credential operations and their cancellation run on a worker thread once the library
// binding stands; until then the requests are recognised and not answered.
void Fido2ClientPlugin::Process_AuthenticatorMakeCredential(const uint8_t*) {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::Process_AuthenticatorMakeCredential()");
}

void Fido2ClientPlugin::Process_AuthenticatorGetAssertion(const uint8_t*) {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::Process_AuthenticatorGetAssertion()");
}

void Fido2ClientPlugin::Process_CancelCurrentOperation(const uint8_t*) {
    FunctionTrace trace(LOG_DEBUG, "Fido2ClientPlugin::Process_CancelCurrentOperation()");
}

bool Fido2ClientPlugin::SendBlob(const uint8_t* blob, uint32_t length) {
    static const char* const kLabel = "Fido2ClientPlugin::SendBlob()";
    FunctionTrace trace(LOG_DEBUG, kLabel);
    SY_LOG_HEX(LOG_VERBOSE, kLabel, blob, static_cast<int32_t>(length));
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
        variantInterface->VariantFromBlob(variant.Get(), length, blob);
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
