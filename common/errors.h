// errors.h - words for the library's error codes (internal helper).
#pragma once

namespace qvfs {

// A short text for any value a library call can leave in errno: the library's
// own codes, and 3000 + a system code (reported with the system's text).
// The result is a static string or, for system codes, a thread-local buffer.
const char* error_text(int code);

}  // namespace qvfs
