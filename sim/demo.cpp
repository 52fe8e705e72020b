#include "sim/demo.h"

#include <windows.h>

#include <cstdio>
#include <fstream>

#include "sim/agent_codec.h"
#include "sim/agent_responses.h"
#include "sim/agent_samples.h"
#include "sim/authenticator/ec_key.h"
#include "sim/authenticator_client.h"
#include "sim/host_sim.h"

namespace sim {

namespace {

using agent::RequestPdu;
using agent::SplitResponsePdu;

constexpr uint32_t kCancelledHr = 0x800704C7;

uint32_t Le32(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) | (static_cast<uint32_t>(at[1]) << 8) | (static_cast<uint32_t>(at[2]) << 16) |
           (static_cast<uint32_t>(at[3]) << 24);
}

std::string Base64Url(const Bytes& bytes) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6) out += kAlphabet[(v >> shift) & 63];
    }
    if (i + 1 == bytes.size()) {
        uint32_t v = bytes[i] << 16;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
    } else if (i + 2 == bytes.size()) {
        uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
    }
    return out;
}

std::string Hex32(uint32_t v) {
    char text[16];
    snprintf(text, sizeof(text), "0x%08X", v);
    return text;
}

class Demo {
public:
    Demo(std::ostream& out, std::ostream& err) : out(out), err(err) {}

    bool Step(bool ok, const std::string& what) {
        out << (ok ? "  ok    " : "  FAIL  ") << what << "\n";
        if (!ok) failed = true;
        return ok;
    }

    // Sends a request and returns the answer's data, or an empty vector when none came.
    Bytes Ask(const Bytes& pdu, uint32_t waitMs = 10000) {
        size_t before = host.Messages().size();
        host.DeliverMessage(pdu);
        if (!host.WaitForMessages(before + 1, waitMs)) return {};
        Bytes data;
        uint32_t id = 0;
        if (!SplitResponsePdu(host.Messages()[before].params[0], &id, &data) || id != Le32(pdu.data())) return {};
        return data;
    }

    int Run(const std::string& jsonPath) {
        if (!Setup()) return 2;
        ChannelUp();
        ClientInfo();
        ApiVersion();
        bool registered = Register();
        if (registered) Authenticate();
        Cancelled();
        Superseded();
        ChannelLoss();
        if (!jsonPath.empty() && registered) WriteJson(jsonPath);
        host.Exit();
        out << (failed ? "Some steps did not behave as they must.\n" : "Every step behaved as it must.\n");
        return failed ? 1 : 0;
    }

private:
    bool Setup() {
        if (!authenticator.Loaded() || !host.LoadPlugin()) {
            err << "demo: fido2Client.dll or the software authenticator could not be loaded\n";
            return false;
        }
        return true;
    }

    void ChannelUp() {
        out << "1. Channel up\n";
        host.Init();
        Step(host.CreateInstance(&instance), "TBXService_PluginCreateInstance: instance created");
        host.BringUp();
        Step(!Ask(RequestPdu(1, 1, {})).empty(), "connection, channel, fido2ControlObj and fido2DataObj connected: ready");
    }

    void ClientInfo() {
        out << "2. GetClientInfo\n";
        Bytes data = Ask(RequestPdu(2, 1, {3, 0, 1, 2}));
        bool ok = data.size() == 4;
        uint32_t v = ok ? Le32(data.data()) : 0;
        out << "        agent version 2.1.3 sent; client version " << (v >> 24) << "." << ((v >> 16) & 0xFF) << "."
            << (v & 0xFFFF) << "\n";
        Step(ok && v == 0x01000000, "the client reports version 1.0.0");
    }

    void ApiVersion() {
        out << "3. GetWebauthnApiVersion\n";
        Bytes data = Ask(RequestPdu(3, 2, {}));
        uint32_t v = data.size() == 4 ? Le32(data.data()) : 0;
        out << "        WebAuthn API version " << v << "\n";
        Step(v == 4, "the software authenticator's version comes back");
    }

