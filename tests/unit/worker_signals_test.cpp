// The worker's signals: whatever the agent did with them, an abort must work.
#include "fakes/fixture.h"

#include <csignal>
#include <map>

namespace {

using namespace fakes;

class WorkerSignals : public fakes::FlashTest {
  protected:
    void SetUp() override {
        FlashTest::SetUp();
        sigprocmask(SIG_SETMASK, nullptr, &mask_);
        for (int signal = 1; signal < NSIG; ++signal) {
            struct sigaction ignored {};
            ignored.sa_handler = SIG_IGN;
            struct sigaction former {};
            if (sigaction(signal, &ignored, &former) == 0)
                former_[signal] = former;
        }
    }
    void TearDown() override {
        for (const auto &[signal, former] : former_)
            sigaction(signal, &former, nullptr);
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
        FlashTest::TearDown();
    }

    std::map<int, struct sigaction> former_; // of the signals that can be ignored

  private:
    sigset_t mask_;
};

TEST_F(WorkerSignals, EverySignalIsBlockedOverTheForkAndNoneAfterIt) {
    sigset_t before, over, after;
    sigprocmask(SIG_SETMASK, nullptr, &before);
    fakes::os().fork.does([&] {
        sigprocmask(SIG_SETMASK, nullptr, &over);
        return 4242;
    });
    flashCopyEntry row = fakes::copy_row();
    start_flash_copy(&row);
    sigprocmask(SIG_SETMASK, nullptr, &after);
    for (const auto &entry : former_) {
        EXPECT_EQ(sigismember(&over, entry.first), 1) << "signal " << entry.first;
        EXPECT_EQ(sigismember(&after, entry.first), sigismember(&before, entry.first));
    }
}

TEST_F(WorkerSignals, EverySignalThatTheAgentIgnoredHasItsDefaultButTheOneThatAborts) {
    int handled = 0;
    platform().pmb_bind.does([&](int, int, const pmb_queue_attributes *, const char *) {
        for (const auto &entry : former_) {
            struct sigaction now {};
            sigaction(entry.first, nullptr, &now);
            if (entry.first == SIGTERM)
                handled = now.sa_handler != SIG_DFL && now.sa_handler != SIG_IGN;
            else
                EXPECT_EQ(now.sa_handler, SIG_DFL) << "signal " << entry.first;
        }
        return 3;
    });
    fakes::os().fork.returns(0);
    flashCopyEntry row = fakes::copy_row();
    row.command = 99; // nothing to transfer
    EXPECT_EQ(fakes::run_as_child([&] { start_flash_copy(&row); }), 0);
    EXPECT_EQ(platform().sent.size(), 1U);
    EXPECT_TRUE(handled);
}

} // namespace
