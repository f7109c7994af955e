#include "effects/render.h"

namespace vorn::detail {

// The caller normally supplies the destination; an empty one is made here rather than
// failing, a wrong-sized one is refused.
bool prepareDestination(EffectCallContext& call) {
  if (!call.source || call.source->empty()) return false;
  if (!call.destination) {
    call.destination = std::make_shared<ImageRGBf>(call.source->size(), call.source->colorProfile);
  }
  return !call.destination->empty() && call.destination->size() == call.source->size();
}

bool copySourceToDestination(EffectCallContext& call) {
  if (!prepareDestination(call)) return false;
  if (call.destination->data != call.source->data) {
    parallelCopy(call.destination->data, call.source->data, call.source->sizeInBytes());
  }
  return true;
}

}  // namespace vorn::detail
