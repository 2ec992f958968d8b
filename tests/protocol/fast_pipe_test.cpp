// The fast pipe, with the test as the driver behind a simulated device: identification, the
// handshake, data that stay where the device put them, replies built in the client's buffer or
// spread over reads, the protocol errors that end serving, and the cancel.
#include "fast_pipe_harness.h"
#include "protocol/fast_pipe.h"
#include "trace_capture.h"

using namespace zun;
using namespace zun::test;

namespace {

std::vector<uint8_t> header_only(uint32_t size, uint32_t code) {
    std::vector<uint8_t> m(size < 8 ? 8 : size);
    memcpy(&m[0], &size, 4);
    memcpy(&m[4], &code, 4);
    return m;
}

std::vector<uint8_t> capacity_request(uint32_t id) {
    return REQUEST(encode_capacity(out, cap, id, nullptr));
}

uint32_t reply_error(const std::vector<uint8_t>& reply) {
    client::Reply r{};
    if (!client::decode_reply(reply.data(), reply.size(), &r)) return 0xFFFF;
    return static_cast<uint32_t>(r.error);
}

struct CapacityFormatter : TestFormatter {
    CapacityFormatter() {
        capacity = [](CapacityRequest* r) { r->Complete(ProtocolError::Success, 10, 5); };
    }
};

// A control request whose reply is 16 + output bytes.
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

// What one fast pipe serve may leave behind: once served, every transfer the server took is
// completed exactly once; once the marshaller is gone, so are its contexts and its pipe.
void expect_transfers_settled(SimulatedDevice& device) {
    EXPECT_EQ(device.outstanding(), 0u);
    EXPECT_EQ(device.bad_completions(), 0);
}
struct Leftovers {
    long contexts = request_context_live_count();
    long marshallers = MarshallerObject::live_count();
    long pipes = FastPipe::live_count();
    void expect_none() {
        EXPECT_EQ(request_context_live_count(), contexts);
        EXPECT_EQ(MarshallerObject::live_count(), marshallers);
        EXPECT_EQ(FastPipe::live_count(), pipes);
    }
};

} // namespace

TEST(FastPipe, OpensOnlyTheDriversPipe) {
    SimulatedDevice device;
    const struct {
        int32_t version, incompatible;
        const char* name;
        uint32_t result;
    } cases[] = {
        {1, 0, "KestiFastPipe", 0},
        {1, 1, "KestiFastPipe", 0},
        {3, 1, "KestiFastPipe", 0},
        {0, 0, "KestiFastPipe", 1305},
        {2, 2, "KestiFastPipe", 1305},
        {1, 0, "KestiFastPipeX", 1305},
        {1, 0, "KestiFastPip", 1305},
        {1, 0, "kestifastpipe", 1305},
        {1, 0, nullptr, ERROR_INVALID_FUNCTION},
    };
    for (const auto& c : cases) {
        device.set_identity(c.version, c.incompatible, c.name);
        FastPipe* pipe = FastPipe::create();
        EXPECT_EQ(pipe->open(device.handle()), c.result)
            << c.version << " " << c.incompatible << " " << (c.name ? c.name : "none");
        EXPECT_EQ(device.open_duplicates(), c.result == 0 ? 1 : 0);
        if (c.result == 0) {
            EXPECT_EQ(pipe->open(device.handle()), 183u);
        }
        pipe->release();
        EXPECT_EQ(device.open_duplicates(), 0);
    }
    FastPipe* pipe = FastPipe::create();
    EXPECT_EQ(pipe->open(nullptr), 183u);
    EXPECT_EQ(pipe->open(INVALID_HANDLE_VALUE), 183u);
    pipe->release();
}

TEST(FastPipe, AnyOtherHandleIsServedAsAStream) {
    // A device that is no fast pipe: the serve reads it as a stream, which an event cannot be.
    CapacityFormatter formatter;
    SimulatedDevice device;
    device.set_identity(1, 0, "KestiOtherPipe");
    ServeHarness serve(&formatter, {.device = &device});
    EXPECT_NE(serve.wait_served(), 0u);
    EXPECT_NE(serve.status_with("handshake").find("during ready handshake with client"),
              std::string::npos);
    EXPECT_FALSE(serve.marshaller->fast_pipe());
    EXPECT_EQ(device.cancels(), 0);
}

