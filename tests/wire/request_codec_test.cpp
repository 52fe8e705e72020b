// Every way a request can be cut, bent or refused: what a failed decode frees and what it logs.
#include <gtest/gtest.h>

#include "sim/agent_codec.h"
#include "sim/agent_samples.h"
#include "support/counted_allocations.h"
#include "support/log_capture.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

using namespace webauthn;

namespace {

Fido2MakeCredentialRequest* DecodeMc(const agent::Bytes& data, size_t length) {
    return Decode_AuthenticatorMakeCredentialRequest(data.data(), data.data() + length);
}
Fido2GetAssertionRequest* DecodeGa(const agent::Bytes& data, size_t length) {
    return Decode_AuthenticatorGetAssertionRequest(data.data(), data.data() + length);
}

TEST(RequestCuts, EveryCutOfAFullRequestFailsCleanly) {
    CountedAllocations allocations;
    agent::SampleArena arena;
    agent::Bytes mc = agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 5, true));
    for (size_t cut = 0; cut < mc.size(); ++cut) {
        EXPECT_EQ(DecodeMc(mc, cut), nullptr) << "make credential cut at " << cut;
        ASSERT_EQ(CountedAllocations::Live(), 0) << "cut at " << cut;
    }
    agent::Bytes ga = agent::EncodeGetAssertionData(agent::SampleGetAssertion(arena, 6, true));
    for (size_t cut = 0; cut < ga.size(); ++cut) {
        EXPECT_EQ(DecodeGa(ga, cut), nullptr) << "get assertion cut at " << cut;
        ASSERT_EQ(CountedAllocations::Live(), 0) << "cut at " << cut;
    }
}

TEST(RequestCuts, FailureLogsThePrimitiveThenEachRecordLevel) {
    ScopedLogCapture log(LOG_ERROR);
    agent::SampleArena arena;
    agent::Bytes data = agent::EncodeMakeCredentialData(agent::SampleMakeCredential(arena, 1, false));
    // Cut inside the hash algorithm id, the last field of the client data before 40 bytes of options.
    size_t cut = data.size() - 40 - 4;
    EXPECT_EQ(DecodeMc(data, cut), nullptr);
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].function, "Decode_wstr()");
    EXPECT_EQ(lines[1].function, "Decode_ClientData()");
    EXPECT_EQ(lines[1].text.rfind("Decode error. func:Decode_ClientData, line:", 0), 0u) << lines[1].text;
    EXPECT_EQ(lines[2].function, "Decode_AuthenticatorMakeCredentialRequest()");
}

TEST(RequestVersions, OptionsNewerThanOurRecordAreRefused) {
    // The library would read the newer fields behind our block: the decode fails, with a line
    // that names the record and the version, whatever bytes follow.
    struct Row {
        bool makeCredential;
        uint32_t version;
        const char* line;
    } rows[] = {
        {true, 6, "Unsupported WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS version 6 refused"},
        {true, 0xFFFFFFFF, "Unsupported WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS version 4294967295 refused"},
        {false, 7, "Unsupported WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS version 7 refused"},
    };
    CountedAllocations allocations;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        agent::Bytes options = {1, 0, 0, 0};
        for (int shift = 0; shift < 32; shift += 8) options.push_back(static_cast<uint8_t>(row.version >> shift));
        options.resize(options.size() + 96, 0);  // room for every field of any version, all zero
        ScopedLogCapture log(LOG_ERROR);
        uint32_t taken = 1;
        if (row.makeCredential) {
            WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* out = nullptr;
            taken = Decode_AuthenticatorMakeCredentialOptions(options.data(), options.data() + options.size(), &out);
            EXPECT_EQ(out, nullptr);
        } else {
            WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* out = nullptr;
            taken = Decode_AuthenticatorGetAssertionOptions(options.data(), options.data() + options.size(), &out);
            EXPECT_EQ(out, nullptr);
        }
        EXPECT_EQ(taken, 0u);
        ASSERT_FALSE(log->Lines().empty());
        EXPECT_EQ(log->Lines()[0].text.rfind(row.line, 0), 0u) << log->Lines()[0].text;
        EXPECT_EQ(CountedAllocations::Live(), 0);
    }
}