    bool Register() {
        out << "4. MakeCredential for relying party example.com, ES256\n";
        makeRequest = agent::SampleMakeCredential(arena, 4, false);
        Bytes data = Ask(RequestPdu(4, 3, agent::EncodeMakeCredentialData(makeRequest)));
        if (!Step(agent::DecodeAttestationAnswer(data, &attestation) && attestation.hr == 0 && attestation.present,
                  "an attestation with hr 0")) {
            return false;
        }
        out << "        credential id " << Base64Url(attestation.credentialId) << ", format "
            << std::string(attestation.formatType.text.begin(), attestation.formatType.text.end()) << "\n";
        const Bytes& ad = attestation.authenticatorData;
        bool keyFound = ad.size() >= 55 + attestation.credentialId.size() + 77;
        if (keyFound) {
            const uint8_t* cose = ad.data() + 55 + attestation.credentialId.size();
            x.assign(cose + 10, cose + 42);
            y.assign(cose + 45, cose + 77);
        }
        return Step(keyFound, "the attested credential data carries a P-256 COSE key");
    }

    void Authenticate() {
        out << "5. GetAssertion with that credential in the allow list\n";
        assertionRequest = agent::SampleGetAssertion(arena, 1, false);
        allow = webauthn::WEBAUTHN_CREDENTIAL{1, static_cast<uint32_t>(attestation.credentialId.size()),
                                              attestation.credentialId.data(), nullptr};
        assertionRequest.pGetAssertionOptions->CredentialList = {1, &allow};
        Bytes data = Ask(RequestPdu(5, 4, agent::EncodeGetAssertionData(assertionRequest)));
        if (!Step(agent::DecodeAssertionAnswer(data, &assertion) && assertion.hr == 0 && assertion.present,
                  "an assertion with hr 0")) {
            return;
        }
        Bytes message = assertion.authenticatorData;
        const auto* c = assertionRequest.pClientData;
        Bytes hash = simauth::Sha256(Bytes(c->pbClientDataJSON, c->pbClientDataJSON + c->cbClientDataJSON));
        message.insert(message.end(), hash.begin(), hash.end());
        Step(simauth::VerifyEs256(x, y, message, assertion.signature),
             "its ES256 signature verifies with the registered public key");
    }

    void Cancelled() {
        out << "6. A cancelled operation\n";
        authenticator.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
        auto request = agent::SampleMakeCredential(arena, 2, true);
        size_t before = host.Messages().size();
        host.DeliverMessage(RequestPdu(6, 3, agent::EncodeMakeCredentialData(request)));
        authenticator.WaitBlocked(1);
        out << "        the user doesn't touch; the agent sends command 5 with the operation's id\n";
        host.DeliverMessage(RequestPdu(7, 5, agent::EncodeCancelData(request.pMakeCredentialOptions->pCancellationId)));
        agent::AttestationAnswer a;
        bool answered = host.WaitForMessages(before + 1, 5000);
        Bytes data;
        uint32_t id = 0;
        bool ok = answered && SplitResponsePdu(host.Messages()[before].params[0], &id, &data) &&
                  agent::DecodeAttestationAnswer(data, &a);
        out << "        answer to request 6: hr " << Hex32(a.hr) << "\n";
        Step(ok && id == 6 && a.hr == kCancelledHr && !host.WaitForMessages(before + 2, 200),
             "answered with the cancelled HRESULT, and command 5 itself gets no answer");
        authenticator.Mode(SIMAUTH_INSTANT);
    }

