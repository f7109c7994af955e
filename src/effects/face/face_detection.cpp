#include "effects/face/face_detection.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <tuple>

#include "core/opencv_cpu.h"
#include "vorn/core/data_store.h"
#include "vorn/core/log.h"

#ifndef VORN_HAAR_CASCADE_DIR
#define VORN_HAAR_CASCADE_DIR "/usr/share/opencv4/haarcascades"
#endif

namespace vorn::detail {

namespace {

/// Detection runs on a copy whose long side is at most this: the cascades need ~24 px faces,
/// and a full frame would cost seconds.
constexpr int kDetectionLongSide = 800;
constexpr int kMinimumWindow = 24;
/// Of the frontal cascades, alt2 is the one that finds no face in suits and foliage here.
constexpr const char* kFaceCascade = "haarcascade_frontalface_alt2.xml";
constexpr const char* kEyeCascade = "haarcascade_eye.xml";
/// Pictures whose faces are remembered; an editor re-renders the same few sources.
constexpr std::size_t kRememberedPictures = 4;

/// A loaded cascade; detectMultiScale is not const, so each use holds the mutex.
struct Cascade {
  cv::CascadeClassifier classifier;
  std::mutex mutex;
};

/// The cascade of that file, loaded once; null (logged once) when it cannot be read.
Cascade* loadCascade(const std::string& path) {
  static std::mutex mutex;
  static std::map<std::string, std::unique_ptr<Cascade>> loaded;
  static std::set<std::string> reported;
  const std::lock_guard<std::mutex> lock(mutex);
  if (const auto found = loaded.find(path); found != loaded.end()) return found->second.get();
  auto cascade = std::make_unique<Cascade>();
  bool ok = false;
  try {
    // Checked first, as OpenCV prints its own error for a missing file.
    std::error_code error;
    ok = std::filesystem::is_regular_file(path, error) && cascade->classifier.load(path) &&
         !cascade->classifier.empty();
  } catch (const cv::Exception&) {
    ok = false;
  }
  if (!ok) {
    // Not remembered as loaded: a file put in place later is then picked up.
    if (reported.insert(path).second)
      LogWarning("Face detection disabled: cannot load the cascade %s", path.c_str());
    return nullptr;
  }
  return loaded.emplace(path, std::move(cascade)).first->second.get();
}

float unitValue(float v) {
  return v > 0.0f ? std::min(v, 1.0f) : 0.0f;  // NaN becomes 0
}

/// Rec. 601 luma of the display-encoded values, box-averaged over factor x factor blocks.
cv::Mat reducedLuma(const ImageRGBf& picture, _Rect<int> rect, int factor) {
  const int width = rect.width / factor;
  const int height = rect.height / factor;
  cv::Mat gray(height, width, CV_8UC1);
  const float norm = 255.0f / static_cast<float>(factor * factor);
  parallelRows(height, [&](int first, int end) {
    std::vector<float> sums(static_cast<std::size_t>(width));
    for (int y = first; y < end; ++y) {
      std::fill(sums.begin(), sums.end(), 0.0f);
      for (int dy = 0; dy < factor; ++dy) {
        const PixelRGB<float>* row = picture.row(rect.y + y * factor + dy) + rect.x;
        for (int x = 0; x < width; ++x) {
          for (int dx = 0; dx < factor; ++dx) {
            const PixelRGB<float>& p = row[x * factor + dx];
            sums[static_cast<std::size_t>(x)] +=
                0.299f * unitValue(p.r) + 0.587f * unitValue(p.g) + 0.114f * unitValue(p.b);
          }
        }
      }
      auto* out = gray.ptr<std::uint8_t>(y);
      for (int x = 0; x < width; ++x)
        out[x] = static_cast<std::uint8_t>(std::lround(sums[static_cast<std::size_t>(x)] * norm));
    }
  });
  return gray;
}

std::uint64_t fingerprint(const cv::Mat& gray, const std::string& directory) {
  // FNV-1a over the size, the pixels and the cascade folder.
  std::uint64_t hash = 1469598103934665603ull;
  const auto mix = [&hash](std::uint8_t byte) { hash = (hash ^ byte) * 1099511628211ull; };
  for (const int value : {gray.cols, gray.rows})
    for (int shift = 0; shift < 32; shift += 8) mix(static_cast<std::uint8_t>(value >> shift));
  for (int y = 0; y < gray.rows; ++y) {
    const auto* row = gray.ptr<std::uint8_t>(y);
    for (int x = 0; x < gray.cols; ++x) mix(row[x]);
  }
  for (const char c : directory) mix(static_cast<std::uint8_t>(c));
  return hash;
}

std::vector<cv::Rect> detect(Cascade& cascade, const cv::Mat& gray, int minimumSide,
                             int neighbours) {
  std::vector<cv::Rect> found;
  const std::lock_guard<std::mutex> lock(cascade.mutex);
  openCvOnCpu();
  cascade.classifier.detectMultiScale(gray, found, 1.1, neighbours, 0,
                                      cv::Size(minimumSide, minimumSide));
  // The classifier gathers hits from several threads; a fixed order keeps renders repeatable.
  std::sort(found.begin(), found.end(), [](const cv::Rect& a, const cv::Rect& b) {
    return std::tie(a.x, a.y, a.width, a.height) < std::tie(b.x, b.y, b.width, b.height);
  });
  return found;
}

/// The two eyes inside the upper part of a face, left first; none unless both are found.
std::vector<_Rect<float>> findEyes(Cascade* cascade, const cv::Mat& gray, const cv::Rect& face) {
  if (!cascade) return {};
  const cv::Rect upper(face.x, face.y + face.height / 8, face.width, face.height / 2);
  const int minimumSide = std::max(8, face.width / 8);
  if (upper.width < minimumSide || upper.height < minimumSide) return {};
  std::vector<cv::Rect> eyes = detect(*cascade, gray(upper), minimumSide, 3);
  const int middle = face.width / 2;
  const cv::Rect* left = nullptr;
  const cv::Rect* right = nullptr;
  // The largest hit on each side of the face's middle.
  for (const cv::Rect& eye : eyes) {
    const bool isLeft = eye.x + eye.width / 2 < middle;
    const cv::Rect*& slot = isLeft ? left : right;
    if (!slot || eye.area() > slot->area()) slot = &eye;
  }
  if (!left || !right) return {};
  const auto place = [&](const cv::Rect& eye) {
    return _Rect<float>(static_cast<float>(upper.x + eye.x), static_cast<float>(upper.y + eye.y),
                        static_cast<float>(eye.width), static_cast<float>(eye.height));
  };
  return {place(*left), place(*right)};
}

std::vector<DetectedFace> detectOnGray(const cv::Mat& gray, const std::string& directory) {
  Cascade* faces = loadCascade(directory + "/" + kFaceCascade);
  if (!faces) return {};
  Cascade* eyes = loadCascade(directory + "/" + kEyeCascade);
  cv::Mat equalised;
  cv::equalizeHist(gray, equalised);
  // Faces under a twentieth of the short side are too small to retouch visibly.
  const int minimumSide = std::max(kMinimumWindow, std::min(gray.cols, gray.rows) / 20);
  std::vector<DetectedFace> result;
  for (const cv::Rect& box : detect(*faces, equalised, minimumSide, 5)) {
    result.push_back({_Rect<float>(static_cast<float>(box.x), static_cast<float>(box.y),
                                   static_cast<float>(box.width), static_cast<float>(box.height)),
                      findEyes(eyes, equalised, box)});
  }
  return result;
}

struct Remembered {
  std::uint64_t key;
  std::vector<DetectedFace> faces;
};

std::mutex& rememberedMutex() {
  static std::mutex mutex;
  return mutex;
}
std::deque<Remembered>& remembered() {
  static std::deque<Remembered> entries;
  return entries;
}

/// Faces of the reduced copy, remembered by its content: a picture seen again (the next render
/// of the same source) skips the cascades, and a changed picture can never reuse stale boxes.
std::vector<DetectedFace> facesOfGray(const cv::Mat& gray, const std::string& directory) {
  const std::uint64_t key = fingerprint(gray, directory);
  {
    const std::lock_guard<std::mutex> lock(rememberedMutex());
    for (const Remembered& entry : remembered())
      if (entry.key == key) return entry.faces;
  }
  std::vector<DetectedFace> faces = detectOnGray(gray, directory);
  // A missing cascade is not remembered, so that installing it takes effect at once.
  if (!loadCascade(directory + "/" + kFaceCascade)) return faces;
  const std::lock_guard<std::mutex> lock(rememberedMutex());
  remembered().push_front({key, faces});
  if (remembered().size() > kRememberedPictures) remembered().pop_back();
  return faces;
}

}  // namespace

std::string cascadeDirectory() {
  if (const char* environment = std::getenv(kCascadeDirEnvironment); environment && *environment)
    return environment;
  const std::string setting = DataStore::instance().getString(kCascadeDirSetting, "");
  return setting.empty() ? std::string(VORN_HAAR_CASCADE_DIR) : setting;
}

std::vector<DetectedFace> detectFaces(const ImageRGBf& picture, _Rect<int> rect,
                                      const RenderControl& control) {
  const int longSide = std::max(rect.width, rect.height);
  if (longSide <= 0) return {};
  const int factor = std::max(1, (longSide + kDetectionLongSide - 1) / kDetectionLongSide);
  if (rect.width / factor < kMinimumWindow || rect.height / factor < kMinimumWindow) return {};
  const cv::Mat gray = reducedLuma(picture, rect, factor);
  control.checkpoint();
  std::vector<DetectedFace> faces;
  try {
    faces = facesOfGray(gray, cascadeDirectory());
  } catch (const cv::Exception& error) {
    LogWarning("Face detection failed: %s", error.what());
    return {};
  }
  const auto toPicture = [&](_Rect<float> box) {
    const auto scale = static_cast<float>(factor);
    return _Rect<float>(static_cast<float>(rect.x) + box.x * scale,
                        static_cast<float>(rect.y) + box.y * scale, box.width * scale,
                        box.height * scale);
  };
  for (DetectedFace& face : faces) {
    face.box = toPicture(face.box);
    for (_Rect<float>& eye : face.eyes) eye = toPicture(eye);
  }
  return faces;
}

namespace {

struct FrameFaces {
  std::weak_ptr<const ImageRGBf> frame;
  std::vector<DetectedFace> faces;
};

std::deque<FrameFaces>& frameFaces() {
  static std::deque<FrameFaces> entries;
  return entries;
}

}  // namespace

std::vector<DetectedFace> facesOfFrame(const std::shared_ptr<const ImageRGBf>& frame) {
  if (!frame || frame->empty()) return {};
  {
    // A weak pointer that still locks to this frame is this frame: a freed one never matches.
    const std::lock_guard<std::mutex> lock(rememberedMutex());
    for (const FrameFaces& entry : frameFaces())
      if (entry.frame.lock() == frame) return entry.faces;
  }
  std::vector<DetectedFace> faces = detectFaces(*frame, frame->rect(), RenderControl(nullptr));
  const std::lock_guard<std::mutex> lock(rememberedMutex());
  frameFaces().push_front({frame, faces});
  if (frameFaces().size() > kRememberedPictures) frameFaces().pop_back();
  return faces;
}

void clearDetectedFaces() {
  const std::lock_guard<std::mutex> lock(rememberedMutex());
  remembered().clear();
  frameFaces().clear();
}

}  // namespace vorn::detail
