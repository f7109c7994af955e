#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "vorn/pipeline/base_layer.h"
#include "vorn/pipeline/brush/brush_context.h"
#include "vorn/pipeline/brush/brush_operation.h"

namespace vorn {

/// Runs brush operations in order against one context on a worker thread started on demand and
/// detached. The pending list, the worker flag and the four gates (operations, thread state,
/// suspend, cancel) live in a block the worker shares, so destroying the queue while it runs is
/// safe. A synchronous queue runs each operation on the caller's thread instead.
class BrushQueue {
 public:
  /// No context: every push is refused with a log line.
  BrushQueue();
  BrushQueue(std::shared_ptr<BaseBrushContext> context, bool synchronous);
  /// Lifts a suspension; the detached worker finishes the pending operations and then ends.
  ~BrushQueue();
  BrushQueue(const BrushQueue&) = delete;
  BrushQueue& operator=(const BrushQueue&) = delete;

  /// Synchronous: executes before returning. Otherwise appends and starts a worker when none
  /// runs; the worker flag is read and set under the operations mutex, so an operation pushed
  /// while the worker is leaving is never stranded.
  void pushOperation(std::shared_ptr<BaseBrushOperation> operation);
  /// Returns once no worker runs, sleeping on a condition variable rather than spinning; on a
  /// suspended queue it returns at once, with a log line when operations stay pending.
  void wait();
  /// True blocks until the running operation (if any) is done and keeps the next from starting.
  void setSuspended(bool suspended);
  bool isSuspended() const;
  /// Drops every pending operation; the cancel mutex is released once the list is empty, so an
  /// operation pushed after cancel() returns runs normally. The running one completes.
  void cancel();
  std::size_t getOperationsCount() const;
  /// A copy of the pending list, oldest first.
  std::vector<std::shared_ptr<BaseBrushOperation>> getOperations() const;
  std::shared_ptr<BaseBrushContext> getContext() const;
  /// A new queue of the same kind over a copy of the context, taken between two operations;
  /// pending operations are not copied. Null when there is no context.
  std::shared_ptr<BrushQueue> copy() const;
  bool isSynchronous() const;
  /// Whether a worker is running (or parked by a suspension).
  bool isRunning() const;
  /// Waits for the pending work, then keeps the worker from starting another operation until
  /// the returned hold is released; the mask is settled meanwhile.
  std::shared_ptr<void> settle() const;
  /// What a layer keeps to settle this queue before a render.
  std::shared_ptr<MaskWorkGate> gate() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vorn
