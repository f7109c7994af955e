#pragma once

// The whole public interface of the vorn imaging engine.

#include "vorn/core/affine_transform.h"
#include "vorn/core/blob.h"
#include "vorn/core/color_profile.h"
#include "vorn/core/crop_description.h"
#include "vorn/core/data_store.h"
#include "vorn/core/file_utils.h"
#include "vorn/core/float_compare.h"
#include "vorn/core/geometry.h"
#include "vorn/core/image_data.h"
#include "vorn/core/image_load_state.h"
#include "vorn/core/library.h"
#include "vorn/core/log.h"
#include "vorn/core/mask_image.h"
#include "vorn/core/memory_manager.h"
#include "vorn/core/pixel.h"
