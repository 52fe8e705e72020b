// What the record dumps write at each level and behind each version gate.
#include <gtest/gtest.h>

#include "sim/agent_samples.h"
#include "support/log_capture.h"
#include "wire/record_trace.h"

using namespace webauthn;

namespace {

std::vector<std::string> Texts(LogCapture& log) {
    std::vector<std::string> texts;
    for (const auto& line : log.Lines()) texts.push_back(line.text);
    return texts;
}

TEST(RecordDumps, GatesAndAbsentRecords) {
    agent::SampleArena arena;
    const WEBAUTHN_CLIENT_DATA* clientData = agent::SampleMakeCredential(arena, 5, true).pClientData;
    const std::string json = "cbClientDataJSON=" + std::to_string(clientData->cbClientDataJSON) + "\n";
    // Nothing at DEBUG, the fields at TRACE, their bytes too at VERBOSE, behind the pointer line.
    for (int32_t level : {LOG_DEBUG, LOG_TRACE, LOG_VERBOSE}) {
        ScopedLogCapture log(level);
        Log_ClientData(clientData);
        const auto texts = Texts(*log);
        ASSERT_EQ(texts.size(), level == LOG_DEBUG ? 0u : level == LOG_TRACE ? 6u : 7u) << level;
        if (level == LOG_DEBUG) continue;
        EXPECT_EQ(texts[0], "*****************************\n");
        EXPECT_EQ(texts[1].rfind("pClientData=0x", 0), 0u);
        EXPECT_EQ(texts[2], "dwVersion=1\n");
        EXPECT_EQ(texts[3], json);
        EXPECT_EQ(texts[4].rfind("pbClientDataJSON=0x", 0), 0u);
        EXPECT_EQ(texts.back(), "pwszHashAlgId=SHA-256\n") << "a writer ends every message in a line feed";
        EXPECT_EQ(log->Lines()[0].function, "Log_ClientData()");
        if (level == LOG_VERBOSE) {
            EXPECT_EQ(texts[5].rfind("0x0000: 7B 22 74 79 70 65", 0), 0u) << "the JSON bytes";
            EXPECT_EQ(log->Lines()[5].level, LOG_VERBOSE);
        }
    }

    ScopedLogCapture log(LOG_VERBOSE);
    Log_AuthenticatorMakeCredentialOptions(nullptr);
    auto texts = Texts(*log);
    ASSERT_EQ(texts.size(), 2u) << "separator and pointer line only";
    EXPECT_EQ(texts[1], "pMakeCredentialOptions=0x0000000000000000\n");

    log->ClearLines();
    Log_AuthenticatorGetAssertionOptions(agent::SampleGetAssertion(arena, 1, false).pGetAssertionOptions);
    EXPECT_EQ(log->Count("pwszU2fAppId"), 0u) << "version 1 has no U2F app id";
    EXPECT_EQ(log->Count("pCancellationId"), 0u);

    log->ClearLines();
    Log_AuthenticatorGetAssertionOptions(agent::SampleGetAssertion(arena, 6, true).pGetAssertionOptions);
    EXPECT_EQ(log->Count("pwszU2fAppId=https://example.com/appid.json"), 1u);
    EXPECT_EQ(log->Count("pbU2fAppId=TRUE\n"), 1u);
    EXPECT_EQ(log->Count("pCancellationId=12345678-9ABC-DEF0-1032-547698BADCFE\n"), 1u);
    EXPECT_EQ(log->Count("  pCredential=0x0000000000000000\n"), 1u) << "the absent list element";
    EXPECT_EQ(log->Count("bBrowserInPrivateMode=TRUE\n"), 1u);

    log->ClearLines();
    const wchar16 empty[] = {0};
    WEBAUTHN_USER_ENTITY_INFORMATION user{};
    user.pwszIcon = empty;
    Log_UserEntityInformation(&user);
    EXPECT_EQ(log->Count("cbId=0\n"), 1u);
    EXPECT_EQ(log->Count("0x0000:"), 0u) << "an empty byte field has no dump";
    EXPECT_EQ(log->Count("pwszName=(null)"), 1u) << "a null text is told from an empty one";
    EXPECT_EQ(log->Count("pwszIcon=(null)"), 0u);
    EXPECT_EQ(log->Count("pwszIcon="), 1u);
}

}  // namespace
