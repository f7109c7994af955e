#pragma once

#include "vorn/io/image_reader.h"

namespace vorn::ipc {

/// ImageReader::decodeFrame for a raw file, done by a loader child: the same frame and codes,
/// except that a child that crashes, hangs, runs past its limits or misbehaves ends the decode
/// with code 4 and one log line naming the file. Decodes in this process when no child starts.
OwnedFrame decodeRawFrameInChild(const ImageFileClass& file, const FrameRequest& request);

}  // namespace vorn::ipc
