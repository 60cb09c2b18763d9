// The two kinds of diagnostic line that the library writes to standard error.
#pragma once

namespace fmgr {

// "Err (PREFIX/UNIT:LINE) MESSAGE" in red. The message brings its own line end; a few do without one, and log
// scanners know them that way. The line is a fixed identifier that field logs are searched for, so it stays
// when code moves.
void LogError(const char* unit, int line, const char* format, ...) __attribute__((format(printf, 3, 4)));

// "Dbg (PREFIX) MESSAGE". The message brings its own line end.
void LogDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace fmgr
