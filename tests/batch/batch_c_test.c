/* Compiled as C: the batch header must need nothing from C++, and the calls must work from C. */
#include <stdio.h>
#include <string.h>

#include "vorn/batch.h"

static int failures = 0;

#define CHECK(condition)                                              \
  do {                                                                \
    if (!(condition)) {                                               \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                     \
    }                                                                 \
  } while (0)

static void recordProgress(double fraction, const char* stage, void* user) {
  double* last = (double*)user;
  (void)stage;
  *last = fraction;
}

static int fileExists(const char* path) {
  FILE* file = fopen(path, "rb");
  if (!file) return 0;
  fclose(file);
  return 1;
}

int main(int argc, char** argv) {
  char preset[1024], output[1024], message[256];
  VornBatchOptions options;
  double last = -1.0;
  int code = -1;
  volatile int cancel = 1;
  FILE* file;
  if (argc != 3) {
    fprintf(stderr, "usage: batch_c_test INPUT.jpg FOLDER\n");
    return 2;
  }
  snprintf(preset, sizeof preset, "%s/c_test_preset.json", argv[2]);
  snprintf(output, sizeof output, "%s/c_test_output.jpg", argv[2]);
  remove(output);
  file = fopen(preset, "w");
  if (!file) return 2;
  fputs(
      "{\"format\": \"vorn preset\", \"version\": 1, \"layers\": [{\"effects\": "
      "[{\"id\": \"VORNExposureEffect\", \"values\": {\"Exposure\": 30}}]}]}",
      file);
  fclose(file);

  vornBatchDefaultOptions(&options);
  CHECK(options.quality == 92 && options.depth == 8 && options.longSide == 0);
  options.longSide = 320;

  CHECK(applyPreset(argv[1], preset, output, &options, NULL, NULL, &cancel, &code, message,
                    sizeof message) == VORN_BATCH_CANCELLED);
  CHECK(code == VORN_BATCH_CANCELLED && !fileExists(output));

  CHECK(applyPreset("/nonexistent/in.jpg", preset, output, &options, NULL, NULL, NULL, &code,
                    message, sizeof message) == VORN_BATCH_INPUT_MISSING);
  CHECK(strstr(message, "/nonexistent/in.jpg") != NULL);
  CHECK(applyPreset(NULL, preset, output, NULL, NULL, NULL, NULL, NULL, NULL, 0) ==
        VORN_BATCH_BAD_ARGUMENT);

  cancel = 0;
  CHECK(applyPreset(argv[1], preset, output, &options, recordProgress, &last, &cancel, &code,
                    message, sizeof message) == VORN_BATCH_OK);
  CHECK(code == VORN_BATCH_OK && message[0] == '\0' && last == 1.0 && fileExists(output));
  remove(output);
  remove(preset);
  if (failures) fprintf(stderr, "%d checks failed\n", failures);
  return failures ? 1 : 0;
}
