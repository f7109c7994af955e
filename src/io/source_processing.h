#pragma once

#include <functional>
#include <memory>
#include <string>

#include "vorn/io/image.h"

namespace vorn::detail {

/// Asked between the stages of an open; true stops it with code 5.
using StopCheck = std::function<bool()>;

/// Thrown between stages when the open was cancelled; processSource turns it into code 5.
struct ProcessingCancelled {};

/// Throws ProcessingCancelled when `stop` says so.
void stopIfRequested(const StopCheck& stop);

/// Whose processing a log line is about: a source of finished pixels, or a raw source.
enum class SourceKind { Plain, Raw };

/// Runs the processing of one source: a ProcessingCancelled ends in code 5, an exception in code
/// 4, each with its log line for the kind of source; neither result carries an image.
ImageResult processSource(SourceKind kind, const std::function<ImageResult()>& body);

/// A finished frame wrapped in a new Image (code 0); code 4 and a log line naming `name` when
/// the source refuses its arguments or memory runs out.
ImageResult finishedImage(ConstImageFrame frame, std::shared_ptr<const ImageMetadata> metadata,
                          const std::string& name);

/// The image resampled to `size` and wrapped with its metadata in a new finished source; the
/// frame keeps the load state of the frame it was made from. A raw source first waits for a
/// frame that covers the size, and passes its code on when none comes.
ImageResult resizeImage(const ImageResult& result, const _Size<int>& size);

}  // namespace vorn::detail
