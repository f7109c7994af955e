// Proxy blobs from documents on disk: header checks, then JPEG decoding through ImageMagick.
#include <cstdint>
#include <vector>

#include "io/blob_header.h"
#include "vorn/core/log.h"
#include "vorn/io/image_compressor.h"

using Frame = vorn::_ImageData<vorn::PixelRGB<float>>;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vorn::Logger::LogInstance().SetVerbosity(vorn::Log::kMaxVerbosity);
  // One good round trip first, so ImageMagick's lazily built state is not taken for a leak.
  Frame frame(vorn::_Size<int>(8, 8), vorn::PixelRGB<float>(0.5f));
  std::vector<std::uint8_t> blob;
  vorn::ImageCompressorProxy::compress(frame, blob);
  std::shared_ptr<Frame> read;
  vorn::ImageCompressorProxy::uncompress(blob, read);
  return read ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size >= 12) {
    // Claims below the cap but above 4 MP are legal yet would spend seconds decoding noise.
    const std::uint64_t pixels =
        std::uint64_t(vorn::detail::getU32(data)) * vorn::detail::getU32(data + 4);
    if (pixels > (std::uint64_t(1) << 22) && pixels <= 268402689u) return -1;
  }
  const std::vector<std::uint8_t> blob(data, data + size);
  std::shared_ptr<Frame> image;
  vorn::ImageCompressorProxy::uncompress(blob, image);
  if (image && (size < 12 || image->width != static_cast<int>(vorn::detail::getU32(data)) ||
                image->height != static_cast<int>(vorn::detail::getU32(data + 4))))
    __builtin_trap();
  return 0;
}
