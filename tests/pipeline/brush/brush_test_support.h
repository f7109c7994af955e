#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vorn/pipeline/brush/brush_context.h"
#include "vorn/pipeline/brush/brush_operation.h"

namespace vorn::test {

/// The order in which recording operations ran, safe to append from the worker.
struct ExecutionLog {
  void add(const std::string& name) {
    std::lock_guard lock(mutex);
    names.push_back(name);
  }
  std::vector<std::string> get() const {
    std::lock_guard lock(mutex);
    return names;
  }
  mutable std::mutex mutex;
  std::vector<std::string> names;
};

/// A StrokeOperation that records its execution before laying its dabs.
class RecordingStroke : public StrokeOperation {
 public:
  RecordingStroke(std::string name, std::shared_ptr<ExecutionLog> log, _Point<float> point = {},
                  BrushSetting setting = {})
      : StrokeOperation(point, setting), name_(std::move(name)), log_(std::move(log)) {}
  void execute(std::shared_ptr<BaseBrushContext> context) override {
    log_->add(name_);
    StrokeOperation::execute(std::move(context));
  }

 private:
  std::string name_;
  std::shared_ptr<ExecutionLog> log_;
};

/// A ClearOperation that records its execution before clearing.
class RecordingClear : public ClearOperation {
 public:
  RecordingClear(std::string name, std::shared_ptr<ExecutionLog> log)
      : name_(std::move(name)), log_(std::move(log)) {}

 protected:
  void executeOn(BrushContext& context) override {
    log_->add(name_);
    ClearOperation::executeOn(context);
  }

 private:
  std::string name_;
  std::shared_ptr<ExecutionLog> log_;
};

/// Any operation that records and, optionally, waits for a release flag before returning.
class RecordingStep : public BaseBrushOperation {
 public:
  RecordingStep(std::string name, std::shared_ptr<ExecutionLog> log,
                std::shared_ptr<std::atomic<bool>> release = nullptr)
      : name_(std::move(name)), log_(std::move(log)), release_(std::move(release)) {}
  void execute(std::shared_ptr<BaseBrushContext>) override {
    log_->add(name_);
    while (release_ && !release_->load()) std::this_thread::yield();
  }

 private:
  std::string name_;
  std::shared_ptr<ExecutionLog> log_;
  std::shared_ptr<std::atomic<bool>> release_;
};

/// A context over a fresh empty mask of `size` on a canvas of the same size, with no layer.
inline std::shared_ptr<BrushContext> makeContext(_Size<int> size) {
  return std::make_shared<BrushContext>(std::make_shared<MaskImage>(size, 0.0f), size,
                                        std::weak_ptr<BaseLayer>());
}

}  // namespace vorn::test
