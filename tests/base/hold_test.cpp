#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/sync.h"
#include "base/tick.h"
#include "test_support.h"

TEST(WaitWord, RemembersAnEarlyWakeAndTimesOutWithoutOne) {
    WaitWord word;
    wait_word_wake(&word);
    EXPECT_EQ(1, wait_word_wait(&word, 5000));
    uint64_t start = tick_now();
    WaitWord idle;
    EXPECT_EQ(0, wait_word_wait(&idle, 50));
    EXPECT_GE(tick_now() - start, 40u);
    // Idle again after the time-out: a later wake is remembered for a later wait.
    wait_word_wake(&idle);
    EXPECT_EQ(1, wait_word_wait(&idle, 0));
}

TEST(WaitWord, WakeRacingWithTimeOutNeverStrandsTheWaker) {
    // Waits with time-outs of 0-2 ms against wakes landing around the same moment. Whatever the
    // interleaving, the waker must get through.
    for (int round = 0; round < 200; ++round) {
        struct Round {
            WaitWord word;
            std::atomic<bool> woke{false};
        };
        auto* r = new Round;
        std::thread waker([r, round] {
            for (int spin = 0; spin < (round % 7) * 500; ++spin) YieldProcessor();
            wait_word_wake(&r->word);
            r->woke = true;
        });
        wait_word_wait(&r->word, round % 3);
        if (!wait_until([&] { return r->woke.load(); })) {
            waker.detach(); // stuck in its release for good; leave it and its round behind
            FAIL() << "waker blocked, round " << round;
        }
        waker.join();
        delete r;
    }
}

TEST(Hold, QueuedThreadsGetTheHoldInArrivalOrder) {
    struct Queue {
        Hold hold;
        std::vector<int> order;
        std::atomic<int> done{0};
    };
    auto* q = new Queue; // left behind if a thread never gets the hold
    hold_acquire(&q->hold);
    std::vector<std::thread> threads;
    for (int id = 0; id < 3; ++id) {
        uintptr_t before = q->hold.state.load();
        threads.emplace_back([q, id] {
            hold_acquire(&q->hold);
            q->order.push_back(id);
            hold_release(&q->hold);
            ++q->done;
        });
        // Each thread has queued when the state word points to its waiter record.
        ASSERT_TRUE(wait_until([&] { return q->hold.state.load() != before; }));
    }
    hold_release(&q->hold);
    bool all_done = wait_until([&] { return q->done.load() == 3; });
    for (auto& t : threads) all_done ? t.join() : t.detach();
    ASSERT_TRUE(all_done) << "a queued thread never got the hold";
    EXPECT_EQ((std::vector<int>{0, 1, 2}), q->order);
    EXPECT_EQ(0u, q->hold.state.load());
    delete q;
}
