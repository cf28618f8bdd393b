// The capture thread's life on its own: states, a stop left in a push, a start
// that waits for the previous thread, and the end-of-stream hand-over.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "vq_asi_capture/vq_capture_thread.h"

namespace {

using namespace std::chrono_literals;

// A body that loops until told to end, like the capture loop.
vq_capture_thread::Body loop_until_exit(std::atomic<int>& rounds) {
    return [&rounds](std::future<void> exit) {
        while (exit.wait_for(1ms) != std::future_status::ready)
            ++rounds;
    };
}

// A body held "in a push" until released, whatever the exit signal says.
struct HeldPush {
    std::promise<void> release;
    std::shared_future<void> released{release.get_future().share()};
    vq_capture_thread::Body body() {
        auto r = released;
        return [r](std::future<void>) { r.wait(); };
    }
};

// A thread caught in its push, and a stop that left it there.
void launch_held_and_stop(vq_capture_thread& t, HeldPush& push) {
    t.launch(push.body());
    ASSERT_FALSE(t.stop(true, 10ms));
}

bool wait_for_state(const vq_capture_thread& t, vq_capture_thread::eState s) {
    for (int i = 0; i < 2000 && t.state() != s; ++i)
        std::this_thread::sleep_for(1ms);
    return t.state() == s;
}

}  // namespace

TEST(CaptureThread, LaunchRunsAndStopJoins) {
    vq_capture_thread t;
    EXPECT_EQ(t.state(), vq_capture_thread::eIdle);
    std::atomic<int> rounds{0};
    t.launch(loop_until_exit(rounds));
    EXPECT_EQ(t.state(), vq_capture_thread::eRunning);
    while (rounds == 0)
        std::this_thread::yield();
    EXPECT_TRUE(t.stop(true, 1000ms));
    EXPECT_EQ(t.state(), vq_capture_thread::eIdle);
    EXPECT_FALSE(t.dropping());
}

TEST(CaptureThread, StopWithoutThreadHasNothingToWaitFor) {
    vq_capture_thread t;
    EXPECT_TRUE(t.stop(true, 0ms));
    EXPECT_TRUE(t.stop(false, 0ms));
}

TEST(CaptureThread, ThreadThatReturnedIsJoinedOnRequest) {
    vq_capture_thread t;
    t.launch([](std::future<void>) {});
    ASSERT_TRUE(wait_for_state(t, vq_capture_thread::eReturned));
    t.join_returned();
    EXPECT_EQ(t.state(), vq_capture_thread::eIdle);
}

TEST(CaptureThread, StopLeavesAThreadCaughtInAPushAndMarksItDropping) {
    vq_capture_thread t;
    HeldPush push;
    launch_held_and_stop(t, push);
    EXPECT_EQ(t.state(), vq_capture_thread::eStopping);
    EXPECT_TRUE(t.dropping());
    // A stop that may not defer (close) waits for the push to return.
    std::thread releaser([&push] {
        std::this_thread::sleep_for(20ms);
        push.release.set_value();
    });
    EXPECT_TRUE(t.stop(false, 0ms));
    releaser.join();
    EXPECT_EQ(t.state(), vq_capture_thread::eIdle);
}

TEST(CaptureThread, StartAfterADeferredStopRunsOnceThePreviousThreadReturned) {
    vq_capture_thread t;
    HeldPush push;
    launch_held_and_stop(t, push);

    std::atomic<bool> previousDone{false};
    std::atomic<bool> bodyRan{false};
    std::atomic<bool> bodySawPreviousDone{false};
    std::atomic<bool> droppingInBody{true};
    std::atomic<int> rounds{0};
    auto next = loop_until_exit(rounds);
    t.launch_after_previous([&, next](std::future<void> exit) {
        bodyRan = true;
        bodySawPreviousDone = previousDone.load();
        droppingInBody = t.dropping();
        next(std::move(exit));
    });
    EXPECT_EQ(t.state(), vq_capture_thread::eRunning);
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(bodyRan) << "the start's body ran while the previous thread was still in its push";
    EXPECT_TRUE(t.dropping()) << "the previous thread must still drop its frame";

    previousDone = true;
    push.release.set_value();
    while (rounds == 0)
        std::this_thread::yield();
    EXPECT_TRUE(bodySawPreviousDone);
    EXPECT_FALSE(droppingInBody);
    EXPECT_TRUE(t.stop(true, 1000ms));
}

TEST(CaptureThread, StopDuringADeferredStartSkipsTheStartsBody) {
    vq_capture_thread t;
    HeldPush push;
    launch_held_and_stop(t, push);
    std::atomic<bool> bodyRan{false};
    t.launch_after_previous([&](std::future<void>) { bodyRan = true; });
    // Stopped again before the previous thread returned: nothing of the start runs.
    EXPECT_FALSE(t.stop(true, 10ms));
    push.release.set_value();
    EXPECT_TRUE(t.stop(false, 0ms));
    EXPECT_FALSE(bodyRan);
    EXPECT_EQ(t.state(), vq_capture_thread::eIdle);
}

TEST(CaptureThread, EndOfStreamIsHandedOverOnlyWhileRunning) {
    vq_capture_thread t;
    uint32_t seqnum = 0;
    EXPECT_FALSE(t.request_eos(7)) << "without a capture thread the caller pushes it itself";

    std::promise<void> taken;
    std::atomic<bool> handedOver{false};
    t.launch([&](std::future<void> exit) {
        while (exit.wait_for(1ms) != std::future_status::ready) {
            if (t.take_eos(seqnum)) {
                handedOver = true;
                taken.set_value();
            }
        }
    });
    EXPECT_FALSE(t.eos_sent());
    EXPECT_TRUE(t.request_eos(42));
    ASSERT_EQ(taken.get_future().wait_for(2s), std::future_status::ready);
    EXPECT_TRUE(handedOver);
    EXPECT_EQ(seqnum, 42u);
    EXPECT_TRUE(t.eos_sent());
    EXPECT_TRUE(t.stop(true, 1000ms));
    EXPECT_FALSE(t.request_eos(43)) << "a stopped capture takes no end of stream";

    // The next launch starts with no end of stream sent or pending.
    std::atomic<int> rounds{0};
    t.launch(loop_until_exit(rounds));
    EXPECT_FALSE(t.eos_sent());
    EXPECT_FALSE(t.take_eos(seqnum));
    EXPECT_TRUE(t.stop(true, 1000ms));
}