TEST(RecordEdges, AShortListLogsAsIfEachElementHadBeenTried) {
    // One element on the wire and a count of 2 or of 0xFFFFFFFF: either way the second element
    // is tried and fails, with the lines of the primitive and of each record level above it.
    using Decode = uint32_t (*)(const agent::Bytes&);
    struct Row {
        const char* list;
        agent::Bytes head, element;
        Decode decode;
        std::vector<std::string> functions;
    } rows[] = {
        {"Credentials", {}, {1, 0, 0, 0, 2, 0, 0, 0, 'i', 'd', 0, 0, 0, 0, 0, 0},
         [](const agent::Bytes& b) {
             WEBAUTHN_CREDENTIALS list{};
             uint32_t taken = Decode_Credentials(b.data(), b.data() + b.size(), &list);
             Free_Credentials(&list);
             return taken;
         },
         {"Decode_uint32()", "Decode_Credential()", "Decode_Credentials()"}},
        {"CoseCredentialParameters", {}, {1, 0, 0, 0, 0, 0, 0, 0, 0xF9, 0xFF, 0xFF, 0xFF},
         [](const agent::Bytes& b) {
             WEBAUTHN_COSE_CREDENTIAL_PARAMETERS* out = nullptr;
             return Decode_CoseCredentialParameters(b.data(), b.data() + b.size(), &out);
         },
         {"Decode_uint32()", "Decode_CoseCredentialParameters()"}},
        {"Extensions", {}, {0, 0, 0, 0, 0, 0, 0, 0},
         [](const agent::Bytes& b) {
             WEBAUTHN_EXTENSIONS list{};
             return Decode_Extensions(b.data(), b.data() + b.size(), &list);
         },
         {"Decode_uint32()", "Decode_wstr()", "Decode_Extensions()"}},
        {"CredentialList", {1, 0, 0, 0}, {0, 0, 0, 0},
         [](const agent::Bytes& b) {
             WEBAUTHN_CREDENTIAL_LIST* out = nullptr;
             return Decode_CredentialList(b.data(), b.data() + b.size(), &out);
         },
         {"Decode_uint32()", "Decode_CredentialEx()", "Decode_CredentialList()"}},
        {"HmacSecretSaltValues", {1, 0, 0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, 0, 0, 0},
         [](const agent::Bytes& b) {
             WEBAUTHN_HMAC_SECRET_SALT_VALUES* out = nullptr;
             return Decode_HmacSecretSaltValues(b.data(), b.data() + b.size(), &out);
         },
         {"Decode_uint32()", "Decode_buf_uint32Len()", "Decode_CredWithHmacSecretSalt()",
          "Decode_HmacSecretSaltValues()"}},
    };
    CountedAllocations allocations;
    for (const Row& row : rows) {
        for (uint32_t count : {2u, 0xFFFFFFFFu}) {
            SCOPED_TRACE(testing::Message() << row.list << " of count " << count);
            agent::Bytes wire = row.head;
            for (int shift = 0; shift < 32; shift += 8) wire.push_back(static_cast<uint8_t>(count >> shift));
            wire.insert(wire.end(), row.element.begin(), row.element.end());
            ScopedLogCapture log(LOG_ERROR);
            EXPECT_EQ(row.decode(wire), 0u);
            std::vector<std::string> functions;
            for (const CapturedLine& line : log->Lines()) functions.push_back(line.function);
            EXPECT_EQ(functions, row.functions);
            EXPECT_EQ(CountedAllocations::Live(), 0);
        }
    }
}

TEST(RecordEdges, GuidLengths) {
    CountedAllocations allocations;
    for (uint32_t length : {0u, 1u, 15u, 16u, 17u, 32u}) {
        agent::WireWriter w;
        std::vector<uint8_t> bytes(length, 0x42);
        w.Buf(bytes.data(), length);
        webauthn::GUID* guid = reinterpret_cast<webauthn::GUID*>(1);
        uint32_t taken = Decode_GUID(w.bytes.data(), w.bytes.data() + w.bytes.size(), &guid);
        if (length == 0 || length == 16) {
            EXPECT_EQ(taken, w.bytes.size()) << length;
            EXPECT_EQ(guid == nullptr, length == 0) << length;
            Free_GUID(guid);
        } else {
            EXPECT_EQ(taken, 0u) << length;
            EXPECT_EQ(guid, reinterpret_cast<webauthn::GUID*>(1)) << "left as it was";
        }
    }
    EXPECT_EQ(CountedAllocations::Live(), 0);
}

TEST(RecordEdges, FailedOptionsFreeOnlyWhatWasBuilt) {
    CountedAllocations allocations;
    agent::SampleArena arena;
    auto sample = agent::SampleGetAssertion(arena, 6, true);
    agent::Bytes options = agent::EncodeGetAssertionOptions(sample.pGetAssertionOptions);
    for (size_t cut = 0; cut < options.size(); ++cut) {
        WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* decoded = nullptr;
        EXPECT_EQ(Decode_AuthenticatorGetAssertionOptions(options.data(), options.data() + cut, &decoded), 0u);
        EXPECT_EQ(decoded, nullptr);
        ASSERT_EQ(CountedAllocations::Live(), 0) << cut;
    }
}

TEST(RecordEdges, EveryFreeAcceptsNull) {
    Free_RpEntityInformation(nullptr);
    Free_UserEntityInformation(nullptr);
    Free_CoseCredentialParameters(nullptr);
    Free_ClientData(nullptr);
    Free_Credentials(nullptr);
    Free_CredentialList(nullptr);
    Free_HmacSecretSalt(nullptr);
    Free_HmacSecretSaltValues(nullptr);
    Free_GUID(nullptr);
    Free_AuthenticatorMakeCredentialOptions(nullptr);
    Free_AuthenticatorGetAssertionOptions(nullptr);
    Free_AuthenticatorMakeCredentialRequest(nullptr);
    Free_AuthenticatorGetAssertionRequest(nullptr);
}

}  // namespace
