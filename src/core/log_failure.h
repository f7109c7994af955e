#pragma once

#include "vorn/core/log.h"

/// Logs an Error line made of the calling function's full signature, a blank and the message.
#define VORN_LOG_FAILURE(message) ::vorn::LogError("%s %s", __PRETTY_FUNCTION__, (message))
