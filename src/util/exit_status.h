#pragma once

namespace sonderlark {

// Exit statuses of the tool.
constexpr int kExitOk = 0;                // clean one-shot or live end, --help
constexpr int kExitUsage = 2;             // refused command line
constexpr int kExitCaptureFailed = 10;    // the one-shot arecord command failed
constexpr int kExitError = 20;            // an exception ended the run
constexpr int kExitLiveStartFailed = 30;  // the live capture child could not be started
constexpr int kExitLiveDegraded = 32;     // live mode ended on a failed capture

}  // namespace sonderlark
