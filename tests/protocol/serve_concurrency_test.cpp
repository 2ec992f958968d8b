// Many requests in flight, completed on other threads in any order; how serving ends while the
// formatter still holds requests; and that nothing outlives a serve.
#include <algorithm>
#include <random>

#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

// Holds every read until the test completes it.
struct HeldReads {
    std::mutex mutex;
    std::vector<ReadRequest*> held;

    void attach(TestFormatter& f) {
        f.read = [this](ReadRequest* r) {
            std::lock_guard<std::mutex> lock(mutex);
            held.push_back(r);
        };
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return held.size();
    }
};

std::vector<uint8_t> reads(uint32_t first_id, uint32_t count) {
    std::vector<uint8_t> all;
    for (uint32_t id = first_id; id < first_id + count; ++id) {
        auto one = REQUEST(encode_read(out, cap, id, ReadFields{id, 0, 8, 0}));
        all.insert(all.end(), one.begin(), one.end());
    }
    return all;
}

uint32_t reply_id(const std::vector<uint8_t>& reply) {
    client::Reply r{};
    return client::decode_reply(reply.data(), reply.size(), &r) ? r.request_id : 0;
}

// What a serve may leave behind: request contexts, writer threads, marshallers.
struct Leftovers {
    long contexts = request_context_live_count();
    long marshallers = MarshallerObject::live_count();
    void expect_none() {
        EXPECT_TRUE(wait_until([&] { return StreamTransport::writer_live_count() == 0; }));
        EXPECT_EQ(request_context_live_count(), contexts);
        EXPECT_EQ(MarshallerObject::live_count(), marshallers);
    }
};

} // namespace

TEST(ServeConcurrency, RepliesLeaveInCompletionOrder) {
    Leftovers leftovers;
    {
        TestFormatter formatter;
        HeldReads held;
        held.attach(formatter);
        ServeHarness serve(&formatter, {.status = false});
        ASSERT_TRUE(serve.connect());

        constexpr uint32_t kCount = 64;
        serve.send(reads(1, kCount)); // one write carries them all
        ASSERT_TRUE(wait_until([&] { return held.count() == kCount; }));
        EXPECT_EQ(serve.marshaller->in_flight(), int32_t{kCount});

        // Four threads complete them in a shuffled order; the test's lock makes the order in
        // which completions reach the marshaller the order recorded here.
        std::shuffle(held.held.begin(), held.held.end(), std::mt19937(7));
        std::mutex order_mutex;
        std::vector<uint32_t> order;
        std::atomic<size_t> next{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (size_t i; (i = next++) < kCount;) {
                    ReadRequest* r = held.held[i];
                    std::lock_guard<std::mutex> lock(order_mutex);
                    order.push_back(static_cast<uint32_t>(r->OpenId()));
                    memcpy(r->Data(), "data", 4);
                    r->Complete(ProtocolError::Success, 4);
                }
            });
        for (auto& t : threads) t.join();

        std::vector<uint32_t> received;
        for (uint32_t i = 0; i < kCount; ++i) received.push_back(reply_id(serve.receive()));
        EXPECT_EQ(received, order);
        EXPECT_EQ(serve.marshaller->in_flight(), 0);

        serve.send(REQUEST(encode_disconnect(out, cap, 99)));
        EXPECT_EQ(serve.wait_served(), 0u);
    }
    leftovers.expect_none();
}

TEST(ServeConcurrency, DisconnectWaitsForRequestsInFlight) {
    Leftovers leftovers;
    {
        TestFormatter formatter;
        HeldReads held;
        held.attach(formatter);
        ServeHarness serve(&formatter, {.status = false});
        ASSERT_TRUE(serve.connect());
        serve.send(reads(1, 3));
        serve.send(REQUEST(encode_disconnect(out, cap, 4)));
        ASSERT_TRUE(wait_until([&] { return serve.marshaller->disconnecting(); }));
        // Serving cannot end while the formatter holds requests.
        EXPECT_FALSE(serve.finished());
        for (ReadRequest* r : held.held) r->Complete(ProtocolError::Success, 0);
        EXPECT_EQ(serve.wait_served(), 0u);
    }
    leftovers.expect_none();
}

TEST(ServeConcurrency, ServeCancelEndsABlockedServe) {
    Leftovers leftovers;
    {
        // Blocked in the receive loop...
        TestFormatter formatter;
        ServeHarness serve(&formatter);
        ASSERT_TRUE(serve.connect());
        std::thread([&] { serve.marshaller->ServeCancel(); }).join();
        EXPECT_EQ(serve.wait_served(), 995u);
        std::string status = serve.status_with("Socket read error");
        EXPECT_EQ(status, "NOTE: ServeCancel called.\nERROR: 995 Socket read error.\n");
    }
    {
        // ... and before the client has said it is ready.
        TestFormatter formatter;
        ServeHarness serve(&formatter);
        std::thread([&] { serve.marshaller->ServeCancel(); }).join();
        EXPECT_EQ(serve.wait_served(), 995u);
        EXPECT_NE(
            serve.status_with("handshake").find("ERROR: 995 during ready handshake with client.\n"),
            std::string::npos);
    }
    leftovers.expect_none();
}

TEST(ServeConcurrency, RequestIdZeroIsServedButNotAnswered) {
    Leftovers leftovers;
    {
        TestFormatter formatter;
        std::atomic<int> writes{0};
        formatter.write = [&](WriteRequest* r) {
            ++writes;
            r->Complete(ProtocolError::Success, r->RequestedSize());
        };
        formatter.capacity = [](CapacityRequest* r) { r->Complete(ProtocolError::Success, 1, 1); };
        ServeHarness serve(&formatter, {.status = false});
        ASSERT_TRUE(serve.connect());
        const uint8_t data[] = {1, 2, 3};
        serve.send(REQUEST(encode_write(out, cap, 0, WriteFields{1, 0, 3, 0, data})));
        serve.send(REQUEST(encode_capacity(out, cap, 5, nullptr)));
        EXPECT_EQ(reply_id(serve.receive()), 5u);
        EXPECT_EQ(writes.load(), 1);
        serve.hang_up();
        EXPECT_EQ(serve.wait_served(), 109u);
    }
    leftovers.expect_none();
}

TEST(ServeConcurrency, IdleFollowsTheRequestsInFlight) {
    TestFormatter formatter;
    HeldReads held;
    held.attach(formatter);
    ServeHarness serve(&formatter, {.status = false});
    ASSERT_TRUE(serve.connect());
    EXPECT_TRUE(serve.marshaller->idle());
    serve.send(reads(1, 2));
    ASSERT_TRUE(wait_until([&] { return held.count() == 2; }));
    EXPECT_EQ(serve.marshaller->in_flight(), 2);
    EXPECT_FALSE(serve.marshaller->idle());
    held.held[1]->Complete(ProtocolError::Success, 0);
    EXPECT_FALSE(serve.marshaller->idle());
    held.held[0]->Complete(ProtocolError::EndOfFile, 0);
    EXPECT_TRUE(serve.marshaller->idle());
    EXPECT_EQ(serve.marshaller->in_flight(), 0);
    EXPECT_EQ(reply_id(serve.receive()), 2u);
    EXPECT_EQ(hex(serve.receive()), "080000000100e080"); // id 1, code 14
}
