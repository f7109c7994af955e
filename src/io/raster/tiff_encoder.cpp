#include "io/raster/tiff_encoder.h"

#include <libdeflate.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "core/parallel.h"
#include "io/raster/atomic_file.h"
#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

// libdeflate's level 2: a 16-bit photo comes out 2 % smaller than zlib's default level makes it,
// in a quarter of the time libdeflate's level 6 takes (level 1 makes it a sixth larger).
constexpr int kDeflateLevel = 2;
// A strip of about 256 KiB of samples: readers decode whole strips, and larger ones barely
// compress better. A band of 16 strips gives every worker several to compress.
constexpr std::size_t kStripBytes = std::size_t(256) << 10;
constexpr int kStripsPerBand = 16;
// Past this the offsets of a classic TIFF could overflow; such files are written as BigTIFF.
constexpr std::uint64_t kClassicTiffBytes = (std::uint64_t(4) << 30) - (std::uint64_t(64) << 20);

// libtiff's messages for this one handle only; the process-wide handlers belong to ImageMagick.
struct TiffMessages {
  std::string text;
  bool error = false;
};

void collect(void* userData, const char* module, const char* format, va_list args, bool error) {
  char text[512];
  std::vsnprintf(text, sizeof text, format, args);
  auto& messages = *static_cast<TiffMessages*>(userData);
  if (!messages.text.empty()) messages.text += "; ";
  messages.text += std::string(module ? module : "libtiff") + ": " + text;
  messages.error = messages.error || error;
}

int collectTiffError(TIFF*, void* userData, const char* module, const char* format, va_list args) {
  collect(userData, module, format, args, true);
  return 1;
}

int collectTiffWarning(TIFF*, void* userData, const char* module, const char* format,
                       va_list args) {
  collect(userData, module, format, args, false);
  return 1;
}

struct TiffCloser {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
struct OptionsFree {
  void operator()(TIFFOpenOptions* options) const { TIFFOpenOptionsFree(options); }
};
struct CompressorFree {
  void operator()(libdeflate_compressor* compressor) const {
    libdeflate_free_compressor(compressor);
  }
};

/// Horizontal differencing (predictor 2) of one row of interleaved RGB samples.
template <typename Sample>
void predictHorizontal(const Sample* in, Sample* out, std::size_t samples) {
  for (std::size_t i = 0; i < std::min<std::size_t>(3, samples); ++i) out[i] = in[i];
  for (std::size_t i = 3; i < samples; ++i) out[i] = static_cast<Sample>(in[i] - in[i - 3]);
}

/// The floating-point predictor (3) of one row: the bytes of all samples regrouped most
/// significant first, then differenced byte by byte one pixel apart.
void predictFloat(const std::uint8_t* in, std::uint8_t* out, std::size_t samples) {
  for (std::size_t s = 0; s < samples; ++s)
    for (std::size_t byte = 0; byte < 4; ++byte) out[(3 - byte) * samples + s] = in[4 * s + byte];
  for (std::size_t i = 4 * samples; i-- > 3;)
    out[i] = static_cast<std::uint8_t>(out[i] - out[i - 3]);
}

/// One strip position of a band: its compressor, its predicted samples and its output, all
/// reused band after band, so the workers share nothing.
struct StripSlot {
  std::unique_ptr<libdeflate_compressor, CompressorFree> compressor{
      libdeflate_alloc_compressor(kDeflateLevel)};
  std::vector<std::uint8_t> predicted;
  std::vector<std::uint8_t> compressed;
  std::size_t compressedBytes = 0;
};

class PageWriter {
 public:
  PageWriter(TIFF* tiff, const ExportRows& rows) : tiff_(tiff), rows_(rows) {
    const std::size_t rowBytes = rows.rowBytes();
    stripRows_ = static_cast<int>(std::clamp<std::size_t>(
        kStripBytes / rowBytes, 1, static_cast<std::size_t>(rows.size().height)));
    bandRows_ = stripRows_ * kStripsPerBand;
  }