TEST(FastPipe, HandshakeTakesOnlyTheReadyLine) {
    Leftovers leftovers;
    CapacityFormatter formatter;
    {
        FastPipeServe serve(&formatter, {.status = false});
        ASSERT_EQ(serve.client->wait_ready(5000), 0u); // the server's line, on the write handle
        SimulatedDevice& device = serve.device;

        // 24 bytes that are not the line, and a request: taken whole and dropped.
        SimTransfer* almost = device.write(std::vector<uint8_t>(24, '+'));
        SimTransfer* early = device.write(capacity_request(1), 3, 64);
        ASSERT_TRUE(device.wait(almost) && device.wait(early));
        EXPECT_EQ(almost->error, 0u);
        EXPECT_EQ(almost->consumed, 24u);
        EXPECT_EQ(early->consumed, 8u);
        EXPECT_EQ(early->placed, 0u);
        EXPECT_EQ(formatter.calls.load(), 0);

        // The line itself, even as the start of a longer write, opens the protocol.
        std::vector<uint8_t> line(40, 0);
        memcpy(line.data(), kClientReadyLine, kReadyLineLength);
        SimTransfer* ready = device.write(line);
        ASSERT_TRUE(device.wait(ready));
        EXPECT_EQ(ready->consumed, 40u);
        EXPECT_EQ(hex(serve.transact(capacity_request(2))),
                  hex_norm("18000000 02000080 0a000000 00000000 05000000 00000000"));
        EXPECT_TRUE(serve.marshaller->fast_pipe());

        serve.transact(REQUEST(encode_disconnect(out, cap, 3)));
        EXPECT_EQ(serve.wait_served(), 0u);
        EXPECT_EQ(device.cancels(), 1);
        expect_transfers_settled(device);
    }
    leftovers.expect_none();
}

TEST(FastPipe, WriteDataStayWhereTheDevicePutThem) {
    Leftovers leftovers;
    TestFormatter formatter;
    const uint8_t* handed = nullptr;
    formatter.write = [&](WriteRequest* r) {
        handed = static_cast<const uint8_t*>(r->Data());
        r->Complete(ProtocolError::Success, r->RequestedSize());
    };
    {
        FastPipeServe serve(&formatter, {.data_align = 4096, .status = false});
        ASSERT_TRUE(serve.connect());
        // The client chose padding 8: the data follow at 40, whatever the data align.
        std::vector<uint8_t> data(300, 0x5A);
        SimTransfer* t = serve.device.write(
            REQUEST(encode_write(out, cap, 4, WriteFields{1, 0x1003, 300, 8, data.data()})), 3, 16);
        ASSERT_TRUE(serve.device.wait(t));
        EXPECT_EQ(handed, t->data_given + 40);
        EXPECT_EQ(t->consumed, t->data.size());
        EXPECT_EQ(hex(t->result()), hex_norm("10000000 04000080 2c010000 00000000"));
        // The first call learns the size, the second brings the bytes.
        EXPECT_EQ(t->receive_calls, 2u);

        // A write whose reply has no room in the client's buffer is refused.
        t = serve.device.write(
            REQUEST(encode_write(out, cap, 5, WriteFields{1, 0, 300, 0, data.data()})), 3, 8);
        ASSERT_TRUE(serve.device.wait(t));
        EXPECT_EQ(hex(t->result()), "0800000005004080");

        // A read carries no data: one receive call. (Transfers are received in order: once the
        // disconnect is answered, the read has been received.)
        SimTransfer* read = serve.device.read(64);
        serve.transact(REQUEST(encode_disconnect(out, cap, 6)));
        EXPECT_EQ(read->receive_calls, 1u);
        EXPECT_EQ(serve.wait_served(), 0u);
        // The read still waiting when serving ended is let go.
        ASSERT_TRUE(serve.device.wait(read));
        EXPECT_EQ(read->error, 109u);
        EXPECT_EQ(read->placed, 0u);
        expect_transfers_settled(serve.device);
    }
    leftovers.expect_none();
}

