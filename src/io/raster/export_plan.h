#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "io/raster/export_metadata.h"
#include "io/raster/export_rows.h"
#include "io/raster/raster_format.h"
#include "vorn/io/image_magick_reader.h"

namespace vorn::detail {

/// One line per failed export: the exporting function's signature, the file, the stage, why.
/// Always false.
bool failExport(const char* function, const std::string& path, const std::string& stage,
                const std::string& reason);
/// The size a frame of `frame` pixels is written at, before orientation.
_Size<int> exportSize(_Size<int> frame, const ExportParameters& parameters);
SampleFormat exportSampleFormat(RasterFormat format, int tiffBitDepth);
/// The profile written: the asked one, else sRGB for 8 bits, else the frame's own.
std::shared_ptr<ColorProfile> exportProfile(const std::shared_ptr<ColorProfile>& frameProfile,
                                            const ExportParameters& parameters,
                                            SampleFormat format);
/// What the options themselves allow, before any file or pixel is looked at; empty when fine.
std::string checkExportOptions(RasterFormat format, const ExportParameters& parameters,
                               std::size_t frames);
/// The written size against the format, the pixel cap and the memory the step needs; empty
/// when fine.
std::string checkWrittenSize(_Size<int> frame, RasterFormat format,
                             const ExportParameters& parameters);
/// Options, every frame's written size and the output's folder, same-file and permissions, before
/// anything is decoded or allocated; false with the failing stage and the reason.
bool checkExportTarget(const ExportParameters& parameters, RasterFormat format,
                       const std::vector<_Size<int>>& frames, std::string& stage,
                       std::string& reason);
/// The EXIF and XMP the file embeds, read from the parameters' source (none without one).
bool readExportMetadataFor(const ExportParameters& parameters, RasterFormat format,
                           _Size<int> written, ExportMetadata& metadata, std::string& reason);
/// Encodes the pages (one for a JPEG) into a temporary file beside the target and links it into
/// place once whole; `finished` is asked after encoding and may still refuse the file.
bool writeExportPages(const char* function, const ExportParameters& parameters, RasterFormat format,
                      const std::vector<const ExportRows*>& pages, const ExportMetadata& metadata,
                      const std::function<bool(std::string&)>& finished = {});

}  // namespace vorn::detail
