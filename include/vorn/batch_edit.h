#pragma once

#include <string>

#include "vorn/batch.h"
#include "vorn/presets/layered_edit.h"

namespace vorn::batch {

/// What one file's render came to: the C error code and its message.
struct BatchOutcome {
  VornBatchError code = VORN_BATCH_OK;
  std::string message;
  bool outputExists = false;  ///< the output was there already and replacing it was not allowed
};

/// Renders `input` with the edit's layers (any number of presets, stacked in order) and writes
/// `output` through a temporary file, as applyPreset does; without `replace`, an existing output
/// is never touched, even one that appears while the render runs.
BatchOutcome renderEditToFile(const std::string& input, const LayeredEdit& edit,
                              const std::string& output, const VornBatchOptions& options,
                              bool replace, VornBatchProgress progress, void* user,
                              const volatile int* cancel);

}  // namespace vorn::batch
