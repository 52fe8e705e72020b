// The real fido2Client.dll on the host simulator, as TBXService would run it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <memory>

#include "sim/host_sim.h"
#include "support/host_contract.h"
#include "support/registry_isolation.h"
#include "wire/pdu.h"

class PluginOnHost : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(sim::Host::Get().LoadPlugin()) << "fido2Client.dll not loadable"; }

    // The manager's side-channel settings live as long as the process and change only when
    // the registry says so: every test starts from explicit "false" values.
    void SetUp() override {
        host.Reset();
        StartStrictHost(host);
        isolation = std::make_unique<ScopedHklmOverride>();
        WriteSettings(L"false", L"false");
        ASSERT_TRUE(host.Init());
    }

    void TearDown() override {
        for (TBXUserData instance : instances) host.DestroyInstance(instance);
        instances.clear();
        host.Exit();
        isolation.reset();
        ExpectHostContractKept(host);
    }

    static void WriteSettings(const wchar_t* tcp, const wchar_t* vchan) {
        const std::wstring key = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";
        auto put = [&](const wchar_t* name, const wchar_t* text) {
            if (text) {
                WriteHklmValue(key, name, REG_SZ, text, static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t)));
            }
        };
        put(L"tcpEnabled", tcp);
        put(L"vchanSideChannelEnabled", vchan);
    }

    // Initialises again from the default state, then with these settings (null: absent).
    void ReinitWithSettings(const wchar_t* tcp, const wchar_t* vchan) {
        const bool withhold = host.withholdObjectOptions;
        host.Exit();
        host.Reset();
        host.withholdObjectOptions = withhold;
        isolation.reset();
        isolation = std::make_unique<ScopedHklmOverride>();
        WriteSettings(L"false", L"false");
        host.Init();
        host.Exit();
        isolation.reset();
        isolation = std::make_unique<ScopedHklmOverride>();
        WriteSettings(tcp, vchan);
        ASSERT_TRUE(host.Init());
    }

    TBXUserData NewInstance() {
        TBXUserData instance = 0;
        EXPECT_TRUE(host.CreateInstance(&instance));
        EXPECT_NE(instance, 0u);
        instances.push_back(instance);
        return instance;
    }

    void Destroy(TBXUserData instance) {
        EXPECT_TRUE(host.DestroyInstance(instance));
        instances.erase(std::remove(instances.begin(), instances.end(), instance), instances.end());
    }

    static sim::Bytes Request(uint32_t requestId, uint32_t command, const sim::Bytes& data) {
        sim::Bytes pdu(12 + data.size());
        WriteLe32(pdu.data(), requestId);
        WriteLe32(pdu.data() + 4, command);
        WriteLe32(pdu.data() + 8, static_cast<uint32_t>(data.size()));
        std::copy(data.begin(), data.end(), pdu.begin() + 12);
        return pdu;
    }

    // Delivers a blob and returns the answer, or an empty vector if none came.
    sim::Bytes Exchange(const sim::Bytes& blob, uint32_t waitMs = 300, uint32_t command = 1) {
        size_t before = host.Messages().size();
        host.DeliverMessage(blob, command);
        if (!host.WaitForMessages(before + 1, waitMs)) return {};
        auto messages = host.Messages();
        return messages[before].params.empty() ? sim::Bytes{0xEE} : messages[before].params[0];
    }

    // Connection and channel up, both objects announced but not yet connected.
    void UpToAnnouncedObjects(const std::string& dataObjectName = "fido2DataObj") {
        host.ReportConnection(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
        host.ReportChannel(TBX_STATE_CONNECTED, TBX_STATE_CONNECTED);
        host.AnnouncePeerObject("fido2ControlObj");
        host.AnnouncePeerObject(dataObjectName);
    }

    // Whether the instance answers a GetClientInfo now, i.e. is ready.
    bool Answers() { return !Exchange(Request(1, kCmdGetClientInfo, {}), 200).empty(); }

    std::vector<std::string> CreatedNames() {
        std::vector<std::string> names;
        for (const auto& o : host.CreatedObjects()) names.push_back(o.name);
        return names;
    }

    sim::Host& host = sim::Host::Get();
    std::unique_ptr<ScopedHklmOverride> isolation;
    std::vector<TBXUserData> instances;
};
