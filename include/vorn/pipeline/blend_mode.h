#pragma once

// The layers name their blend mode by the type blendImages takes.
#include "vorn/pipeline/blend.h"
