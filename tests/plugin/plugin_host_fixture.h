// The plug-in's own code driven through its exports by the host simulator, with the software
// authenticator (or a variant the test names) as its webauthn.dll. In-process, so that a log
// capture sees its lines and the operation points can hold its workers.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "channel/rpc_manager.h"
#include "channel/rpc_plugin_instance.h"
#include "plugin/operation_seams.h"
#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"
#include "sim/host_sim.h"
#include "support/host_contract.h"
#include "support/log_wait.h"
#include "support/registry_isolation.h"
#include "wire/pdu.h"

extern "C" {
TBXBool TBXAPI TBXService_PluginInit(uintptr_t hostWord, TBXQueryInterfaceFn queryInterface);
TBXBool TBXAPI TBXService_PluginExit();
TBXBool TBXAPI TBXService_PluginCreateInstance(TBXHandle channel, TBXUserData* instanceHandle);
TBXBool TBXAPI TBXService_PluginDestroyInstance(TBXUserData instanceHandle);
int32_t TBXAPI TBXService_PluginGetTokenName(char* buffer, int32_t size);
}

constexpr uint32_t kCancelledHr = 0x800704C7;

class PluginOnHost : public ::testing::Test {
protected:
    explicit PluginOnHost(const wchar_t* libraryFolder = L"sim-authenticator") : library(libraryFolder) {}

    // The side-channel settings live as long as the manager's init: every test starts from "false".
    void SetUp() override {
        host.UsePlugin({TBXService_PluginInit, TBXService_PluginExit, TBXService_PluginCreateInstance,
                        TBXService_PluginDestroyInstance, TBXService_PluginGetTokenName});
        if (library.Loaded()) library.Reset();
        host.Reset();
        StartStrictHost(host);
        Reinit(L"false", L"false");
    }
    void TearDown() override {
        SetOperationCheckpoint(nullptr);
        SetWorkerStarter(nullptr);
        if (library.Loaded()) library.Reset();  // ends whatever still waits in the library
        for (TBXUserData instance : instances) host.DestroyInstance(instance);
        instances.clear();
        host.Exit();
        isolation.reset();
        ExpectHostContractKept(host);
        if (library.Loaded()) {
            EXPECT_EQ(library.LiveRecords(), 0) << "every library record went back";
        }
    }
    // Initialises again with these side-channel settings (null: absent).
    void Reinit(const wchar_t* tcp, const wchar_t* vchan) {
        host.Exit();
        isolation.reset();
        isolation = std::make_unique<ScopedHklmOverride>();
        const std::wstring key = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";
        for (auto [name, text] : {std::pair{L"tcpEnabled", tcp}, std::pair{L"vchanSideChannelEnabled", vchan}}) {
            if (text) WriteHklmValue(key, name, REG_SZ, text, static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t)));
        }
        ASSERT_TRUE(host.Init());
    }
    // An instance, brought up to ready unless told otherwise.
    TBXUserData NewInstance(bool up = true) {
        TBXUserData instance = 0;
        EXPECT_TRUE(host.CreateInstance(&instance));
        EXPECT_NE(instance, 0u);
        instances.push_back(instance);
        if (up) host.BringUp();
        return instance;
    }
    // The host lets go of the instance; a worker may keep it alive.
    void Destroy(TBXUserData instance) {
        EXPECT_TRUE(host.DestroyInstance(instance));
        instances.erase(std::remove(instances.begin(), instances.end(), instance), instances.end());
    }
    // Delivers a blob and returns the answer, or an empty vector if none came within waitMs.
    sim::Bytes Exchange(const sim::Bytes& blob, uint32_t waitMs = 5000, uint32_t command = 1) {
        const size_t before = host.Messages().size();
        host.DeliverMessage(blob, command);
        if (!host.WaitForMessages(before + 1, waitMs)) return {};
        const auto message = host.Messages()[before];
        return message.params.empty() ? sim::Bytes{0xEE} : message.params[0];
    }
    bool Answers() { return !Exchange(agent::RequestPdu(1, kCmdGetClientInfo, {}), 200).empty(); }
    // The request id and the HRESULT of each answer so far.
    std::vector<std::pair<uint32_t, uint32_t>> AnswerIds() {
        std::vector<std::pair<uint32_t, uint32_t>> ids;
        for (const auto& m : host.Messages()) {
            const sim::Bytes& pdu = m.params.at(0);
            ids.emplace_back(ReadLe32(pdu.data()), pdu.size() >= 12 ? ReadLe32(pdu.data() + 8) : 0xFFFFFFFF);
        }
        return ids;
    }
    // A make-credential request whose options carry `id` as cancellation id (null: none).
    agent::Bytes MakeCredential(uint32_t requestId, const webauthn::GUID* id, uint32_t version = 2, bool full = false) {
        auto sample = agent::SampleMakeCredential(arena, version, full);
        if (id) sample.pMakeCredentialOptions->pCancellationId = const_cast<webauthn::GUID*>(id);
        return agent::RequestPdu(requestId, kCmdMakeCredential, agent::EncodeMakeCredentialData(sample));
    }
    // A make-credential that the library holds until it is cancelled; true once it is held.
    bool StartBlocked(uint32_t requestId, const webauthn::GUID* id) {
        library.Mode(SIMAUTH_BLOCK_UNTIL_CANCEL);
        host.DeliverMessage(MakeCredential(requestId, id));
        return library.WaitBlocked(1);
    }
    void Cancel(uint32_t requestId, const webauthn::GUID* id) {
        host.DeliverMessage(agent::RequestPdu(requestId, kCmdCancelCurrentOperation, agent::EncodeCancelData(id)));
    }
    // A GUID whose bytes are seed, seed + 7, seed + 14, ...
    webauthn::GUID* NewGuid(uint8_t seed) {
        auto* guid = arena.New<webauthn::GUID>();
        for (int i = 0; i < 16; ++i) reinterpret_cast<uint8_t*>(guid)[i] = static_cast<uint8_t>(seed + 7 * i);
        return guid;
    }

    sim::Host& host = sim::Host::Get();
    sim::SoftwareAuthenticator library;
    std::unique_ptr<ScopedHklmOverride> isolation;
    std::vector<TBXUserData> instances;
    agent::SampleArena arena;
};
