// The fast pipe, with the test as the driver behind a simulated device: identification, the
// handshake, data that stay where the device put them, replies built in the client's buffer or
// spread over reads, the protocol errors that end serving, and the cancel.
#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

std::vector<uint8_t> capacity_request(uint32_t id) {
    return REQUEST(encode_capacity(out, cap, id, nullptr));
}
std::string capacity_reply(uint32_t id) { // id < 10
    return hex_norm("18000000 0" + std::to_string(id) +
                    "000080 0a000000 00000000 05000000 00000000");
}

// A control request whose reply is 16 + output bytes of 0xAB.
std::vector<uint8_t> control_request(uint32_t id, uint32_t output) {
    return REQUEST(encode_control(out, cap, id, ControlFields{1, 0, 5, 0, output, nullptr}));
}
struct ControlFormatter : CapacityFormatter {
    ControlFormatter() {
        control = [](ControlRequest* r) {
            memset(r->OutputBuffer(), 0xAB, r->MaxOutputSize());
            r->Complete(ProtocolError::Success, r->MaxOutputSize());
        };
    }
};

ServeOptions fast_pipe(uintptr_t data_align = 1, bool status = false) {
    return {.data_align = data_align, .status = status, .fast_pipe = true};
}

} // namespace

TEST(FastPipe, OpensOnlyTheDriversPipe) {
    SimulatedDevice device;
    const struct {
        int32_t version, incompatible;
        const char* name;
        uint32_t result;
    } cases[] = {
        {1, 0, "KestiFastPipe", 0},     {3, 1, "KestiFastPipe", 0},
        {0, 0, "KestiFastPipe", 1305},  {2, 2, "KestiFastPipe", 1305},
        {1, 0, "KestiFastPipeX", 1305}, {1, 0, "KestiFastPip", 1305},
        {1, 0, "kestifastpipe", 1305},  {1, 0, nullptr, ERROR_INVALID_FUNCTION},
    };
    for (const auto& c : cases) {
        std::tie(device.identity_version, device.identity_incompatible, device.identity_name) =
            std::tie(c.version, c.incompatible, c.name);
        FastPipe* pipe = FastPipe::create();
        EXPECT_EQ(pipe->open(device.handle()), c.result) << c.version << " " << c.incompatible;
        EXPECT_EQ(device.duplicates, c.result == 0 ? 1 : 0);
        EXPECT_EQ(pipe->open(device.handle()), c.result ? c.result : 183u); // opened once
        pipe->release();
        EXPECT_EQ(device.duplicates, 0);
    }
    FastPipe* pipe = FastPipe::create();
    EXPECT_EQ(pipe->open(nullptr), 183u);
    EXPECT_EQ(pipe->open(INVALID_HANDLE_VALUE), 183u);
    pipe->release();
}

TEST(FastPipe, AnyOtherHandleIsServedAsAStream) {
    // A device that is no fast pipe: the serve reads it as a stream, which an event cannot be.
    CapacityFormatter formatter;
    ServeHarness serve(&formatter, {.status = true, .fast_pipe = true, .identity = "KestiOther"});
    EXPECT_NE(serve.wait_served(), 0u);
    EXPECT_NE(serve.status_with("handshake").find("during ready handshake with client"),
              std::string::npos);
    EXPECT_FALSE(serve.marshaller->fast_pipe());
    EXPECT_EQ(serve.device.cancels, 0);
}

TEST(FastPipe, HandshakeTakesOnlyTheReadyLine) {
    Leftovers leftovers;
    CapacityFormatter formatter;
    ServeHarness serve(&formatter, fast_pipe());
    SimulatedDevice& device = serve.device;
    ASSERT_EQ(serve.client->wait_ready(5000), 0u); // the server's line, on the write handle

    // 24 bytes that are not the line, and a request: taken whole and dropped.
    SimTransfer* almost = serve.done(device.write(std::vector<uint8_t>(24, '+')));
    SimTransfer* early = serve.done(device.write(capacity_request(1), 3, 64));
    EXPECT_TRUE(almost->error == 0 && almost->consumed == 24);
    EXPECT_TRUE(early->error == 0 && early->consumed == 8 && early->placed == 0);
    EXPECT_EQ(formatter.calls.load(), 0);

    // The line itself, even as the start of a longer write, opens the protocol.
    std::vector<uint8_t> line(40, 0);
    memcpy(line.data(), kClientReadyLine, kReadyLineLength);
    EXPECT_EQ(serve.done(device.write(line))->consumed, 40u);
    EXPECT_EQ(hex(serve.transact(capacity_request(2))), capacity_reply(2));
    EXPECT_TRUE(serve.marshaller->fast_pipe());
    // Any client gets the version word, which a stream client of version 4 would not.
    EXPECT_EQ(hex(serve.transact(REQUEST(encode_version(out, cap, 3, 4)), 64)).substr(88, 8),
              "00000001");

    serve.transact(REQUEST(encode_disconnect(out, cap, 4)));
    EXPECT_EQ(serve.wait_served(), 0u);
    EXPECT_EQ(device.cancels, 1);
}