TEST(FastPipe, DirectReadRepliesAreBuiltInTheClientsBuffer) {
    TestFormatter formatter;
    void* data_at = nullptr;
    formatter.read = [&](ReadRequest* r) {
        data_at = r->Data();
        memset(r->Data(), 0x11, r->RequestedSize());
        r->Complete(ProtocolError::Success, 5);
    };
    FastPipeServe serve(&formatter, {.data_align = 4096});
    ASSERT_TRUE(serve.connect());
    SimulatedDevice& device = serve.device;

    // The client's padding puts the data 3 bytes past an aligned block in its buffer.
    SimTransfer* t =
        device.write(REQUEST(encode_read(out, cap, 7, ReadFields{1, 0x1003, 0x200, 0})), 3, 0x2000);
    ASSERT_TRUE(device.wait(t));
    EXPECT_EQ(data_at, t->output.data() + 16);
    // Only the length is rounded up: the bytes behind the data are the formatter's.
    EXPECT_EQ(t->placed, 24u);
    EXPECT_EQ(hex(t->result()), hex_norm("18000000 07000080 05000000 00000000 1111111111 111111"));

    // The block holding the first byte would start before the buffer; or the buffer cannot hold
    // the data up to the end of their last block.
    t = device.write(REQUEST(encode_read(out, cap, 8, ReadFields{1, 0x1100, 0x10, 0})), 3, 0x1000);
    ASSERT_TRUE(device.wait(t));
    EXPECT_EQ(hex(t->result()), "0800000008004080");
    t = device.write(REQUEST(encode_read(out, cap, 9, ReadFields{1, 0x1000, 0x200, 0})), 3,
                     16 + 0x1FF);
    ASSERT_TRUE(device.wait(t));
    EXPECT_EQ(hex(t->result()), "0800000009004080");
    std::string status = serve.status_with("max output size");
    EXPECT_NE(status.find("WARNING: Invalid direct read alignment padding.\n"), std::string::npos);
    EXPECT_NE(status.find("WARNING: Invalid direct read max output size.\n"), std::string::npos);
}

TEST(FastPipe, RepliesOfWritesTravelInReads) {
    Leftovers leftovers;
    ControlFormatter formatter;
    {
        FastPipeServe serve(&formatter, {.status = false});
        SimulatedDevice& device = serve.device;
        ASSERT_TRUE(serve.connect());

        // A write is let go at once; its reply of 104 bytes goes out 64 bytes at a time.
        SimTransfer* w = device.write(control_request(1, 88));
        ASSERT_TRUE(device.wait(w));
        EXPECT_EQ(w->consumed, 32u);
        EXPECT_EQ(w->placed, 0u);
        SimTransfer* r1 = device.read(64);
        ASSERT_TRUE(device.wait(r1));
        SimTransfer* r2 = device.read(64);
        ASSERT_TRUE(device.wait(r2));
        EXPECT_EQ(r1->placed, 64u);
        EXPECT_EQ(r2->placed, 40u);
        EXPECT_EQ(r1->consumed + r2->consumed, 0u);
        std::vector<uint8_t> reply = r1->result();
        std::vector<uint8_t> rest = r2->result();
        reply.insert(reply.end(), rest.begin(), rest.end());
        EXPECT_EQ(hex(reply.data(), 16), hex_norm("68000000 01000080 58000000 00000000"));
        EXPECT_EQ(reply.back(), 0xAB);

        // A read waits for its reply; one read never carries parts of two replies.
        SimTransfer* waiting = device.read(256);
        device.write(capacity_request(2));
        device.write(capacity_request(3));
        ASSERT_TRUE(device.wait(waiting));
        EXPECT_EQ(reply_error(waiting->result()), 0u);
        EXPECT_EQ(waiting->placed, 24u);
        SimTransfer* next = device.read(256);
        ASSERT_TRUE(device.wait(next));
        EXPECT_EQ(hex(next->result()),
                  hex_norm("18000000 03000080 0a000000 00000000 05000000 00000000"));

        // Request id 0: nothing to read back; a direct one places nothing.
        device.write(capacity_request(0));
        SimTransfer* silent = device.write(capacity_request(0), 3, 64);
        ASSERT_TRUE(device.wait(silent));
        EXPECT_EQ(silent->placed, 0u);
        EXPECT_EQ(silent->consumed, 8u);
        EXPECT_EQ(formatter.calls.load(), 5);

        // Serving ends with the disconnect: its reply goes to a read already waiting.
        SimTransfer* last = device.read(64);
        device.write(REQUEST(encode_disconnect(out, cap, 4)));
        ASSERT_TRUE(device.wait(last));
        EXPECT_EQ(hex(last->result()), "0800000004001080");
        EXPECT_EQ(serve.wait_served(), 0u);
        EXPECT_EQ(device.cancels(), 1);
        expect_transfers_settled(device);
    }
    leftovers.expect_none();
}

