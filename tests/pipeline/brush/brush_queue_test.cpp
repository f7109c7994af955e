#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "pipeline/brush/brush_test_support.h"
#include "support/log_capture.h"
#include "vorn/pipeline/brush/brush_queue.h"

namespace vorn {
namespace {

using Names = std::vector<std::string>;
using test::ExecutionLog;
using test::RecordingClear;
using test::RecordingStep;
using test::RecordingStroke;

/// Polls until `done` or ten seconds pass; false on the timeout.
template <typename Done>
bool eventually(Done done) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// Lines the operations up on a suspended queue, then lets the worker run them all.
void runLinedUp(const std::vector<std::shared_ptr<BaseBrushOperation>>& operations) {
  BrushQueue queue(test::makeContext(_Size<int>(8, 8)), false);
  queue.setSuspended(true);
  for (const auto& operation : operations) queue.pushOperation(operation);
  EXPECT_EQ(queue.getOperationsCount(), operations.size());
  queue.setSuspended(false);
  queue.wait();
  EXPECT_EQ(queue.getOperationsCount(), 0u);
}

TEST(BrushQueue, CoalescingDropsOnlyDroppableWorkBeforeAClearOrFill) {
  auto log = std::make_shared<ExecutionLog>();
  const auto stroke = [&](const char* name) {
    return std::make_shared<RecordingStroke>(name, log);
  };
  runLinedUp(
      {stroke("S1"), stroke("S2"), stroke("S3"), std::make_shared<RecordingClear>("C", log)});
  EXPECT_EQ(log->get(), (Names{"S3", "C"})) << "S1 and S2 dropped, S3 runs with one left";

  log = std::make_shared<ExecutionLog>();
  runLinedUp({stroke("S1"), std::make_shared<RecordingStep>("X", log), stroke("S2"),
              std::make_shared<RecordingClear>("C", log)});
  EXPECT_EQ(log->get(), (Names{"X", "S2", "C"})) << "a non-droppable step is never dropped";

  log = std::make_shared<ExecutionLog>();
  runLinedUp({stroke("S1"), stroke("S2"), stroke("S3")});
  EXPECT_EQ(log->get(), (Names{"S1", "S2", "S3"})) << "a stroke overrides nothing";

  log = std::make_shared<ExecutionLog>();
  runLinedUp({std::make_shared<RecordingClear>("C1", log), stroke("S1"),
              std::make_shared<RecordingClear>("C2", log)});
  EXPECT_EQ(log->get(), (Names{"S1", "C2"})) << "a clear is droppable itself";
}

TEST(BrushQueue, SynchronousQueueExecutesBeforePushReturns) {
  auto log = std::make_shared<ExecutionLog>();
  BrushQueue queue(test::makeContext(_Size<int>(4, 4)), true);
  queue.setSuspended(true);  // only parks a worker, and a synchronous queue has none
  queue.setSuspended(false);
  queue.pushOperation(std::make_shared<RecordingStep>("A", log));
  EXPECT_EQ(log->get(), Names{"A"});
  EXPECT_EQ(queue.getOperationsCount(), 0u);
  EXPECT_FALSE(queue.isRunning());
  queue.wait();
  EXPECT_TRUE(queue.isSynchronous());
}

TEST(BrushQueue, CancelDropsThePendingBurstAndLaterPushesRun) {
  auto log = std::make_shared<ExecutionLog>();
  auto release = std::make_shared<std::atomic<bool>>(false);
  BrushQueue queue(test::makeContext(_Size<int>(4, 4)), false);
  queue.pushOperation(std::make_shared<RecordingStep>("A", log, release));
  for (const char* name : {"B", "C", "D"})
    queue.pushOperation(std::make_shared<RecordingStep>(name, log));
  ASSERT_TRUE(eventually([&] { return log->get().size() == 1; }));
  queue.cancel();
  EXPECT_EQ(queue.getOperationsCount(), 0u);
  queue.pushOperation(std::make_shared<RecordingStep>("E", log));
  release->store(true);
  queue.wait();
  EXPECT_EQ(log->get(), (Names{"A", "E"})) << "the running one completes, the rest is dropped";
}

TEST(BrushQueue, SuspendedQueueKeepsItsOperationsUntilResumed) {
  test::LogCapture capture;
  auto log = std::make_shared<ExecutionLog>();
  BrushQueue queue(test::makeContext(_Size<int>(4, 4)), false);
  queue.setSuspended(true);
  for (const char* name : {"A", "B", "C"})
    queue.pushOperation(std::make_shared<RecordingStep>(name, log));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(log->get().empty());
  EXPECT_TRUE(queue.isSuspended());
  queue.wait();  // must not hang on a parked worker
  EXPECT_EQ(capture.countEndingWith("The brush queue is suspended; 3 operations stay pending"), 1u);
  ASSERT_EQ(queue.getOperations().size(), 3u);
  queue.setSuspended(false);
  queue.wait();
  EXPECT_EQ(log->get(), (Names{"A", "B", "C"}));
}

TEST(BrushQueue, SettleHoldsTheWorkerBackUntilReleased) {
  auto log = std::make_shared<ExecutionLog>();
  BrushQueue queue(test::makeContext(_Size<int>(4, 4)), false);
  queue.pushOperation(std::make_shared<RecordingStep>("A", log));
  std::shared_ptr<void> hold = queue.settle();
  EXPECT_EQ(log->get(), Names{"A"}) << "settle waits for the pending work";
  queue.pushOperation(std::make_shared<RecordingStep>("B", log));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(log->get(), Names{"A"}) << "held back while the hold lives";
  hold.reset();
  queue.wait();
  EXPECT_EQ(log->get(), (Names{"A", "B"}));
}

TEST(BrushQueue, DestroyedQueueLetsItsWorkerFinish) {
  auto log = std::make_shared<ExecutionLog>();
  auto release = std::make_shared<std::atomic<bool>>(false);
  {
    BrushQueue queue(test::makeContext(_Size<int>(4, 4)), false);
    queue.pushOperation(std::make_shared<RecordingStep>("A", log, release));
    queue.pushOperation(std::make_shared<RecordingStep>("B", log));
  }
  release->store(true);
  EXPECT_TRUE(eventually([&] { return log->get().size() == 2; }));
  {
    BrushQueue queue(test::makeContext(_Size<int>(4, 4)), false);
    queue.setSuspended(true);
    queue.pushOperation(std::make_shared<RecordingStep>("C", log));
  }
  EXPECT_TRUE(eventually([&] { return log->get().size() == 3; }))
      << "a suspended queue's worker is let go when the queue dies";
}

TEST(BrushQueue, CopyIsTakenBetweenOperationsAndIsIndependent) {
  auto log = std::make_shared<ExecutionLog>();
  auto release = std::make_shared<std::atomic<bool>>(false);
  BrushQueue queue(test::makeContext(_Size<int>(16, 16)), false);
  queue.pushOperation(std::make_shared<RecordingStep>("A", log, release));
  queue.pushOperation(std::make_shared<FillOperation>());
  ASSERT_TRUE(eventually([&] { return log->get().size() == 1; }));
  std::atomic<bool> copied{false};
  std::shared_ptr<BrushQueue> copy;
  std::thread copier([&] {
    copy = queue.copy();
    copied = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(copied.load()) << "the copy waits for the running operation";
  release->store(true);
  copier.join();
  queue.wait();
  ASSERT_TRUE(copy);
  EXPECT_FALSE(copy->isSynchronous());
  const auto mask = copy->getContext()->mask();
  ASSERT_TRUE(mask);
  const float first = mask->at(0, 0);
  for (int y = 0; y < mask->height; ++y)
    for (int x = 0; x < mask->width; ++x) ASSERT_EQ(mask->at(x, y), first) << "not torn";
  copy->pushOperation(std::make_shared<ClearOperation>());
  copy->wait();
  EXPECT_EQ(queue.getContext()->mask()->at(3, 3), 1.0f) << "the original keeps its fill";
  EXPECT_EQ(mask->at(3, 3), 0.0f);
}

/// An operation that waits on, settles and copies the queue it runs on.
class SelfWaiting : public BaseBrushOperation {
 public:
  SelfWaiting(BrushQueue* queue, std::shared_ptr<ExecutionLog> log)
      : queue_(queue), log_(std::move(log)) {}
  void execute(std::shared_ptr<BaseBrushContext>) override {
    queue_->wait();
    const auto hold = queue_->settle();
    if (hold && queue_->copy()) log_->add("inside");
  }

 private:
  BrushQueue* queue_;
  std::shared_ptr<ExecutionLog> log_;
};

TEST(BrushQueue, AnOperationWaitingOnItsOwnQueueDoesNotDeadlock) {
  for (const bool synchronous : {true, false}) {
    auto log = std::make_shared<ExecutionLog>();
    BrushQueue queue(test::makeContext(_Size<int>(4, 4)), synchronous);
    queue.pushOperation(std::make_shared<SelfWaiting>(&queue, log));
    queue.pushOperation(std::make_shared<RecordingStep>("after", log));
    queue.wait();
    EXPECT_EQ(log->get(), (Names{"inside", "after"})) << synchronous;
  }
}

TEST(BrushQueue, MisuseIsRefusedWithALine) {
  test::LogCapture capture;
  BrushQueue empty;
  empty.pushOperation(std::make_shared<FillOperation>());
  EXPECT_EQ(capture.countEndingWith(" The brush queue has no context"), 1u);
  EXPECT_FALSE(empty.copy());
  BrushQueue queue(test::makeContext(_Size<int>(4, 4)), false);
  queue.pushOperation(nullptr);
  EXPECT_EQ(capture.countEndingWith(" Can't queue an empty brush operation"), 1u);
  // A mask operation on a context without a mask logs instead of touching a null mask.
  BrushQueue bare(std::make_shared<BaseBrushContext>(nullptr, _Size<int>(4, 4)), true);
  bare.pushOperation(std::make_shared<FillOperation>());
  EXPECT_EQ(capture.countEndingWith(" A mask operation needs a brush context with a mask"), 1u);
}

}  // namespace
}  // namespace vorn
