#pragma once

namespace sonderlark {

// The whole tool: parses the command line, opens the log, prints the banner
// and runs live mode or the one-shot capture and analysis inside the single
// error handler. Returns the exit status.
int run_sonderlark(int argc, char** argv);

}  // namespace sonderlark
