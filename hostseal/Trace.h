// Trace lines for the host's QX_Fingerprint_Debug, when it exports one.
// Callers pass names and counts only: a line may end up in a log file.
#pragma once

namespace hostseal {

void Trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace hostseal
