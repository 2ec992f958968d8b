// The byte stream: ready lines, framing errors, the size limits, broken pipes, and how many
// system calls the messages cost.
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

std::vector<uint8_t> header_only(uint32_t size, uint32_t code) {
    std::vector<uint8_t> m(size < 8 ? 8 : size);
    memcpy(&m[0], &size, 4);
    memcpy(&m[4], &code, 4);
    return m;
}

struct CapacityFormatter : TestFormatter {
    CapacityFormatter() {
        capacity = [](CapacityRequest* r) { r->Complete(ProtocolError::Success, 10, 5); };
    }
};

} // namespace

TEST(StreamTransport, FramingErrorsEndServing) {
    // 12 bytes (not a multiple of 8), a reply, a non-write above 294912 bytes.
    const std::vector<uint8_t> bad[] = {
        header_only(12, request_code_word(1, 15)),
        header_only(8, reply_code_word(1, 0)),
        header_only(294920, request_code_word(1, 15)),
    };
    for (const auto& message : bad) {
        CapacityFormatter formatter;
        ServeHarness serve(&formatter);
        ASSERT_TRUE(serve.connect());
        serve.send(std::vector<uint8_t>(message.begin(), message.begin() + 16));
        EXPECT_EQ(serve.wait_served(), 11u);
        EXPECT_EQ(serve.status_with("stream error"), "ERROR: Protocol stream error.\n");
    }
}

TEST(StreamTransport, UnknownOperationIsAnsweredAndServingGoesOn) {
    CapacityFormatter formatter;
    ServeHarness serve(&formatter, {.status = false});
    ASSERT_TRUE(serve.connect());
    EXPECT_EQ(hex(serve.transact(header_only(16, request_code_word(3, 0x7FF)))),
              "0800000003004080");
    EXPECT_EQ(hex(serve.transact(header_only(8, request_code_word(4, 15)))),
              hex_norm("18000000 04000080 0a000000 00000000 05000000 00000000"));
}

TEST(StreamTransport, GarbageBeforeTheReadyLineIsSkipped) {
    CapacityFormatter formatter;
    ServeHarness serve(&formatter, {.status = false});
    std::string noise = "login: +(fspClientReady:..:.)\n+(fspClient";
    ASSERT_EQ(0u, serve.client->send(noise.data(), noise.size()));
    // The rest of the line and the first request arrive together.
    std::string rest = "Ready:..:..)\n";
    std::vector<uint8_t> bytes(rest.begin(), rest.end());
    auto request = REQUEST(encode_capacity(out, cap, 1, nullptr));
    bytes.insert(bytes.end(), request.begin(), request.end());
    serve.send(bytes);
    ASSERT_EQ(0u, serve.client->wait_ready(5000));
    EXPECT_EQ(serve.receive().size(), 24u);
}

TEST(StreamTransport, WritesUpToTheLargestMessage) {
    TestFormatter formatter;
    formatter.write = [](WriteRequest* r) {
        auto* data = static_cast<const uint8_t*>(r->Data());
        bool intact = data[0] == 1 && data[r->RequestedSize() - 1] == 2;
        r->Complete(intact ? ProtocolError::Success : ProtocolError::Corrupt, r->RequestedSize());
    };
    formatter.capacity = [](CapacityRequest* r) { r->Complete(ProtocolError::Success, 1, 1); };
    ServeHarness serve(&formatter, {.data_align = 4096, .status = false});
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
    uint32_t padding = 0x9000;
    memcpy(&bad[28], &padding, 4);
    EXPECT_EQ(hex(serve.transact(bad)), "0800000002004080");
    EXPECT_EQ(serve.transact(REQUEST(encode_capacity(out, cap, 3, nullptr))).size(), 24u);
}

TEST(StreamTransport, DisconnectEndsServingWhileAReplyWaitsForItsReader) {
    // Without a pipe buffer every write waits for a read; the disconnect's reply is never read.
    CapacityFormatter formatter;
    ServeHarness serve(&formatter, {.status = false, .unbuffered = true});
    ASSERT_TRUE(serve.connect());
    EXPECT_EQ(serve.transact(REQUEST(encode_capacity(out, cap, 1, nullptr))).size(), 24u);
    serve.send(REQUEST(encode_disconnect(out, cap, 2)));
    EXPECT_EQ(serve.wait_served(), 0u);
}

TEST(StreamTransport, BrokenPipeEndsServing) {
    CapacityFormatter formatter;
    ServeHarness serve(&formatter);
    ASSERT_TRUE(serve.connect());
    serve.hang_up();
    EXPECT_EQ(serve.wait_served(), 109u);
    EXPECT_EQ(serve.status_with("read error"), "ERROR: 109 Socket read error.\n");
}

TEST(StreamTransport, MessagesShareSystemCalls) {
    CapacityFormatter formatter;
    ServeHarness serve(&formatter, {.status = false});
    ASSERT_TRUE(serve.connect());
    constexpr int kCount = 200;
    std::vector<uint8_t> all;
    for (int i = 1; i <= kCount; ++i) {
        auto one = REQUEST(encode_capacity(out, cap, i, nullptr));
        all.insert(all.end(), one.begin(), one.end());
    }
    uint64_t before = serve.client->read_calls();
    uint64_t reads_before = serve.marshaller->transport_reads;
    uint64_t writes_before = serve.marshaller->transport_writes;
    serve.send(all);
    for (int i = 1; i <= kCount; ++i) ASSERT_EQ(serve.receive().size(), 24u);
    uint64_t calls = serve.client->read_calls() - before;
    uint64_t reads = serve.marshaller->transport_reads - reads_before;
    uint64_t writes = serve.marshaller->transport_writes - writes_before;
    // The server carves all requests out of few reads, and replies queued together leave in
    // one write, so the client needs far fewer reads than there are replies.
    printf("[          ] %d requests: server %llu reads, %llu writes; "
           "client %llu reads\n",
           kCount, static_cast<unsigned long long>(reads), static_cast<unsigned long long>(writes),
           static_cast<unsigned long long>(calls));
    EXPECT_LT(reads, uint64_t{kCount / 4});
    EXPECT_LT(writes, uint64_t{kCount / 2});
    EXPECT_LT(calls, uint64_t{kCount / 2});
}
