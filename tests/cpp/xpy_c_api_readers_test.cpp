// Readers without a lock: who waits for them goes on when they have finished, and not before.

#include "xpy_c_api_readers.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "failing_malloc.h"

namespace {

class Readers : public ::testing::Test
{
  protected:
    static void SetUpTestSuite() { init_readers(); }
};

void yield_until(const std::atomic<bool>& flag)
{
    while (!flag)
        sched_yield();
}

constexpr int kTurns = 1000;  // in which a wait that does not wait would be over

TEST_F(Readers, NobodyIsWaitedForWhenNobodyReads)
{
    wait_for_readers();
    {
        XPyReading reading;
    }
    std::thread([] { XPyReading reading; }).join();
    wait_for_readers();
}

TEST_F(Readers, WaitEndsWhenTheOtherThreadHasStoppedReading)
{
    std::atomic<bool> reads{false}, waits{false};
    int last_use = 0;
    std::thread reader([&] {
        XPyReading reading;
        ASSERT_TRUE(static_cast<bool>(reading));
        reads = true;
        yield_until(waits);
        for (int turn = 0; turn < kTurns; turn++)
            sched_yield();
        last_use = 1;
    });
    yield_until(reads);
    waits = true;
    wait_for_readers();
    EXPECT_EQ(last_use, 1);
    reader.join();
}

TEST_F(Readers, ReaderThatBeginsAnewIsNotWaitedForAgain)
{
    std::atomic<bool> is_over{false}, has_begun{false};
    std::thread reader([&] {
        while (!is_over) {
            XPyReading reading;
            has_begun = true;
        }
    });
    yield_until(has_begun);
    for (int turn = 0; turn < kTurns; turn++)
        wait_for_readers();
    is_over = true;
    reader.join();
}

TEST_F(Readers, ThreadDoesNotWaitForItself)
{
    XPyReading reading;
    wait_for_readers();
}

TEST_F(Readers, WhatIsTakenAwayIsSeenByNoReaderAfterTheWait)
{
    static constexpr int kGone = -1;
    int values[2] = {0, 0};
    std::atomic<int*> shared{&values[0]};
    std::atomic<bool> is_over{false}, has_begun[2] = {};
    int seen_gone[2] = {0, 0};
    std::thread readers[2];
    for (int n = 0; n < 2; n++) {
        readers[n] = std::thread([&, n] {
            while (!is_over) {
                XPyReading reading;
                int* value = shared.load(std::memory_order_acquire);
                seen_gone[n] += __atomic_load_n(value, __ATOMIC_RELAXED) == kGone;
                has_begun[n] = true;
            }
        });
        yield_until(has_begun[n]);
    }
    for (int turn = 0; turn < 20 * kTurns; turn++) {
        int* old = shared.load();
        int* next = old == &values[0] ? &values[1] : &values[0];
        __atomic_store_n(next, 0, __ATOMIC_RELAXED);
        shared.store(next, std::memory_order_release);
        wait_for_readers();
        __atomic_store_n(old, kGone, __ATOMIC_RELAXED);
    }
    is_over = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(seen_gone[0] + seen_gone[1], 0);
}

TEST_F(Readers, PlacesAreGivenToLaterThreads)
{
    std::thread([] { XPyReading reading; }).join();
    tHeapWatch heap;
    for (int turn = 0; turn < 20; turn++)
        std::thread([] { XPyReading reading; }).join();
    EXPECT_EQ(heap.allocations(), 0);
}

TEST_F(Readers, ThreadWithoutAPlaceIsNoReader)
{
    // all places are taken by threads that stay
    std::atomic<bool> is_over{false};
    std::atomic<int> count{0};
    std::thread taking[64];
    for (std::thread& thread : taking) {
        thread = std::thread([&] {
            {
                XPyReading reading;
            }
            count++;
            yield_until(is_over);
        });
    }
    while (count < 64)
        sched_yield();
    bool could_read = true;
    {
        tHeapWatch heap(1);
        std::thread([&] {
            XPyReading reading;
            could_read = static_cast<bool>(reading);
        }).join();
    }
    is_over = true;
    for (std::thread& thread : taking)
        thread.join();
    EXPECT_FALSE(could_read);
}

TEST_F(Readers, ForkedChildForgetsTheOtherThreads)
{
    std::atomic<bool> reads{false}, is_over{false};
    std::thread reader([&] {
        XPyReading reading;
        reads = true;
        yield_until(is_over);
    });
    yield_until(reads);
    pid_t child = fork();
    if (child == 0) {
        alarm(20);  // for a wait that never ends
        forget_other_readers();
        wait_for_readers();
        _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    is_over = true;
    reader.join();
}

}  // namespace
