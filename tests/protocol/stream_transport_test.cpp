// The byte stream: ready lines, framing errors, the size limits, and how many system calls the
// messages cost.
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

TEST(StreamTransport, FramingErrorsEndServing) {
    // 12 bytes (not a multiple of 8), a reply, a non-write above 294912 bytes.
    const std::vector<uint8_t> bad[] = {
        header_only(12, request_code_word(1, 15)),
        header_only(8, reply_code_word(1, 0)),
        header_only(294920, request_code_word(1, 15)),
    };
    for (const auto& message : bad) {
        Leftovers leftovers;
        CapacityFormatter formatter;
        ServeHarness serve(&formatter, {.status = true});
        ASSERT_TRUE(serve.connect());
        serve.send({message.begin(), message.begin() + 8}); // the header tells
        EXPECT_EQ(serve.wait_served(), 11u);
        EXPECT_EQ(serve.status_with("stream error"), "ERROR: Protocol stream error.\n");
    }
}

TEST(StreamTransport, GarbageBeforeTheReadyLineIsSkipped) {
    CapacityFormatter formatter;
    ServeHarness serve(&formatter);
    std::string noise = "login: +(fspClientReady:..:.)\n+(fspClient", rest = "Ready:..:..)\n";
    serve.send({noise.begin(), noise.end()});
    // The rest of the line and the first request arrive together.
    std::vector<uint8_t> bytes = REQUEST(encode_capacity(out, cap, 1, nullptr));
    bytes.insert(bytes.begin(), rest.begin(), rest.end());
    serve.send(bytes);
    ASSERT_EQ(0u, serve.client->wait_ready(5000));
    EXPECT_EQ(serve.receive().size(), 24u);
}

TEST(StreamTransport, WritesUpToTheLargestMessage) {
    TestFormatter formatter;
    formatter.write = [](WriteRequest* r) {
        auto* data = static_cast<const uint8_t*>(r->Data());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % 4096, 0x123u); // aligned like the offset
        bool intact = data[0] == 1 && data[r->RequestedSize() - 1] == 2;
        r->Complete(intact ? ProtocolError::Success : ProtocolError::Corrupt, r->RequestedSize());
    };
    formatter.capacity = [](CapacityRequest* r) { r->Complete(ProtocolError::Success, 1, 1); };
    ServeHarness serve(&formatter, {.data_align = 4096});
    ASSERT_TRUE(serve.connect());

    // Exactly 0x1000000 bytes: 32 of header, 8 of padding, the rest data.
    uint32_t size = 0x1000000 - 40;
    std::vector<uint8_t> data(size, 0);
    data.front() = 1;
    data.back() = 2;
    auto message = REQUEST(encode_write(out, cap, 1, WriteFields{1, 0x123, size, 8, data.data()}));
    ASSERT_EQ(message.size(), 0x1000000u);
    auto reply = serve.transact(message);
    uint32_t actual = 0;
    ASSERT_TRUE(client::decode_write_reply(reply.data(), reply.size(), &actual));
    EXPECT_EQ(actual, size);

    // A write whose header is invalid (padding above 0x8000) is answered from its header; its
    // long body is dropped and the stream stays in step.
    std::vector<uint8_t> bad = header_only(0x100000, request_code_word(2, 13));
    store_u32(&bad[28], 0x9000);
    EXPECT_EQ(hex(serve.transact(bad)), "0800000002004080");
    EXPECT_EQ(serve.transact(REQUEST(encode_capacity(out, cap, 3, nullptr))).size(), 24u);
}

TEST(StreamTransport, DisconnectEndsServingWhileAReplyWaitsForItsReader) {
    // Without a pipe buffer every write waits for a read; the disconnect's reply is never read.
    CapacityFormatter formatter;
    ServeHarness serve(&formatter, {.unbuffered = true});
    ASSERT_TRUE(serve.connect());
    EXPECT_EQ(serve.transact(REQUEST(encode_capacity(out, cap, 1, nullptr))).size(), 24u);
    serve.send(REQUEST(encode_disconnect(out, cap, 2)));
    EXPECT_EQ(serve.wait_served(), 0u);
}

TEST(StreamTransport, MessagesShareSystemCalls) {
    CapacityFormatter formatter;
    ServeHarness serve(&formatter);
    ASSERT_TRUE(serve.connect());
    constexpr uint64_t kCount = 200;
    std::vector<uint8_t> all;
    for (uint32_t i = 1; i <= kCount; ++i) {
        auto one = REQUEST(encode_capacity(out, cap, i, nullptr));
        all.insert(all.end(), one.begin(), one.end());
    }
    uint64_t calls = serve.client->read_calls();
    uint64_t reads = serve.marshaller->transport_reads, writes = serve.marshaller->transport_writes;
    serve.send(all);
    for (uint32_t i = 1; i <= kCount; ++i) ASSERT_EQ(serve.receive().size(), 24u);
    // The server carves all requests out of few reads, and replies queued together leave in
    // one write, so the client needs far fewer reads than there are replies.
    EXPECT_LT(serve.marshaller->transport_reads - reads, kCount / 4);
    EXPECT_LT(serve.marshaller->transport_writes - writes, kCount / 2);
    EXPECT_LT(serve.client->read_calls() - calls, kCount / 2);
}
