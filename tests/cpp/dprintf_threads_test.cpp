// The log where several threads change it at the same time and no interpreter lock keeps them apart.

#include <atomic>
#include <thread>

#include "dprintf.h"
#include "gtest/gtest.h"

namespace {

class SharedLog : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        init_shared();
        if (!gIsLockOff)
            GTEST_SKIP() << "the interpreter's lock is on";
    }
    void TearDown() override { gIsLockOff = false; }
};

void wait_until(const std::atomic<int>& number, int wanted)
{
    for (int spins = 0; number.load() != wanted; spins++) {
        if (spins > 1000)
            std::this_thread::yield();
    }
}

TEST_F(SharedLog, MaskAndOutputThatAreSetAtOnceSwitchTheDomainOn)
{
    constexpr int kRounds = 300000;
    constexpr int kDelays = 200;  // the second thread is behind by different times
    tDPData* data = create_dp_data();
    std::atomic<int> begun(0), done(0);
    std::thread other([&] {
        for (int round = 1; round <= kRounds; round++) {
            wait_until(begun, round);
            set_dp_data_file_obj(data, nullptr, 1, nullptr);
            done = round;
        }
    });
    int lost = 0;
    for (int round = 1; round <= kRounds; round++) {
        set_dp_data_mask(data, 0);
        set_dp_data_file_obj(data, nullptr, -1, nullptr);
        begun = round;
        for (int delay = round % kDelays; delay > 0; delay--)
            done.load();
        set_dp_data_mask(data, kLogCore);
        wait_until(done, round);
        lost += data->core != &data->shared_single_dp_data;
    }
    other.join();
    EXPECT_EQ(0, lost);
    free_dp_data(data);
}

}  // namespace
