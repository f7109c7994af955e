#include "io/raster/jpeg_encoder.h"

// jpeglib.h needs FILE and size_t declared first.
#include <jerror.h>
#include <jpeglib.h>
#include <cstdio>

#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstring>
#include <thread>
#include <vector>

#include "io/raster/atomic_file.h"
#include "vorn/core/log.h"

namespace vorn::detail {
namespace {

constexpr char kExifHeader[] = "Exif\0";                       // with its terminator: "Exif\0\0"
constexpr char kXmpHeader[] = "http://ns.adobe.com/xap/1.0/";  // with its terminator
constexpr std::size_t kMaxMarkerBytes = 65533;

// The encoder's errors leave through longjmp, so nothing with a destructor may live in a frame
// between jpeg calls and the setjmp in compress(); everything owned lives in encodeJpeg().
struct ErrorManager {
  jpeg_error_mgr base;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void onError(j_common_ptr cinfo) {
  auto* errors = reinterpret_cast<ErrorManager*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, errors->message);
  std::longjmp(errors->jump, 1);
}

void onMessage(j_common_ptr) {}  // the encoder's warnings say nothing a user can act on

struct FdDestination {
  jpeg_destination_mgr base;
  int fd;
  JOCTET* buffer;
  std::size_t capacity;
};

void initDestination(j_compress_ptr cinfo) {
  auto* dest = reinterpret_cast<FdDestination*>(cinfo->dest);
  dest->base.next_output_byte = dest->buffer;
  dest->base.free_in_buffer = dest->capacity;
}

boolean emptyBuffer(j_compress_ptr cinfo) {
  auto* dest = reinterpret_cast<FdDestination*>(cinfo->dest);
  if (!writeAll(dest->fd, dest->buffer, dest->capacity)) ERREXIT(cinfo, JERR_FILE_WRITE);
  initDestination(cinfo);
  return TRUE;
}

void termDestination(j_compress_ptr cinfo) {
  auto* dest = reinterpret_cast<FdDestination*>(cinfo->dest);
  if (!writeAll(dest->fd, dest->buffer, dest->capacity - dest->base.free_in_buffer))
    ERREXIT(cinfo, JERR_FILE_WRITE);
}

void setSubsampling(jpeg_compress_struct& cinfo, JpegSubsampling subsampling) {
  const int h = subsampling == JpegSubsampling::S444 ? 1 : 2;
  const int v = subsampling == JpegSubsampling::S420 ? 2 : 1;
  cinfo.comp_info[0].h_samp_factor = h;
  cinfo.comp_info[0].v_samp_factor = v;
  for (int c = 1; c < 3; ++c)
    cinfo.comp_info[c].h_samp_factor = cinfo.comp_info[c].v_samp_factor = 1;
}

// JFIF keeps the source's resolution where EXIF gives one in inches or centimetres.
void setDensity(jpeg_compress_struct& cinfo, const ExportMetadata& metadata) {
  const bool known = metadata.resolutionUnit == 2 || metadata.resolutionUnit == 3;
  const auto fits = [](double value) { return value >= 1.0 && value <= 65535.0; };
  if (!known || !fits(metadata.xResolution) || !fits(metadata.yResolution)) return;
  cinfo.density_unit = static_cast<UINT8>(metadata.resolutionUnit - 1);
  cinfo.X_density = static_cast<UINT16>(metadata.xResolution + 0.5);
  cinfo.Y_density = static_cast<UINT16>(metadata.yResolution + 0.5);
}

void writeApp1(jpeg_compress_struct& cinfo, const char* header, std::size_t headerBytes,
               const std::uint8_t* data, std::size_t size, JOCTET* scratch) {
  std::memcpy(scratch, header, headerBytes);
  std::memcpy(scratch + headerBytes, data, size);
  jpeg_write_marker(&cinfo, JPEG_APP0 + 1, scratch, static_cast<unsigned>(headerBytes + size));
}

/// Two band buffers: the next band is converted on a helper thread while the encoder, which
/// runs on one core, compresses the current one.
class BandPipeline {
 public:
  explicit BandPipeline(const ExportRows& rows)
      : rows_(rows), bandBytes_(static_cast<std::size_t>(rows.bandRows()) * rows.rowBytes()) {
    for (auto& buffer : buffers_) buffer.resize(bandBytes_);
  }
  ~BandPipeline() { wait(); }
  BandPipeline(const BandPipeline&) = delete;
  BandPipeline& operator=(const BandPipeline&) = delete;

  /// Starts converting the band at `first` into buffer `slot`.
  void start(int first, int slot) {
    wait();
    const int count = std::min(rows_.bandRows(), rows_.size().height - first);
    helper_ = std::thread([this, first, count, slot] { rows_.fill(first, count, buffer(slot)); });
  }
  void wait() {
    if (helper_.joinable()) helper_.join();
  }
  std::uint8_t* buffer(int slot) { return buffers_[static_cast<std::size_t>(slot)].data(); }

