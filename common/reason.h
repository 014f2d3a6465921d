// reason.h - the specific reason of the calling thread's last failure.
//
// Error codes are shared by many causes; the layer that finds the cause
// notes it here, and qvfs_LastReason hands it to the application. Every
// public call that tests the initialised flag clears the note on entry, so
// the note always belongs to the thread's last call. Noting costs one store
// to a thread-local word (initial-exec: no lookup on the hot path).
#pragma once

#include "qvfs_types.h"

namespace qvfs {

[[gnu::tls_model("initial-exec")]] inline thread_local int t_reason = QVFS_WHY_NONE;

// Notes the cause of a failure on its way up; a later note of the same call
// (from a layer further up that knows more) replaces it.
inline void why(int reason) { t_reason = reason; }
// Notes the cause unless a lower layer already named one.
inline void why_if_none(int reason) {
    if (t_reason == QVFS_WHY_NONE) t_reason = reason;
}
inline void why_clear() { t_reason = QVFS_WHY_NONE; }

}  // namespace qvfs
