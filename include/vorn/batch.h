#ifndef VORN_BATCH_H
#define VORN_BATCH_H

/* Whole-pipeline entry points for hosts written in any language: plain C types only. Every
 * function returns its error code (also stored in *errorCode when given) and writes a message
 * into `message` (truncated to messageSize, always terminated). An output is written through a
 * temporary file and renamed into place, so a failure or cancel never leaves part of a file.
 * A cancel flag set from another thread is set with an atomic store (C11 atomic_store or
 * __atomic_store_n); it is read the same way. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// What went wrong; 0 is success.
typedef enum VornBatchError {
  VORN_BATCH_OK = 0,
  VORN_BATCH_BAD_ARGUMENT = 1,  /* a null path, or an option out of range */
  VORN_BATCH_INPUT_MISSING = 2, /* the input file does not exist */
  VORN_BATCH_INPUT_FAILED = 3,  /* the input cannot be decoded */
  VORN_BATCH_BAD_PRESET = 4,    /* the preset or document is missing or malformed */
  VORN_BATCH_RENDER_FAILED = 5, /* the effects could not be rendered */
  VORN_BATCH_OUTPUT_FAILED = 6, /* the output cannot be written */
  VORN_BATCH_CANCELLED = 7      /* the cancel flag was set */
} VornBatchError;

/// How outputs are written; vornBatchDefaultOptions fills in the defaults.
typedef struct VornBatchOptions {
  int quality;   /* JPEG quality 1..100 */
  int depth;     /* TIFF bits per sample: 8, 16 or 32 */
  int longSide;  /* longer side of the output in pixels; 0 keeps the size */
  int inProcess; /* 1 decodes raw files in this process; 0 (the default) in a loader child */
} VornBatchOptions;

/// Called between stages with the fraction done (0..1) and the stage's name.
typedef void (*VornBatchProgress)(double fraction, const char* stage, void* user);

/// Fills `options` with quality 92, depth 8 and the size kept.
void vornBatchDefaultOptions(VornBatchOptions* options);

/// Renders `input` with the preset file's layers on top and writes `output` (jpg or tif).
int applyPreset(const char* input, const char* presetPath, const char* output,
                const VornBatchOptions* options, VornBatchProgress progress, void* user,
                const volatile int* cancel, int* errorCode, char* message, size_t messageSize);

/// Renders a raw file with the default raw development (and the preset, when not null).
int applyRawDevelop(const char* input, const char* presetPath, const char* output,
                    const VornBatchOptions* options, VornBatchProgress progress, void* user,
                    const volatile int* cancel, int* errorCode, char* message, size_t messageSize);

/// Writes an upright thumbnail whose longer side is options->longSide (256 when 0).
int generateThumbnail(const char* input, const char* output, const VornBatchOptions* options,
                      VornBatchProgress progress, void* user, const volatile int* cancel,
                      int* errorCode, char* message, size_t messageSize);

/// Renders a whole document (its source, layers, crop and orientation) or, when `editPath` is a
/// preset, `source` with that preset; a null `source` takes the document's.
int doPictoramix(const char* source, const char* editPath, const char* output,
                 const VornBatchOptions* options, VornBatchProgress progress, void* user,
                 const volatile int* cancel, int* errorCode, char* message, size_t messageSize);

#ifdef __cplusplus
}
#endif

#endif /* VORN_BATCH_H */
