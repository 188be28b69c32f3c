#pragma once

#include <cstdint>
#include <string>

#include "cli/options.h"
#include "dsp/diagnostics.h"
#include "dsp/direction.h"

namespace sonderlark {

// Replaces the live status file at `path` (20 members, fixed order) through
// `path`.tmp, moved into place in one step (an exchange with the old file,
// which is then unlinked, or a rename), so readers see the old or the new
// record, never a mix, and never find the file missing. Creates missing parent directories on every call (a failure there
// throws std::filesystem::filesystem_error). An empty path writes nothing;
// a temporary file that cannot be opened (a symbolic link or a FIFO there
// is refused), written or closed leaves the previous record in place,
// silently.
void write_live_event_json(const std::string& path, const Options& options,
                           const DirectionEstimate& direction, const ChannelDiagnostics& diagnostics,
                           bool detected_speech, int64_t chunks_processed, bool pcm_output_connected,
                           bool live_processing, const std::string& status, const std::string& error,
                           const std::string& arecord_command, int arecord_exit_code,
                           const std::string& arecord_stderr);

}  // namespace sonderlark
