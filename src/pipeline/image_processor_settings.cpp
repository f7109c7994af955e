#include <charconv>
#include <limits>
#include <sstream>
#include <string>

#include "vorn/core/data_store.h"
#include "vorn/pipeline/image_processor.h"

namespace vorn {

std::string ImageProcessorSettings::debugDescription(const std::shared_ptr<Image>& original) const {
  std::ostringstream out;
  out << "ProcessingROI " << processingROI.x << " " << processingROI.y << " " << processingROI.width
      << " " << processingROI.height << "\n"
      << "FinalRect " << finalRect.x << " " << finalRect.y << " " << finalRect.width << " "
      << finalRect.height << "\n"
      << "processingSize " << processingSize.width << " " << processingSize.height << "\n"
      << "applyCrop " << applyCrop << "\n"
      << "previewQuality " << previewQuality << "\n"
      << "useCache " << useCache << "\n"
      << "exportMode " << exportMode << "\n"
      << "lensCorrectionPreview " << lensCorrectionPreview << "\n"
      << "stopProcessing " << (stopProcessing ? (*stopProcessing ? "1" : "0") : "none") << "\n"
      << "hasSky " << (original && original->getDetection().hasSky);
  return out.str();
}

LowResScaleFactor lowResScaleFactor() {
  const DataStore& store = DataStore::instance();
  LowResScaleFactor factor{store.getFloat("LowResScaleFactor.retina", 0.6f),
                           // The key is spelled so in stored settings.
                           store.getFloat("LowResScaleFactor.nonreting", 0.85f),
                           std::numeric_limits<std::uint64_t>::max()};
  // getInt cannot hold the default, so the whole number is parsed here.
  const std::string side = store.getString("LowResScaleFactor.minimalSideLength", {});
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(side.data(), side.data() + side.size(), value);
  if (!side.empty() && error == std::errc() && end == side.data() + side.size())
    factor.minimalSideLength = value;
  return factor;
}

}  // namespace vorn
