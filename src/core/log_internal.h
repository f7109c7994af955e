#pragma once

namespace vorn::detail {

/// Writes the settings store's unreported load error once as a Warning, bypassing the
/// verbosity check; does nothing while the log has no stream to receive it.
void reportSettingsLoadError();

}  // namespace vorn::detail