 private:
  const ExportRows& rows_;
  std::size_t bandBytes_;
  std::array<std::vector<std::uint8_t>, 2> buffers_;
  std::thread helper_;
};

struct Job {
  const ExportRows* rows;
  const ExportParameters* parameters;
  const ExportMetadata* metadata;
  JpegSubsampling subsampling;
  BandPipeline* bands;
  JSAMPROW* rowPointers;
  JOCTET* markerScratch;  // kMaxMarkerBytes
};

bool compress(jpeg_compress_struct& cinfo, ErrorManager& errors, FdDestination& dest,
              const Job& job, std::string& reason) {
  cinfo.err = jpeg_std_error(&errors.base);
  errors.base.error_exit = onError;
  errors.base.output_message = onMessage;
  if (setjmp(errors.jump)) {
    reason = errors.message;
    jpeg_destroy_compress(&cinfo);
    return false;
  }
  jpeg_create_compress(&cinfo);
  cinfo.dest = &dest.base;
  dest.base.init_destination = initDestination;
  dest.base.empty_output_buffer = emptyBuffer;
  dest.base.term_destination = termDestination;

  const _Size<int> size = job.rows->size();
  cinfo.image_width = static_cast<JDIMENSION>(size.width);
  cinfo.image_height = static_cast<JDIMENSION>(size.height);
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, std::clamp(job.parameters->jpegQuality, 1, 100), TRUE);
  setSubsampling(cinfo, job.subsampling);
  cinfo.optimize_coding = job.parameters->jpegOptimizeHuffman ? TRUE : FALSE;
  if (job.parameters->jpegProgressive) jpeg_simple_progression(&cinfo);
  setDensity(cinfo, *job.metadata);
  jpeg_start_compress(&cinfo, TRUE);

  const ExportMetadata& metadata = *job.metadata;
  if (!metadata.exif.empty())
    writeApp1(cinfo, kExifHeader, sizeof kExifHeader, metadata.exif.data(), metadata.exif.size(),
              job.markerScratch);
  if (!metadata.xmp.empty())
    writeApp1(cinfo, kXmpHeader, sizeof kXmpHeader,
              reinterpret_cast<const std::uint8_t*>(metadata.xmp.data()), metadata.xmp.size(),
              job.markerScratch);
  const Blob& icc = job.rows->profile()->iccProfile();
  if (!icc.empty())
    jpeg_write_icc_profile(&cinfo, reinterpret_cast<const JOCTET*>(icc.data()),
                           static_cast<unsigned>(icc.size()));

  const int band = job.rows->bandRows();
  const std::size_t stride = job.rows->rowBytes();
  job.bands->start(0, 0);
  for (int y = 0, slot = 0; y < size.height; y += band, slot ^= 1) {
    const int count = std::min(band, size.height - y);
    job.bands->wait();
    if (y + band < size.height) job.bands->start(y + band, slot ^ 1);
    std::uint8_t* pixels = job.bands->buffer(slot);
    for (int r = 0; r < count; ++r)
      job.rowPointers[r] = pixels + static_cast<std::size_t>(r) * stride;
    JDIMENSION written = 0;
    while (written < static_cast<JDIMENSION>(count))
      written += jpeg_write_scanlines(&cinfo, job.rowPointers + written,
                                      static_cast<JDIMENSION>(count) - written);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  return true;
}

}  // namespace

JpegSubsampling effectiveSubsampling(const ExportParameters& parameters) {
  if (parameters.jpegSubsampling != JpegSubsampling::Auto) return parameters.jpegSubsampling;
  return parameters.jpegQuality >= 90 ? JpegSubsampling::S444 : JpegSubsampling::S420;
}

bool encodeJpeg(int fd, const ExportRows& rows, const ExportParameters& parameters,
                const ExportMetadata& metadata, std::string& reason) {
  if (metadata.exif.size() + sizeof kExifHeader > kMaxMarkerBytes) {
    reason = "the EXIF block is too large for a JPEG";
    return false;
  }
  ExportMetadata fitted;
  const ExportMetadata* used = &metadata;
  if (metadata.xmp.size() + sizeof kXmpHeader > kMaxMarkerBytes) {
    LogWarning("%s: XMP of %zu bytes dropped: a JPEG segment holds at most %zu",
               parameters.path.c_str(), metadata.xmp.size(), kMaxMarkerBytes - sizeof kXmpHeader);
    fitted = metadata;
    fitted.xmp.clear();
    used = &fitted;
  }
  BandPipeline bands(rows);
  std::vector<JSAMPROW> rowPointers(static_cast<std::size_t>(rows.bandRows()));
  std::vector<JOCTET> markerScratch(kMaxMarkerBytes);
  std::vector<JOCTET> output(std::size_t(1) << 20);
  FdDestination dest{{}, fd, output.data(), output.size()};
  ErrorManager errors{};
  jpeg_compress_struct cinfo{};
  const Job job{&rows,
                &parameters,
                used,
                effectiveSubsampling(parameters),
                &bands,
                rowPointers.data(),
                markerScratch.data()};
  const bool ok = compress(cinfo, errors, dest, job, reason);
  bands.wait();  // after an encoder error the helper may still be converting
  return ok;
}

}  // namespace vorn::detail
