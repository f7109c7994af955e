#include "vorn/pipeline/brush/brush_queue.h"

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "core/log_failure.h"

namespace vorn {

struct BrushQueue::State : MaskWorkGate, std::enable_shared_from_this<BrushQueue::State> {
  State(std::shared_ptr<BaseBrushContext> ctx, bool sync)
      : context(std::move(ctx)), synchronous(sync) {}

  const std::shared_ptr<BaseBrushContext> context;
  const bool synchronous;

  // Guards the pending list and threadRunning; `idle` is signalled when the worker leaves.
  mutable std::mutex operationsMutex;
  mutable std::condition_variable idle;
  std::vector<std::shared_ptr<BaseBrushOperation>> operations;
  bool threadRunning = false;

  // Held by the worker for its whole life, so two workers never overlap.
  std::mutex threadStateMutex;

  // Guards the gate: `suspended` and `holds` park the worker before its next operation, and
  // `executing` tells the gate's users to wait for the running one. `gateChanged` signals both.
  mutable std::mutex suspendMutex;
  mutable std::condition_variable gateChanged;
  bool suspended = false;
  mutable int holds = 0;
  bool executing = false;
  std::atomic<bool> suspendedFlag{false};

  // Held by cancel() while it empties the list.
  std::mutex cancelMutex;

  // Lets an operation that waits on its own queue return instead of deadlocking.
  std::atomic<std::thread::id> worker{};

  bool onWorker() const { return worker.load() == std::this_thread::get_id(); }

