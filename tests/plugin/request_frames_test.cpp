// What the plug-in answers to each kind of blob the agent can send, and the one error line
// with which it refuses a blob.
#include "plugin_host_fixture.h"

namespace {

// '*' in the pattern stands for any run of characters.
bool Matches(const char* pattern, const char* text) {
    if (*pattern == '*') return Matches(pattern + 1, text) || (*text && Matches(pattern, text + 1));
    return *pattern == *text && (*pattern == '\0' || Matches(pattern + 1, text + 1));
}

using RequestFrames = PluginOnHost;

TEST_F(RequestFrames, EachBlobGetsItsAnswerAndEachRefusalItsErrorLine) {
    NewInstance();
    const char* const process = "Fido2ClientPlugin::ProcessFido2Request()";
    const char* const makeThread = "Fido2ClientPlugin::AuthenticatorMakeCredentialThread()";
    const char* const makeLine =
        "Fido2ClientPlugin::AuthenticatorMakeCredentialThread: Fail to decode MakeCredential request package.\n";
    const sim::Bytes clientInfo7 = {7, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 1};
    const sim::Bytes eFail7 = {7, 0, 0, 0, 8, 0, 0, 0, 0x05, 0x40, 0x00, 0x80, 0, 0, 0, 0};  // and no record
    sim::Bytes shortened = MakeCredential(7, NewGuid(1));
    WriteLe32(shortened.data() + 8, ReadLe32(shortened.data() + 8) - 8);  // the request runs past dataLen
    // command: of the message, 0 for one of command 1 without a parameter; answer: empty for none;
    // function and line: of the plug-in's one ERROR line, null for none at ERROR or WARN.
    const struct { const char* what; sim::Bytes blob; uint32_t command; sim::Bytes answer; const char* function, *line; } rows[] = {
        {"12 bytes, no data", {7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, 1, clientInfo7, nullptr, nullptr},
        {"bytes behind the total", {7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xAA, 0xBB}, 1, clientInfo7, nullptr, nullptr},
        {"request id copied", {1, 0, 0, 0x80, 1, 0, 0, 0, 2, 0, 0, 0, 1, 2, 0, 0}, 1,
         {1, 0, 0, 0x80, 4, 0, 0, 0, 0, 0, 0, 1}, nullptr, nullptr},
        {"api version", {7, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}, 1, {7, 0, 0, 0, 4, 0, 0, 0, 4, 0, 0, 0}, nullptr, nullptr},
        {"message command 2", {7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, 2, {}, "Fido2ClientPlugin::OnInvoke()",
         "Unknown command = 0x2\n"},
        {"message without a blob", {7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}, 0, {}, process,
         "Invalid data received. pRequestPDU=0x0000000000000000, len=0\n"},
        {"empty blob", {}, 1, {}, process, "Invalid data received. pRequestPDU=0x*, len=0\n"},
        {"11 bytes", {7, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0}, 1, {}, process, "Invalid data received. pRequestPDU=0x*, len=11\n"},
        {"12 bytes claiming 1 data byte", {7, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0}, 1, {}, process,
         "Invalid data received. len=12, RequestPDUTotalLen=13\n"},
        {"dataLen + 12 past 32 bits", {7, 0, 0, 0, 1, 0, 0, 0, 0xF8, 0xFF, 0xFF, 0xFF}, 1, {}, process,
         "Invalid data received. len=12, RequestPDUTotalLen=4294967295\n"},
        {"command 0", {7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 1, {}, process, "Unrecognize command, fido2Cmd=0\n"},
        {"command 6", {7, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0}, 1, {}, process, "Unrecognize command, fido2Cmd=6\n"},
        {"cancel with an 8-byte GUID", {7, 0, 0, 0, 5, 0, 0, 0, 12, 0, 0, 0, 8, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}, 1, {},
         "Fido2ClientPlugin::Process_CancelCurrentOperation()", "Fail to decode CancelCurrentOperation request\n"},
        {"cut make credential", {7, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4}, 1, eFail7, makeThread, makeLine},
        {"make credential short of its dataLen", shortened, 1, eFail7, makeThread, makeLine},
        {"cut get assertion", {7, 0, 0, 0, 4, 0, 0, 0, 4, 0, 0, 0, 1, 2, 3, 4}, 1, eFail7,
         "Fido2ClientPlugin::AuthenticatorGetAssertionThread()", "Fail to decode GetAssertion request package\n"},
    };
    ScopedLogCapture log;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        log->ClearLines();
        const size_t before = host.Messages().size();
        host.DeliverMessage(row.blob, row.command ? row.command : 1, std::string(), row.command != 0);
        // The refusals happen on the delivery thread; a little wait shows that no answer follows.
        const bool answered = host.WaitForMessages(before + 1, row.answer.empty() ? 150 : 5000);
        EXPECT_EQ(answered ? host.Messages()[before].params.at(0) : sim::Bytes{}, row.answer);
        std::vector<CapturedLine> errors;
        for (const CapturedLine& line : log->Lines()) {
            // The wire layer's own decode lines are the wire tests' business.
            if (line.level <= LOG_WARN && line.function.rfind("Fido2ClientPlugin::", 0) == 0) errors.push_back(line);
        }
        ASSERT_EQ(errors.size(), row.line ? 1u : 0u) << (errors.empty() ? "" : errors[0].text);
        if (row.line) {
            EXPECT_EQ(errors[0].level, LOG_ERROR);
            EXPECT_EQ(errors[0].function, row.function);
            EXPECT_TRUE(Matches(row.line, errors[0].text.c_str())) << errors[0].text;
        }
    }
    EXPECT_EQ(library.Calls(), 0) << "no refused request reached the library";
}

}  // namespace
