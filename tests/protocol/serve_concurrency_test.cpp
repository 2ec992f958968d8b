// Many requests in flight, completed on other threads in any order; how serving ends while the
// formatter still holds requests; and that nothing outlives a serve.
#include <algorithm>
#include <random>

#include "serve_harness.h"

using namespace zun;
using namespace zun::test;

namespace {

// Holds every read until the test completes it.
struct HoldingFormatter : TestFormatter {
    std::mutex mutex;
    std::vector<ReadRequest*> held;
    HoldingFormatter() {
        read = [this](ReadRequest* r) {
            std::lock_guard<std::mutex> lock(mutex);
            held.push_back(r);
        };
    }
    bool holds(size_t count) {
        return wait_until([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return held.size() == count;
        });
    }
};

// Reads of open ids first_id... with the same request ids, in one message.
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

} // namespace

TEST(ServeConcurrency, RepliesLeaveInCompletionOrder) {
    Leftovers leftovers;
    HoldingFormatter formatter;
    ServeHarness serve(&formatter);
    ASSERT_TRUE(serve.connect());

    constexpr uint32_t kCount = 64;
    serve.send(reads(1, kCount)); // one write carries them all
    ASSERT_TRUE(formatter.holds(kCount));
    EXPECT_EQ(serve.marshaller->in_flight(), int32_t{kCount});

    // Four threads complete them in a shuffled order; the test's lock makes the order in which
    // completions reach the marshaller the order recorded here.
    std::shuffle(formatter.held.begin(), formatter.held.end(), std::mt19937(7));
    std::mutex order_mutex;
    std::vector<uint32_t> order;
    std::atomic<size_t> next{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (size_t i; (i = next++) < kCount;) {
                ReadRequest* r = formatter.held[i];
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

TEST(ServeConcurrency, IdleAndDisconnectWaitForRequestsInFlight) {
    Leftovers leftovers;
    HoldingFormatter formatter;
    ServeHarness serve(&formatter);
    ASSERT_TRUE(serve.connect());
    EXPECT_TRUE(serve.marshaller->idle());
    serve.send(reads(1, 2));
    serve.send(REQUEST(encode_disconnect(out, cap, 3)));
    ASSERT_TRUE(formatter.holds(2));
    ASSERT_TRUE(wait_until([&] { return serve.marshaller->disconnecting(); }));
    EXPECT_EQ(serve.marshaller->in_flight(), 2);
    // Neither idle nor done while the formatter holds a request.
    formatter.held[1]->Complete(ProtocolError::Success, 0);
    EXPECT_FALSE(serve.marshaller->idle());
    EXPECT_FALSE(serve.finished());
    formatter.held[0]->Complete(ProtocolError::EndOfFile, 0);
    EXPECT_TRUE(serve.marshaller->idle());
    EXPECT_EQ(serve.wait_served(), 0u);
}

TEST(ServeConcurrency, ServeCancelEndsABlockedServe) {
    Leftovers leftovers;
    for (bool connected : {true, false}) { // blocked in the receive loop, or in the handshake
        TestFormatter formatter;
        ServeHarness serve(&formatter, {.status = true});
        ASSERT_TRUE(!connected || serve.connect());
        std::thread([&] { serve.marshaller->ServeCancel(); }).join();
        EXPECT_EQ(serve.wait_served(), 995u);
        // In the handshake, the server's ready line may have failed to go out as well.
        std::string last = connected ? "ERROR: 995 Socket read error.\n"
                                     : "ERROR: 995 during ready handshake with client.\n";
        std::string status = serve.status_with(last);
        EXPECT_TRUE(status.starts_with("NOTE: ServeCancel called.\n") && status.ends_with(last) &&
                    (!connected || status.size() == 26 + last.size()))
            << status;
    }
}

TEST(ServeConcurrency, RequestIdZeroIsServedButNotAnswered) {
    Leftovers leftovers;
    CapacityFormatter formatter;
    formatter.write = [](WriteRequest* r) {
        r->Complete(ProtocolError::Success, r->RequestedSize());
    };
    ServeHarness serve(&formatter, {.status = true});
    ASSERT_TRUE(serve.connect());
    const uint8_t data[] = {1, 2, 3};
    serve.send(REQUEST(encode_write(out, cap, 0, WriteFields{1, 0, 3, 0, data})));
    serve.send(REQUEST(encode_capacity(out, cap, 5, nullptr)));
    EXPECT_EQ(reply_id(serve.receive()), 5u);
    EXPECT_EQ(formatter.calls.load(), 2);
    // A broken pipe ends serving.
    serve.hang_up();
    EXPECT_EQ(serve.wait_served(), 109u);
    EXPECT_NE(serve.status_with("read error").find("ERROR: 109 Socket read error.\n"),
              std::string::npos);
}
