// What the host refuses for want of something: descriptors, memory, processes, space. The lines in
// which an operation reports its failure do not say why; this cause stands in a line of its own.
#pragma once

namespace kessard {

// Logs that `what` failed for want of something, with the error number and its text. Nothing for
// any other `error`; errno stays.
void log_shortage(const char* what, int error);

} // namespace kessard