TEST(FastPipe, ProtocolErrorsEndServing) {
    const std::vector<uint8_t> capacity = capacity_request(1);
    std::vector<uint8_t> oversized = capacity;
    oversized[0] = 16; // says 16 bytes, carries 8
    std::vector<uint8_t> reply_bit = capacity;
    reply_bit[7] |= 0x80;
    const struct {
        std::vector<uint8_t> data;
        uint64_t type;
        size_t output;
        const char* message;
    } cases[] = {
        {std::vector<uint8_t>(4, 0), 2, 0, "write too small"},
        {header_only(4, request_code_word(1, 15)), 3, 64, "invalid fastpipe msg header"},
        {oversized, 3, 64, "invalid fastpipe msg header"},
        {reply_bit, 2, 0, "invalid fastpipe msg header"},
        {capacity, 3, 7, "invalid fastpipe direct result size"},
        {capacity, 4, 64, "unsupported fastpipe op type"},
        {capacity, 0, 64, "unsupported fastpipe op type"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Leftovers leftovers;
        CapacityFormatter formatter;
        {
            TraceCapture trace(L"fp");
            FastPipeServe serve(&formatter, {.status = true});
            serve.marshaller->SetTraceChannel(trace.channel);
            trace_channel_release(trace.channel);
            ASSERT_TRUE(serve.connect());
            SimTransfer* bad = serve.device.write(c.data, c.type, c.output);
            ASSERT_TRUE(serve.device.wait(bad));
            EXPECT_EQ(bad->error, 11u);
            EXPECT_EQ(bad->consumed, 0u);
            EXPECT_EQ(serve.wait_served(), 11u);
            std::string line =
                std::string("fp: ERROR: Protocol stream error, ") + c.message + ".\n";
            EXPECT_NE(trace.text().find(line), std::string::npos) << trace.text();
            // The fast pipe's own errors go to the trace channel alone.
            EXPECT_EQ(serve.status().find("ERROR"), std::string::npos);
            EXPECT_EQ(serve.device.cancels(), 1);
            expect_transfers_settled(serve.device);
        }
        leftovers.expect_none();
    }
}

TEST(FastPipe, ConcurrentReadsAndOversizedDirectRepliesBreakTheProtocol) {
    Leftovers leftovers;
    ControlFormatter formatter;
    TraceCapture trace(L"fp2");
    {
        FastPipeServe serve(&formatter, {.status = false});
        serve.marshaller->SetTraceChannel(trace.channel);
        trace_channel_release(trace.channel);
        SimulatedDevice& device = serve.device;
        ASSERT_TRUE(serve.connect());
        SimTransfer* first = device.read(64);
        SimTransfer* second = device.read(64);
        ASSERT_TRUE(device.wait(second));
        EXPECT_EQ(second->error, 11u);
        EXPECT_EQ(serve.wait_served(), 11u);
        // The read that was pending is let go when serving ends.
        ASSERT_TRUE(device.wait(first));
        EXPECT_EQ(first->error, 109u);
        EXPECT_NE(
            trace.text().find("fp2: ERROR: Protocol stream error, concurrent result reads.\n"),
            std::string::npos);
        expect_transfers_settled(device);
    }
    TraceCapture trace3(L"fp3");
    {
        FastPipeServe serve(&formatter, {.status = false});
        serve.marshaller->SetTraceChannel(trace3.channel);
        trace_channel_release(trace3.channel);
        SimulatedDevice& device = serve.device;
        ASSERT_TRUE(serve.connect());
        // 16 + 64 bytes of reply for a buffer of 64: nothing placed, serving ends with the next
        // transfer.
        SimTransfer* t = device.write(control_request(1, 64), 3, 64);
        ASSERT_TRUE(device.wait(t));
        EXPECT_EQ(t->error, 11u);
        EXPECT_EQ(t->placed, 0u);
        EXPECT_EQ(t->consumed, 32u);
        SimTransfer* after = device.write(capacity_request(2), 3, 64);
        EXPECT_EQ(serve.wait_served(), 11u);
        EXPECT_FALSE(after->completed()); // never received
        EXPECT_NE(trace3.text().find("fp3: ERROR: Protocol stream error, direct I/O output buffer "
                                     "too small.\n"),
                  std::string::npos);
        expect_transfers_settled(device);
    }
    leftovers.expect_none();
}

TEST(FastPipe, CancelIsIssuedOncePerServe) {
    Leftovers leftovers;
    CapacityFormatter formatter;
    {
        // ServeCancel while the loop waits for a transfer.
        TraceCapture trace(L"fp4");
        FastPipeServe serve(&formatter);
        serve.marshaller->SetTraceChannel(trace.channel);
        trace_channel_release(trace.channel);
        ASSERT_TRUE(serve.connect());
        std::thread([&] { serve.marshaller->ServeCancel(); }).join();
        EXPECT_EQ(serve.wait_served(), kDeviceClosedError);
        EXPECT_EQ(serve.device.cancels(), 1);
        EXPECT_NE(trace.text().find("fp4: ERROR: 109 Fast pipe receive error.\n"),
                  std::string::npos);
        EXPECT_EQ(serve.status_with("ServeCancel"), "NOTE: ServeCancel called.\n");
        // A marshaller that has served a fast pipe serves no more.
        ServeParams params{8, &formatter, 0, "x", 1, 0, serve.device.handle(), nullptr};
        EXPECT_EQ(serve.marshaller->Serve(&params), 303u);
        serve.marshaller->SetTraceChannel(nullptr);
    }
    {
        // Cancelled before serving started: the device is cancelled at once.
        SimulatedDevice device;
        MarshallerObject* m = MarshallerObject::create(6);
        m->ServeCancel();
        ServeParams params{8, &formatter, 0, "x", 1, 0, device.handle(), nullptr};
        EXPECT_EQ(m->Serve(&params), kDeviceClosedError);
        EXPECT_EQ(device.cancels(), 1);
        m->Release();
        EXPECT_EQ(device.open_duplicates(), 0);
    }
    {
        // Interrupted receives are made again; any other failure ends serving with its error.
        FastPipeServe serve(&formatter, {.status = false});
        ASSERT_TRUE(serve.connect());
        serve.device.fail_receives(ERROR_OPERATION_ABORTED, 3);
        EXPECT_EQ(reply_error(serve.transact(capacity_request(1))), 0u);
        serve.device.fail_receives(ERROR_CANCELLED, 1);
        EXPECT_EQ(reply_error(serve.transact(capacity_request(2))), 0u);
        serve.device.fail_receives(ERROR_ACCESS_DENIED, 1);
        EXPECT_EQ(serve.wait_served(), uint32_t{ERROR_ACCESS_DENIED});
        EXPECT_EQ(serve.device.cancels(), 1);
    }
    leftovers.expect_none();
}

TEST(FastPipe, VersionReplyCarriesTheServeWord) {
    CapacityFormatter formatter;
    FastPipeServe serve(&formatter, {.status = false});
    ASSERT_TRUE(serve.connect());
    // A client of version 4 on a stream would not get the word at 44.
    std::vector<uint8_t> reply = serve.transact(REQUEST(encode_version(out, cap, 1, 4)), 64);
    client::VersionReply v{};
    ASSERT_TRUE(client::decode_version_reply(reply.data(), reply.size(), &v));
    EXPECT_EQ(v.version_word, 0x1000000u);
}
