// The plug-in's one attempt to bind webauthn.dll, once per process: the CTest entry names the
// library's folder (or none), and this process's row says what the attempt logs and what the
// agent then sees.
#include <cstdlib>

#include "plugin_host_fixture.h"

namespace {

const char* Folder() {
    const char* folder = getenv("FIDO2_TEST_AUTHENTICATOR");
    return folder ? folder : "none";
}

struct LibraryBinding : PluginOnHost {
    LibraryBinding() : PluginOnHost(std::wstring(Folder(), Folder() + strlen(Folder())).c_str()) {}
};

TEST_F(LibraryBinding, TheOneAttemptLogsItsOutcomeAndTheAgentSeesIt) {
    // version: what command 2 answers, the library's 7 or 0 when it isn't usable; a missing
    // function's line follows the loaded one.
    const struct { const char* folder; uint32_t version; std::string missing; } rows[] = {
        {"none", 0, ""}, {"sim-authenticator", 7, ""},
        {"sim-authenticator-no-uvpa", 0, "WebAuthNIsUserVerifyingPlatformAuthenticatorAvailable"},
        {"sim-authenticator-no-cancellation-id", 0, "WebAuthNGetCancellationId"},
        {"sim-authenticator-no-error-name", 0, "WebAuthNGetErrorName"},
        {"sim-authenticator-no-w3c", 0, "WebAuthNGetW3CExceptionDOMError"}};
    const auto row = std::find_if(std::begin(rows), std::end(rows), [](const auto& r) { return Folder() == std::string(r.folder); });
    ASSERT_NE(row, std::end(rows)) << "no row for " << Folder();
    if (library.Loaded()) library.Get<SimAuth_SetApiVersionFn>("SimAuth_SetApiVersion")(7);
    NewInstance();
    ScopedLogCapture log;
    sim::Bytes answer = Exchange(agent::RequestPdu(2, kCmdGetWebauthnApiVersion, {}));
    EXPECT_EQ(answer, (sim::Bytes{2, 0, 0, 0, 4, 0, 0, 0, static_cast<uint8_t>(row->version), 0, 0, 0}));
    std::vector<std::pair<int, std::string>> expected = {{LOG_ERROR, "Failed to load webauthn.dll, error=126\n"}};
    if (row->folder != std::string("none")) {
        expected = {{LOG_INFO, "Load webauthn.dll successfully\n"},
                    row->missing.empty() ? std::pair{LOG_INFO, std::string("Get function pointers for webauthn.dll successfully\n")}
                                         : std::pair{LOG_ERROR, "Failed to get proc address for " + row->missing + ", error=127\n"}};
    }
    expected.emplace_back(LOG_DEBUG, "Exit - ver=" + std::to_string(row->version) + "\n");
    std::vector<std::pair<int, std::string>> lines;
    for (const CapturedLine& line : log->Lines()) {
        if (line.function == "LoadWebauthn()" || (line.function == "Fido2ClientPlugin::Process_GetWebauthnApiVersion()" &&
                                                  line.text.rfind("Exit - ", 0) == 0)) {
            lines.emplace_back(line.level, line.text);
        }
    }
    EXPECT_EQ(lines, expected);
    // The outcome is final: the attempt isn't made again, and a library that turns up later is
    // not looked for. Without a usable library the operations answer E_FAIL and no record.
    log->ClearLines();
    sim::UseAuthenticatorFolder(L"sim-authenticator");
    answer = Exchange(agent::RequestPdu(3, kCmdGetWebauthnApiVersion, {}));
    EXPECT_EQ(answer.at(8), static_cast<uint8_t>(row->version));
    answer = Exchange(MakeCredential(4, NewGuid(1)));
    if (row->version == 0) {
        EXPECT_EQ(answer, (sim::Bytes{4, 0, 0, 0, 8, 0, 0, 0, 0x05, 0x40, 0x00, 0x80, 0, 0, 0, 0}));
    }
    EXPECT_TRUE(Exchange(agent::RequestPdu(5, kCmdCancelCurrentOperation, agent::EncodeCancelData(NewGuid(2))), 150).empty());
    EXPECT_EQ(log->Count("webauthn.dll"), 0u);
    SetDllDirectoryW(nullptr);
}

}  // namespace