  void setTags(const ExportMetadata* metadata) const {
    TIFF* t = tiff_;
    const SampleFormat format = rows_.format();
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(rows_.size().width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(rows_.size().height));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, static_cast<int>(8 * sampleBytes(format)));
    TIFFSetField(t, TIFFTAG_SAMPLEFORMAT,
                 format == SampleFormat::F32 ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(t, TIFFTAG_PREDICTOR,
                 format == SampleFormat::F32 ? PREDICTOR_FLOATINGPOINT : PREDICTOR_HORIZONTAL);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, static_cast<std::uint32_t>(stripRows_));
    const Blob& icc = rows_.profile()->iccProfile();
    if (!icc.empty())
      TIFFSetField(t, TIFFTAG_ICCPROFILE, static_cast<std::uint32_t>(icc.size()), icc.data());
    if (!metadata) return;
    for (const auto& [tag, text] : metadata->textTags) TIFFSetField(t, tag, text.c_str());
    if (metadata->xResolution > 0.0 && metadata->yResolution > 0.0) {
      TIFFSetField(t, TIFFTAG_XRESOLUTION, metadata->xResolution);
      TIFFSetField(t, TIFFTAG_YRESOLUTION, metadata->yResolution);
      if (metadata->resolutionUnit >= 1 && metadata->resolutionUnit <= 3)
        TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, metadata->resolutionUnit);
    }
    if (!metadata->xmp.empty())
      TIFFSetField(t, TIFFTAG_XMLPACKET, static_cast<std::uint32_t>(metadata->xmp.size()),
                   metadata->xmp.data());
    if (metadata->exifDirectory)
      TIFFSetField(t, TIFFTAG_EXIFIFD, static_cast<std::uint64_t>(metadata->exifDirectory));
    if (metadata->gpsDirectory)
      TIFFSetField(t, TIFFTAG_GPSIFD, static_cast<std::uint64_t>(metadata->gpsDirectory));
  }

  /// Converts, predicts and compresses band after band; strips are written in order.
  bool writeStrips(std::string& reason) {
    const int height = rows_.size().height;
    const std::size_t rowBytes = rows_.rowBytes();
    std::vector<std::uint8_t> band(static_cast<std::size_t>(bandRows_) * rowBytes);
    std::vector<StripSlot> slots(
        static_cast<std::size_t>((std::min(bandRows_, height) + stripRows_ - 1) / stripRows_));
    for (const StripSlot& slot : slots) {
      if (!slot.compressor) {
        reason = "no memory for the compressor";
        return false;
      }
    }
    std::uint32_t strip = 0;
    for (int y = 0; y < height; y += bandRows_) {
      const int count = std::min(bandRows_, height - y);
      rows_.fill(y, count, band.data());
      const int strips = (count + stripRows_ - 1) / stripRows_;
      parallelChunks(static_cast<std::size_t>(strips), 1, [&](std::size_t first, std::size_t end) {
        for (std::size_t s = first; s < end; ++s) {
          StripSlot& slot = slots[s];
          const int stripRows = std::min(stripRows_, count - static_cast<int>(s) * stripRows_);
          const std::uint8_t* samples =
              band.data() + s * static_cast<std::size_t>(stripRows_) * rowBytes;
          const std::size_t bytes = static_cast<std::size_t>(stripRows) * rowBytes;
          slot.predicted.resize(bytes);
          for (int r = 0; r < stripRows; ++r)
            predictRow(samples + r * rowBytes, slot.predicted.data() + r * rowBytes);
          slot.compressed.resize(libdeflate_zlib_compress_bound(slot.compressor.get(), bytes));
          slot.compressedBytes =
              libdeflate_zlib_compress(slot.compressor.get(), slot.predicted.data(), bytes,
                                       slot.compressed.data(), slot.compressed.size());
        }
      });
      for (int s = 0; s < strips; ++s, ++strip) {
        StripSlot& slot = slots[static_cast<std::size_t>(s)];
        const auto size = static_cast<tmsize_t>(slot.compressedBytes);
        if (size == 0 || TIFFWriteRawStrip(tiff_, strip, slot.compressed.data(), size) != size) {
          reason = "cannot write strip " + std::to_string(strip);
          return false;
        }
      }
    }
    return true;
  }

 private:
  void predictRow(const std::uint8_t* in, std::uint8_t* out) const {
    const std::size_t samples = static_cast<std::size_t>(rows_.size().width) * 3;
    switch (rows_.format()) {
      case SampleFormat::U8:
        predictHorizontal(in, out, samples);
        break;
      case SampleFormat::U16:
        predictHorizontal(reinterpret_cast<const std::uint16_t*>(in),
                          reinterpret_cast<std::uint16_t*>(out), samples);
        break;
      case SampleFormat::F32:
        predictFloat(in, out, samples);
        break;
    }
  }

  TIFF* tiff_;
  const ExportRows& rows_;
  int stripRows_ = 1;
  int bandRows_ = 1;
};

}  // namespace

bool encodeTiff(int fd, const std::vector<const ExportRows*>& pages, const ExportMetadata& metadata,
                const std::string& name, std::string& reason) {
  std::uint64_t stored = 0;
  for (const ExportRows* page : pages)
    stored += static_cast<std::uint64_t>(page->rowBytes()) *
              static_cast<std::uint64_t>(page->size().height);
  const bool big = stored + metadata.exif.size() + metadata.xmp.size() > kClassicTiffBytes;

  // The EXIF block goes first, at offset 0, so its internal offsets (maker notes included) hold
  // in the file as they are; libtiff then writes its header over the block's and appends after it.
  ExportMetadata placed = metadata;
  if (!metadata.exif.empty() && big) {
    LogWarning("%s: EXIF left out: it cannot be placed in a BigTIFF file", name.c_str());
    placed.exifDirectory = placed.gpsDirectory = 0;
  } else if (!metadata.exif.empty() && !writeAll(fd, metadata.exif.data(), metadata.exif.size())) {
    reason = "cannot write the EXIF block";
    return false;
  }
  const int own = ::dup(fd);
  if (own < 0 || ::lseek(own, 0, SEEK_SET) != 0) {
    if (own >= 0) ::close(own);
    reason = "cannot reopen the file for the TIFF writer";
    return false;
  }
  TiffMessages messages;
  const std::unique_ptr<TIFFOpenOptions, OptionsFree> options(TIFFOpenOptionsAlloc());
  TIFFOpenOptionsSetErrorHandlerExtR(options.get(), collectTiffError, &messages);
  TIFFOpenOptionsSetWarningHandlerExtR(options.get(), collectTiffWarning, &messages);
  std::unique_ptr<TIFF, TiffCloser> tiff(
      TIFFFdOpenExt(own, name.c_str(), big ? "w8l" : "wl", options.get()));
  if (!tiff) {
    ::close(own);
    reason = "cannot start the TIFF: " + messages.text;
    return false;
  }
  for (std::size_t i = 0; i < pages.size(); ++i) {
    PageWriter page(tiff.get(), *pages[i]);
    page.setTags(i == 0 ? &placed : nullptr);
    if (!page.writeStrips(reason) || !TIFFWriteDirectory(tiff.get())) {
      if (reason.empty()) reason = "cannot write the directory";
      if (!messages.text.empty()) reason += ": " + messages.text;
      return false;
    }
  }
  tiff.reset();  // closes `own`
  if (messages.error) reason = messages.text;
  return !messages.error;
}

}  // namespace vorn::detail