    void Superseded() {
        out << "7. A superseded operation\n";
        authenticator.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
        size_t before = host.Messages().size();
        host.DeliverMessage(RequestPdu(8, 3, agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 2, true))));
        authenticator.WaitBlocked(1);
        authenticator.Mode(SIMAUTH_INSTANT);
        host.DeliverMessage(RequestPdu(9, 3, agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 2, true))));
        bool one = host.WaitForMessages(before + 1, 5000) && !host.WaitForMessages(before + 2, 300);
        uint32_t id = one ? Le32(host.Messages()[before].params[0].data()) : 0;
        out << "        request 8 waited in the library when request 9 came; answered: request " << id << "\n";
        Step(one && id == 9, "the first gets no answer, the second is answered");
    }

    void ChannelLoss() {
        out << "8. Channel loss during an operation\n";
        authenticator.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
        size_t before = host.Messages().size();
        host.DeliverMessage(RequestPdu(10, 3, agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 2, true))));
        authenticator.WaitBlocked(1);
        host.ReportChannel(TBX_STATE_DISCONNECTED, TBX_STATE_DISCONNECTED);
        bool stopped = authenticator.Blocked() == 0;
        Step(stopped && !host.WaitForMessages(before + 1, 300), "no answer, and the worker has stopped");
        host.DestroyInstance(instance);
        authenticator.Mode(SIMAUTH_INSTANT);
    }

    static std::string JsonText(const webauthn::WEBAUTHN_CLIENT_DATA* c) {
        return std::string(c->pbClientDataJSON, c->pbClientDataJSON + c->cbClientDataJSON);
    }

    void WriteJson(const std::string& path) {
        // The object's fields: what a relying party receives from navigator.credentials.
        Bytes clientCreate(makeRequest.pClientData->pbClientDataJSON,
                           makeRequest.pClientData->pbClientDataJSON + makeRequest.pClientData->cbClientDataJSON);
        Bytes clientGet(assertionRequest.pClientData->pbClientDataJSON,
                        assertionRequest.pClientData->pbClientDataJSON + assertionRequest.pClientData->cbClientDataJSON);
        Bytes userId(makeRequest.pUserInformation->pbId,
                     makeRequest.pUserInformation->pbId + makeRequest.pUserInformation->cbId);
        std::string id = Base64Url(attestation.credentialId);
        std::ofstream json(path, std::ios::binary);
        json << "{\n  \"rpId\": \"example.com\",\n  \"origin\": \"https://login.example.com\",\n"
             << "  \"registration\": {\n    \"id\": \"" << id << "\",\n    \"rawId\": \"" << id
             << "\",\n    \"type\": \"public-key\",\n    \"response\": {\n      \"clientDataJSON\": \""
             << Base64Url(clientCreate) << "\",\n      \"attestationObject\": \"" << Base64Url(attestation.attestationObject)
             << "\"\n    }\n  },\n  \"authentication\": {\n    \"id\": \"" << id << "\",\n    \"rawId\": \"" << id
             << "\",\n    \"type\": \"public-key\",\n    \"response\": {\n      \"clientDataJSON\": \""
             << Base64Url(clientGet) << "\",\n      \"authenticatorData\": \"" << Base64Url(assertion.authenticatorData)
             << "\",\n      \"signature\": \"" << Base64Url(assertion.signature) << "\",\n      \"userHandle\": \""
             << Base64Url(userId) << "\"\n    }\n  }\n}\n";
        Step(json.good(), "registration and authentication written to " + path);
    }

    std::ostream& out;
    std::ostream& err;
    Host& host = Host::Get();
    SoftwareAuthenticator authenticator;
    TBXUserData instance = 0;
    bool failed = false;
    agent::SampleArena arena;
    webauthn::Fido2MakeCredentialRequest makeRequest{};
    webauthn::Fido2GetAssertionRequest assertionRequest{};
    webauthn::WEBAUTHN_CREDENTIAL allow{};
    agent::AttestationAnswer attestation;
    agent::AssertionAnswer assertion;
    Bytes x, y;
};

}  // namespace

int RunDemo(const std::string& jsonPath, std::ostream& out, std::ostream& err) {
    Demo demo(out, err);
    return demo.Run(jsonPath);
}

}  // namespace sim