TEST(FastPipe, DataStayInTheDevicesBuffers) {
    Leftovers leftovers;
    TestFormatter formatter;
    const uint8_t* written = nullptr;
    void* read = nullptr;
    formatter.write = [&](WriteRequest* r) {
        written = static_cast<const uint8_t*>(r->Data());
        r->Complete(ProtocolError::Success, r->RequestedSize());
    };
    formatter.read = [&](ReadRequest* r) {
        read = r->Data();
        memset(r->Data(), 0x11, r->RequestedSize());
        r->Complete(ProtocolError::Success, 5);
    };
    ServeHarness serve(&formatter, fast_pipe(4096));
    SimulatedDevice& device = serve.device;
    ASSERT_TRUE(serve.connect());

    // Write data are handed over where the device put them: with padding 8, at 40, whatever
    // the data align. The first receive call learns the size, the second brings the bytes.
    std::vector<uint8_t> data(300, 0x5A);
    SimTransfer* t = serve.done(device.write(
        REQUEST(encode_write(out, cap, 4, WriteFields{1, 0x1003, 300, 8, data.data()})), 3, 16));
    EXPECT_EQ(written, t->data_given + 40);
    EXPECT_EQ(t->consumed, t->data.size());
    EXPECT_EQ(t->receive_calls, 2u);
    EXPECT_EQ(hex(t->result()), hex_norm("10000000 04000080 2c010000 00000000"));
    // A write whose reply has no room in the client's buffer is refused.
    EXPECT_EQ(hex(serve.transact(
                  REQUEST(encode_write(out, cap, 5, WriteFields{1, 0, 300, 0, data.data()})), 8)),
              "0800000005004080");

    // A direct read is built in the client's buffer, its data where the client's padding puts
    // them; only the length is rounded up, the bytes behind the data are the formatter's.
    t = serve.done(device.write(REQUEST(encode_read(out, cap, 7, ReadFields{1, 0x1003, 0x200, 0})),
                                3, 0x2000));
    EXPECT_EQ(read, t->output.data() + 16);
    EXPECT_EQ(t->placed, 24u);
    EXPECT_EQ(hex(t->result()), hex_norm("18000000 07000080 05000000 00000000 1111111111 111111"));
    // The block holding the first byte would start before the buffer; or the buffer cannot hold
    // the data up to the end of their last block.
    EXPECT_EQ(hex(serve.transact(REQUEST(encode_read(out, cap, 8, ReadFields{1, 0x1100, 16, 0})),
                                 0x1000)),
              "0800000008004080");
    EXPECT_EQ(hex(serve.transact(REQUEST(encode_read(out, cap, 9, ReadFields{1, 0x1000, 0x200, 0})),
                                 0x20F)),
              "0800000009004080");
}

TEST(FastPipe, RepliesOfWritesTravelInReads) {
    Leftovers leftovers;
    ControlFormatter formatter;
    ServeHarness serve(&formatter, fast_pipe());
    SimulatedDevice& device = serve.device;
    ASSERT_TRUE(serve.connect());

    // A write is let go at once; its reply of 104 bytes goes out 64 bytes at a time.
    SimTransfer* w = serve.done(device.write(control_request(1, 88)));
    EXPECT_EQ(w->consumed, 32u);
    EXPECT_EQ(w->placed, 0u);
    SimTransfer* r1 = serve.done(device.read(64));
    SimTransfer* r2 = serve.done(device.read(64));
    EXPECT_EQ(r1->placed, 64u);
    EXPECT_EQ(r2->placed, 40u);
    EXPECT_EQ(r1->consumed + r2->consumed, 0u);
    EXPECT_EQ(hex(r1->result()).substr(0, 32), hex_norm("68000000 01000080 58000000 00000000"));
    EXPECT_EQ(r2->result().back(), 0xAB);

    // A read waits for its reply; one read never carries parts of two replies.
    SimTransfer* waiting = device.read(256);
    device.write(capacity_request(2));
    device.write(capacity_request(3));
    ASSERT_TRUE(device.wait(waiting));
    EXPECT_EQ(hex(waiting->result()), capacity_reply(2));
    SimTransfer* next = serve.done(device.read(256));
    EXPECT_EQ(hex(next->result()), capacity_reply(3));

    // Serving ends with the disconnect: its reply goes to a read already waiting.
    SimTransfer* last = device.read(64);
    device.write(REQUEST(encode_disconnect(out, cap, 4)));
    ASSERT_TRUE(device.wait(last));
    EXPECT_EQ(hex(last->result()), "0800000004001080");
    EXPECT_EQ(serve.wait_served(), 0u);
    EXPECT_EQ(device.cancels, 1);
}

