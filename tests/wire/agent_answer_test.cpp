// The agent's reading of answers, on answers assembled field by field from the wire tables.
#include <gtest/gtest.h>

#include "sim/agent_codec.h"
#include "sim/agent_responses.h"

namespace {

TEST(AgentAnswers, AttestationOfVersion4WithCommonAttestation) {
    agent::WireWriter w;
    w.U32(0);  // hr
    w.U32(1);  // present
    w.U32(4);
    const wchar16 packed[] = {'p', 'a', 'c', 'k', 'e', 'd', 0};
    w.Wstr(packed);
    w.Buf("AUTHDATA", 8);
    w.Buf("ATT", 3);
    w.U32(1);  // decode type: common
    w.U32(1);  // common present
    w.U32(1);
    w.Wstr(nullptr);
    w.U32(static_cast<uint32_t>(-7));
    w.Buf("SIG", 3);
    w.U32(2);
    w.Buf("C1", 2);
    w.Buf("C2", 2);
    w.Wstr(nullptr);
    w.Buf(nullptr, 0);
    w.Buf(nullptr, 0);
    w.Buf("OBJECT", 6);
    w.Buf("ID", 2);
    w.U32(0);  // extensions
    w.U32(4);  // used transport
    w.U32(0);
    w.U32(1);
    w.U32(1);
    agent::AttestationAnswer a;
    ASSERT_TRUE(agent::DecodeAttestationAnswer(w.bytes, &a));
    EXPECT_EQ(a.formatType.text, u"packed");
    EXPECT_EQ(a.common.lAlg, -7);
    EXPECT_EQ(a.common.x5c.size(), 2u);
    EXPECT_EQ(a.attestationObject, agent::Bytes({'O', 'B', 'J', 'E', 'C', 'T'}));
    EXPECT_EQ(a.usedTransport, 4u);
    EXPECT_EQ(a.residentKey, 1u);

    agent::Bytes cut(w.bytes.begin(), w.bytes.end() - 4);
    EXPECT_FALSE(agent::DecodeAttestationAnswer(cut, &a));
    agent::Bytes longer = w.bytes;
    longer.push_back(0);
    EXPECT_FALSE(agent::DecodeAttestationAnswer(longer, &a)) << "left-over bytes";
}

TEST(AgentAnswers, AnswerWithoutRecordIsEightBytes) {
    agent::WireWriter w;
    w.U32(0x800704C7);
    w.U32(0);
    agent::AssertionAnswer a;
    ASSERT_TRUE(agent::DecodeAssertionAnswer(w.bytes, &a));
    EXPECT_EQ(a.hr, 0x800704C7u);
    EXPECT_FALSE(a.present);

    agent::WireWriter frame;
    frame.U32(5);
    frame.U32(8);
    frame.U32(0x800704C7);
    frame.U32(0);
    agent::Bytes pdu = frame.bytes;
    uint32_t id = 0;
    agent::Bytes data;
    ASSERT_TRUE(agent::SplitResponsePdu(pdu, &id, &data));
    EXPECT_EQ(id, 5u);
    EXPECT_EQ(data, w.bytes);
    pdu.pop_back();
    EXPECT_FALSE(agent::SplitResponsePdu(pdu, &id, &data));
}

}  // namespace
