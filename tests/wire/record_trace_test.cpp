// What the record dumps write at each level and behind each version gate.
#include <gtest/gtest.h>

#include "sim/agent_samples.h"
#include "support/log_capture.h"
#include "wire/record_trace.h"

using namespace webauthn;

namespace {

// The dump's own lines: at VERBOSE another thread of the process may log beside them.
std::vector<CapturedLine> DumpLines(LogCapture& log) {
    std::vector<CapturedLine> lines;
    for (const CapturedLine& line : log.Lines())
        if (line.function.rfind("Log_", 0) == 0) lines.push_back(line);
    return lines;
}

TEST(RecordDumps, GatesAndAbsentRecords) {
    agent::SampleArena arena;
    const WEBAUTHN_CLIENT_DATA* clientData = agent::SampleMakeCredential(arena, 5, true).pClientData;
    // Nothing at DEBUG, the fields at TRACE, their bytes too at VERBOSE, behind the pointer line.
    for (int32_t level : {LOG_DEBUG, LOG_TRACE, LOG_VERBOSE}) {
        ScopedLogCapture log(level);
        Log_ClientData(clientData);
        const std::vector<CapturedLine> lines = DumpLines(*log);
        ASSERT_EQ(lines.size(), level == LOG_DEBUG ? 0u : level == LOG_TRACE ? 6u : 7u) << level;
        if (level == LOG_DEBUG) continue;
        EXPECT_EQ(lines[0].text, "*****************************\n");
        EXPECT_EQ(lines[0].function, "Log_ClientData()");
        EXPECT_EQ(lines[1].text.rfind("pClientData=0x", 0), 0u);
        EXPECT_EQ(lines[2].text + lines[3].text,
                  "dwVersion=1\ncbClientDataJSON=" + std::to_string(clientData->cbClientDataJSON) + "\n");
        EXPECT_EQ(lines[4].text.rfind("pbClientDataJSON=0x", 0), 0u);
        EXPECT_EQ(lines.back().text, "pwszHashAlgId=SHA-256\n") << "a writer ends every message in a line feed";
        if (level == LOG_VERBOSE) {
            EXPECT_EQ(lines[5].text.rfind("0x0000: 7B 22 74 79 70 65", 0), 0u) << "the JSON bytes";
            EXPECT_EQ(lines[5].level, LOG_VERBOSE);
        }
    }

    ScopedLogCapture log(LOG_VERBOSE);
    Log_AuthenticatorMakeCredentialOptions(nullptr);
    const std::vector<CapturedLine> lines = DumpLines(*log);
    ASSERT_EQ(lines.size(), 2u) << "separator and pointer line only";
    EXPECT_EQ(lines[1].text, "pMakeCredentialOptions=0x0000000000000000\n");

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
