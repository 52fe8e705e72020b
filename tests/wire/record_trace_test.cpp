// What the record dumps write at each level and behind each version gate.
#include <gtest/gtest.h>

#include <regex>

#include "sim/agent_samples.h"
#include "support/log_capture.h"
#include "wire/record_trace.h"

using namespace webauthn;

namespace {

// The dump's own lines, each behind its level: at VERBOSE another thread may log beside them.
std::string DumpText(LogCapture& log) {
    std::string text;
    for (const CapturedLine& line : log.Lines())
        if (line.function.rfind("Log_", 0) == 0) text += std::to_string(line.level) + " " + line.text;
    return text;
}

TEST(RecordDumps, GatesAndAbsentRecords) {
    agent::SampleArena arena;
    const WEBAUTHN_CLIENT_DATA* clientData = agent::SampleMakeCredential(arena, 5, true).pClientData;
    // Nothing at DEBUG, the fields at TRACE, their bytes too at VERBOSE, behind the pointer line.
    for (int32_t level : {LOG_DEBUG, LOG_TRACE, LOG_VERBOSE}) {
        ScopedLogCapture log(level);
        Log_ClientData(clientData);
        const std::string text = DumpText(*log), length = std::to_string(clientData->cbClientDataJSON);
        // Sixteen bytes a row, the rows under the first standing under it.
        const std::string bytes = "6 0x0000: 7B 22 74 79 70 65 [^\n]*\n( +0x00[0-9a-f]0: [^\n]*\n){" +
                                  std::to_string((clientData->cbClientDataJSON - 1) / 16) + "}";
        const std::string dump = "5 \\*{29}\n5 pClientData=0x[0-9A-Fa-f]+\n5 dwVersion=1\n5 cbClientDataJSON=" + length +
                                 "\n5 pbClientDataJSON=0x[0-9A-Fa-f]+\n" + (level == LOG_VERBOSE ? bytes : "") +
                                 "5 pwszHashAlgId=SHA-256\n";
        EXPECT_TRUE(std::regex_match(text, std::regex(level == LOG_DEBUG ? "" : dump))) << level << "\n" << text;
    }

    ScopedLogCapture log(LOG_VERBOSE);
    Log_AuthenticatorMakeCredentialOptions(nullptr);
    EXPECT_EQ(DumpText(*log), "5 *****************************\n5 pMakeCredentialOptions=0x0000000000000000\n");

    log->ClearLines();
    Log_AuthenticatorGetAssertionOptions(agent::SampleGetAssertion(arena, 1, false).pGetAssertionOptions);
    EXPECT_EQ(log->Count("pwszU2fAppId") + log->Count("pCancellationId"), 0u) << "version 1 has neither";

    log->ClearLines();
    Log_AuthenticatorGetAssertionOptions(agent::SampleGetAssertion(arena, 6, true).pGetAssertionOptions);
    for (const char* line : {"pwszU2fAppId=https://example.com/appid.json", "pbU2fAppId=TRUE\n",
                             "pCancellationId=12345678-9ABC-DEF0-1032-547698BADCFE\n",
                             "  pCredential=0x0000000000000000\n" /* the absent list element */,
                             "bBrowserInPrivateMode=TRUE\n"})
        EXPECT_EQ(log->Count(line), 1u) << line;

    // An empty byte field has no dump, and a null text is told from an empty one.
    log->ClearLines();
    const wchar16 empty[] = {0};
    WEBAUTHN_USER_ENTITY_INFORMATION user{};
    user.pwszIcon = empty;
    Log_UserEntityInformation(&user);
    EXPECT_EQ(log->Count("cbId=0\n"), 1u);
    EXPECT_EQ(log->Count("0x0000:"), 0u) << "no bytes dumped";
    EXPECT_EQ(log->Count("pwszName=(null)"), 1u);
    EXPECT_EQ(log->Count("pwszIcon=(null)"), 0u);
    EXPECT_EQ(log->Count("pwszIcon="), 1u);
}

}  // namespace