  static void run(const std::shared_ptr<State>& state);
  void execute(const std::shared_ptr<BaseBrushOperation>& operation);
  void waitIdle() const;
  std::shared_ptr<void> settle() const override;
};

void BrushQueue::State::execute(const std::shared_ptr<BaseBrushOperation>& operation) {
  // An operation that throws must not take the worker (and every later operation) with it.
  try {
    operation->execute(context);
  } catch (const std::exception& e) {
    VORN_LOG_FAILURE((std::string("Brush operation failed: ") + e.what()).c_str());
  }
}

void BrushQueue::State::run(const std::shared_ptr<State>& state) {
  std::lock_guard life(state->threadStateMutex);
  state->worker = std::this_thread::get_id();
  for (;;) {
    std::unique_lock gate(state->suspendMutex);
    state->gateChanged.wait(gate, [&] { return !state->suspended && state->holds == 0; });
    std::unique_lock pending(state->operationsMutex);
    if (state->cancelMutex.try_lock())
      state->cancelMutex.unlock();
    else
      state->operations.clear();
    if (state->operations.empty()) {
      state->worker = std::thread::id();
      state->threadRunning = false;
      pending.unlock();
      gate.unlock();
      state->idle.notify_all();
      return;
    }
    std::shared_ptr<BaseBrushOperation> oldest = std::move(state->operations.front());
    state->operations.erase(state->operations.begin());
    const std::shared_ptr<BaseBrushOperation> newest =
        state->operations.empty() ? nullptr : state->operations.back();
    const std::size_t remaining = state->operations.size();
    pending.unlock();
    const bool dropped =
        newest && newest->overridesPrevious() && oldest->isDroppable() && remaining >= 2;
    if (dropped) continue;
    state->executing = true;
    gate.unlock();
    state->execute(oldest);
    gate.lock();
    state->executing = false;
    gate.unlock();
    state->gateChanged.notify_all();
  }
}

void BrushQueue::State::waitIdle() const {
  if (synchronous || onWorker()) return;
  std::unique_lock pending(operationsMutex);
  idle.wait(pending, [&] { return !threadRunning || suspendedFlag.load(); });
  if (threadRunning && !operations.empty())
    VORN_LOG_FAILURE(("The brush queue is suspended; " + std::to_string(operations.size()) +
                      " operations stay pending")
                         .c_str());
}

std::shared_ptr<void> BrushQueue::State::settle() const {
  // The worker already keeps every other operation out while it runs one.
  if (onWorker()) return std::make_shared<int>(0);
  waitIdle();
  {
    std::unique_lock gate(suspendMutex);
    ++holds;
    gateChanged.wait(gate, [&] { return !executing; });
  }
  std::shared_ptr<const State> self = shared_from_this();
  return std::shared_ptr<void>(nullptr, [self](void*) {
    {
      std::lock_guard gate(self->suspendMutex);
      --self->holds;
    }
    self->gateChanged.notify_all();
  });
}

BrushQueue::BrushQueue() : state_(std::make_shared<State>(nullptr, false)) {}

BrushQueue::BrushQueue(std::shared_ptr<BaseBrushContext> context, bool synchronous)
    : state_(std::make_shared<State>(std::move(context), synchronous)) {}

BrushQueue::~BrushQueue() {
  setSuspended(false);
}

void BrushQueue::pushOperation(std::shared_ptr<BaseBrushOperation> operation) {
  if (!operation) {
    VORN_LOG_FAILURE("Can't queue an empty brush operation");
    return;
  }
  if (!state_->context) {
    VORN_LOG_FAILURE("The brush queue has no context");
    return;
  }
  if (state_->synchronous) {
    if (state_->onWorker()) return state_->execute(operation);  // pushed by an operation
    // Callers on several threads still run one operation at a time.
    std::lock_guard serial(state_->threadStateMutex);
    {
      std::unique_lock gate(state_->suspendMutex);
      state_->gateChanged.wait(gate, [&] { return state_->holds == 0; });
      state_->executing = true;
    }
    state_->worker = std::this_thread::get_id();
    state_->execute(operation);
    state_->worker = std::thread::id();
    {
      std::lock_guard gate(state_->suspendMutex);
      state_->executing = false;
    }
    state_->gateChanged.notify_all();
    return;
  }
  bool start = false;
  {
    std::lock_guard pending(state_->operationsMutex);
    state_->operations.push_back(std::move(operation));
    start = !state_->threadRunning;
    state_->threadRunning = true;
  }
  if (!start) return;
  try {
    std::thread(State::run, state_).detach();
  } catch (const std::system_error& e) {
    // The operations stay pending; the next push tries to start a worker again.
    VORN_LOG_FAILURE((std::string("Can't start the brush worker: ") + e.what()).c_str());
    {
      std::lock_guard pending(state_->operationsMutex);
      state_->threadRunning = false;
    }
    state_->idle.notify_all();
  }
}

void BrushQueue::wait() {
  state_->waitIdle();
}

void BrushQueue::setSuspended(bool suspended) {
  {
    std::unique_lock gate(state_->suspendMutex);
    state_->suspended = suspended;
    state_->suspendedFlag = suspended;
    if (suspended && !state_->onWorker())
      state_->gateChanged.wait(gate, [&] { return !state_->executing; });
  }
  state_->gateChanged.notify_all();
  if (suspended) {
    // Taken and dropped so that a waiter cannot miss the flag between its check and its sleep.
    { std::lock_guard pending(state_->operationsMutex); }
    state_->idle.notify_all();
  }
}

bool BrushQueue::isSuspended() const {
  return state_->suspendedFlag.load();
}

void BrushQueue::cancel() {
  std::lock_guard cancelling(state_->cancelMutex);
  std::lock_guard pending(state_->operationsMutex);
  state_->operations.clear();
}

std::size_t BrushQueue::getOperationsCount() const {
  std::lock_guard pending(state_->operationsMutex);
  return state_->operations.size();
}

std::vector<std::shared_ptr<BaseBrushOperation>> BrushQueue::getOperations() const {
  std::lock_guard pending(state_->operationsMutex);
  return state_->operations;
}

std::shared_ptr<BaseBrushContext> BrushQueue::getContext() const {
  return state_->context;
}

std::shared_ptr<BrushQueue> BrushQueue::copy() const {
  if (!state_->context) return nullptr;
  std::shared_ptr<BaseBrushContext> context;
  if (state_->onWorker()) {
    context = state_->context->clone();
  } else {
    // While the gate is held no operation starts, so the copy falls between two of them.
    std::unique_lock gate(state_->suspendMutex);
    state_->gateChanged.wait(gate, [&] { return !state_->executing; });
    context = state_->context->clone();
  }
  return std::make_shared<BrushQueue>(std::move(context), state_->synchronous);
}

bool BrushQueue::isSynchronous() const {
  return state_->synchronous;
}

bool BrushQueue::isRunning() const {
  std::lock_guard pending(state_->operationsMutex);
  return state_->threadRunning;
}

std::shared_ptr<void> BrushQueue::settle() const {
  return state_->settle();
}

std::shared_ptr<MaskWorkGate> BrushQueue::gate() const {
  return state_;
}

}  // namespace vorn