TEST(FastPipe, ProtocolErrorsEndServing) {
    const std::vector<uint8_t> capacity = capacity_request(1);
    std::vector<uint8_t> oversized = capacity, reply_bit = capacity;
    oversized[0] = 16; // says 16 bytes, carries 8
    reply_bit[7] |= 0x80;
    const struct {
        std::vector<uint8_t> data;
        uint64_t type;
        size_t output;
        const char* message;
        uint64_t consumed = 0;
    } cases[] = {
        {std::vector<uint8_t>(4, 0), 2, 0, "write too small"},
        {header_only(4, request_code_word(1, 15)), 3, 64, "invalid fastpipe msg header"},
        {oversized, 3, 64, "invalid fastpipe msg header"},
        {reply_bit, 2, 0, "invalid fastpipe msg header"},
        {capacity, 3, 7, "invalid fastpipe direct result size"},
        {capacity, 4, 64, "unsupported fastpipe op type"},
        {capacity, 0, 64, "unsupported fastpipe op type"},
        // A second read while one is pending.
        {{}, 1, 64, "concurrent result reads"},
        // 16 + 64 bytes of reply for a buffer of 64: nothing placed.
        {control_request(1, 64), 3, 64, "direct I/O output buffer too small", 32},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Leftovers leftovers;
        ControlFormatter formatter;
        TraceCapture trace(L"fp");
        ServeHarness serve(&formatter, fast_pipe(1, true));
        serve.marshaller->SetTraceChannel(trace.channel);
        trace_channel_release(trace.channel);
        ASSERT_TRUE(serve.connect());
        SimTransfer* first = c.type == 1 ? serve.device.read(64) : nullptr;
        SimTransfer* bad = serve.done(serve.device.write(c.data, c.type, c.output));
        EXPECT_EQ(bad->error, 11u);
        EXPECT_EQ(bad->consumed, c.consumed);
        EXPECT_EQ(bad->placed, 0u);
        // Serving ends; a transfer after the bad one is never received, a pending read is let go.
        SimTransfer* after = serve.device.write(capacity_request(2), 3, 64);
        EXPECT_EQ(serve.wait_served(), 11u);
        EXPECT_FALSE(after->completed());
        EXPECT_TRUE(!first || (serve.device.wait(first) && first->error == 109));
        std::string line = std::string("fp: ERROR: Protocol stream error, ") + c.message + ".\n";
        EXPECT_NE(trace.text().find(line), std::string::npos) << trace.text();
        // The fast pipe's own errors go to the trace channel alone.
        EXPECT_EQ(serve.status().find("ERROR"), std::string::npos);
        EXPECT_EQ(serve.device.cancels, 1);
    }
}

TEST(FastPipe, CancelIsIssuedOncePerServe) {
    Leftovers leftovers;
    CapacityFormatter formatter;
    {
        // ServeCancel while the loop waits for a transfer.
        TraceCapture trace(L"fpc");
        ServeHarness serve(&formatter, fast_pipe(1, true));
        serve.marshaller->SetTraceChannel(trace.channel);
        trace_channel_release(trace.channel);
        ASSERT_TRUE(serve.connect());
        std::thread([&] { serve.marshaller->ServeCancel(); }).join();
        EXPECT_EQ(serve.wait_served(), kDeviceClosedError);
        EXPECT_EQ(serve.device.cancels, 1);
        EXPECT_NE(trace.text().find("fpc: ERROR: 109 Fast pipe receive error.\n"),
                  std::string::npos);
        EXPECT_EQ(serve.status_with("ServeCancel"), "NOTE: ServeCancel called.\n");
        // A marshaller that has served a fast pipe serves no more.
        ServeParams params{8, &formatter, 0, "x", 1, 0, serve.device.handle(), nullptr};
        EXPECT_EQ(serve.marshaller->Serve(&params), 303u);
    }
    {
        // Cancelled before serving started: the device is cancelled at once.
        SimulatedDevice device;
        MarshallerObject* m = MarshallerObject::create(6);
        m->ServeCancel();
        ServeParams params{8, &formatter, 0, "x", 1, 0, device.handle(), nullptr};
        EXPECT_EQ(m->Serve(&params), kDeviceClosedError);
        EXPECT_EQ(device.cancels, 1);
        m->Release();
        EXPECT_EQ(device.duplicates, 0);
    }
    // Interrupted receives are made again; any other failure ends serving with its error.
    ServeHarness serve(&formatter, fast_pipe());
    ASSERT_TRUE(serve.connect());
    serve.device.fail_receives(ERROR_OPERATION_ABORTED, 3);
    EXPECT_EQ(hex(serve.transact(capacity_request(1))), capacity_reply(1));
    serve.device.fail_receives(ERROR_CANCELLED, 1);
    EXPECT_EQ(hex(serve.transact(capacity_request(2))), capacity_reply(2));
    serve.device.fail_receives(ERROR_ACCESS_DENIED, 1);
    EXPECT_EQ(serve.wait_served(), uint32_t{ERROR_ACCESS_DENIED});
    EXPECT_EQ(serve.device.cancels, 1);
}
