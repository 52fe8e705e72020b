// The plug-in's one attempt to bind webauthn.dll, run once per process: the CTest entry
// names the library folder (or none) and the version command 2 must answer.
#include <cstdlib>

#include "plugin_host_fixture.h"
#include "sim/authenticator_client.h"

namespace {

std::string Env(const char* name, const char* fallback) {
    const char* value = getenv(name);
    return value ? value : fallback;
}

using LibraryBinding = PluginOnHost;

TEST_F(LibraryBinding, CommandTwoAnswersTheOutcomeOfTheOneAttempt) {
    const std::string folder = Env("FIDO2_TEST_AUTHENTICATOR", "none");
    const uint32_t expected = static_cast<uint32_t>(strtoul(Env("FIDO2_TEST_EXPECT_VERSION", "0").c_str(), nullptr, 10));
    if (folder != "none") {
        ASSERT_TRUE(sim::UseAuthenticatorFolder(std::wstring(folder.begin(), folder.end())));
    }
    NewInstance();
    host.BringUp();
    sim::Bytes answer = Exchange(Request(2, kCmdGetWebauthnApiVersion, {}));
    ASSERT_EQ(answer.size(), 12u);
    EXPECT_EQ(ReadLe32(answer.data() + 8), expected) << folder;

    // The outcome is final: a library that turns up later is not looked for again.
    sim::UseAuthenticatorFolder(L"sim-authenticator");
    answer = Exchange(Request(3, kCmdGetWebauthnApiVersion, {}));
    ASSERT_EQ(answer.size(), 12u);
    EXPECT_EQ(ReadLe32(answer.data() + 8), expected);
    SetDllDirectoryW(nullptr);
}

}  // namespace
