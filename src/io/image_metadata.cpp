#include "vorn/io/image_metadata.h"

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/text_iarchive.hpp>
#include <boost/archive/text_oarchive.hpp>
#include <sstream>

namespace boost::serialization {

template <class Archive>
void serialize(Archive& archive, vorn::ImageMetadata::MutableParameters& p, unsigned /*version*/) {
  archive& p.temperature;
  archive& p.tint;
  archive& p.orientation;
}

}  // namespace boost::serialization

namespace vorn {

std::string ImageMetadata::print() const {
  std::ostringstream out;
  out << "cameraName: " << cameraName << '\n'
      << "cameraModel: " << cameraModel << '\n'
      << "fNumber: " << fNumber << '\n'
      << "aperture: " << aperture << '\n'
      << "shutterSpeed: " << shutterSpeed << '\n'
      << "isoSpeed: " << isoSpeed << '\n'
      << "focalLen: " << focalLen << '\n'
      << "focalLen35mm: " << focalLen35mm << '\n'
      << "minFocalLen: " << minFocalLen << '\n'
      << "maxFocalLen: " << maxFocalLen << '\n'
      << "WBTint: " << WBTint << '\n'
      << "WBTemperature: " << WBTemperature << '\n'
      << "lensMaker: " << lensMaker << '\n'
      << "lensModel: " << lensModel << '\n'
      << "lensId: " << lensId << '\n'
      << "exposureBias: " << exposureBias << '\n'
      << "focalPlaneXResolution: " << focalPlaneXResolution << '\n'
      << "focalPlaneYResolution: " << focalPlaneYResolution << '\n'
      << "sizeRawMatrix.first: " << sizeRawMatrix.first << '\n'
      << "sizeRawMatrix.second: " << sizeRawMatrix.second << '\n';
  return out.str();
}

void ImageMetadata::deepCopyDCP() {
  if (dcpProfile) dcpProfile = std::make_shared<Blob>(*dcpProfile);
}

std::string saveMutableParameters(const ImageMetadata::MutableParameters& parameters) {
  std::ostringstream out;
  {
    boost::archive::text_oarchive archive(out);
    archive << parameters;
  }
  return out.str();
}

bool loadMutableParameters(const std::string& text, ImageMetadata::MutableParameters& parameters) {
  try {
    std::istringstream in(text);
    boost::archive::text_iarchive archive(in);
    ImageMetadata::MutableParameters loaded;
    archive >> loaded;
    if (loaded.orientation < 1 || loaded.orientation > 8) return false;
    parameters = loaded;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace vorn
