// The plug-in's own code in this process on the host simulator, with one ready instance and
// the software authenticator as its webauthn.dll: for tests that hold a worker at a point of
// its road, replace how it starts, or read the log lines it writes.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include "channel/rpc_manager.h"
#include "plugin/fido2_client.h"
#include "plugin/operation_seams.h"
#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "sim/authenticator_client.h"
#include "sim/host_sim.h"
#include "support/host_contract.h"
#include "support/registry_isolation.h"

class InProcessPlugin : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(library.Loaded());
        library.Reset();
        host.Reset();
        StartStrictHost(host);
        TheFido2Client().TBXPluginInit(0, &sim::Host::QueryInterface);
        ASSERT_TRUE(TheFido2Client().TBXPluginCreateInstance(nullptr, &instance));
        host.BringUp();
    }
    void TearDown() override {
        SetOperationCheckpoint(nullptr);
        SetWorkerStarter(nullptr);
        library.Reset();  // ends whatever still waits in the library
        if (instance) TheFido2Client().TBXPluginDestroyInstance(instance);
        TheFido2Client().TBXPluginExit();
        ExpectHostContractKept(host);
    }

    // A make-credential request whose options carry `id` as cancellation id (null: none).
    agent::Bytes MakeCredential(uint32_t requestId, webauthn::GUID* id) {
        auto sample = agent::SampleMakeCredential(arena, id ? 2 : 1, false);
        if (id) sample.pMakeCredentialOptions->pCancellationId = id;
        return agent::RequestPdu(requestId, kCmdMakeCredential, agent::EncodeMakeCredentialData(sample));
    }
    webauthn::GUID* NewGuid(uint8_t seed) {
        auto* guid = arena.New<webauthn::GUID>();
        auto* bytes = reinterpret_cast<uint8_t*>(guid);
        for (int i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>(seed + 7 * i);
        return guid;
    }
    // The host lets go of the instance; a worker may keep it alive.
    void DestroyInstance() {
        ASSERT_TRUE(TheFido2Client().TBXPluginDestroyInstance(instance));
        instance = 0;
    }

    ScopedHklmOverride isolation;
    sim::Host& host = sim::Host::Get();
    sim::SoftwareAuthenticator library;
    TBXUserData instance = 0;
    agent::SampleArena arena;
};
