// The token name export: whatever the host's buffer, the copy is terminated, and the trace
// shows what was copied. No init is needed.
#include <gtest/gtest.h>

#include <cstring>

#include "channel/host_interfaces.h"
#include "support/log_capture.h"

extern "C" int32_t TBXAPI TBXService_PluginGetTokenName(char* buffer, int32_t size);

namespace {

TEST(TokenName, CopiesWhatFitsAndTracesOnlyThat) {
    const struct {
        int32_t size;
        const char* buffer;  // after the call; X marks bytes that must stay untouched
        const char* exitText;
    } rows[] = {{16, "fido2", "\"fido2\"\n"}, {6, "fido2", "\"fido2\"\n"}, {3, "fi", "\"fi\"\n"},
                {1, "", "\"\"\n"}, {0, "XXXXXXXX", "\"\"\n"}, {-5, "XXXXXXXX", "\"\"\n"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "size " << row.size);
        // Eight marked bytes with no terminator of the host's, then our own to stop any overread
        // in the expectation rather than in the code under test.
        char buffer[17] = {};
        memset(buffer, 'X', 8);
        ScopedLogCapture log(LOG_INFO);
        EXPECT_EQ(TBXService_PluginGetTokenName(buffer, row.size), 1);
        EXPECT_STREQ(buffer, row.buffer);
        ASSERT_FALSE(log->Lines().empty());
        EXPECT_NE(log->Lines().back().text.find(row.exitText), std::string::npos) << log->Lines().back().text;
    }
    EXPECT_EQ(TBXService_PluginGetTokenName(nullptr, 8), 1);
}

}  // namespace
