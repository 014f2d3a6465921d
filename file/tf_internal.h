// tf_internal.h - helpers shared by the file layer's sources (hidden).
#pragma once

#include "file/tf.h"

namespace qvfs::file {

// Releases one reference of a handle whose index is below 1024: inRef and
// the record's shrRef and owner count drop by one; the process's last
// reference closes the block file, gives the record back (fsc_TfFree) and
// frees the handle. Takes g_qvFileMutex; the caller holds no lock of this
// layer.
void release_ref(TQvFileHandle* h);

// Stores a record's name (at most 63 characters) under g_qvFileMutex, which
// guards it; the caller holds no lock of this layer.
void set_record_name(TQvFileRec& rec, const char* name);

// Whether a handle of this process uses this very attachment of a record.
// The caller holds g_qvFileMutex.
bool holds_attachment(const void* rec);

// ---- the entry on the device (file/flush.cpp) ----

// The flush pass's hook (see disk/df.h, set_flush_hook): pending lengths of
// the disk's files become candidates and their block headers grow (phase
// kBeforeFlush), or the entries carrying the candidates are written (phase
// kAfterFlush, returns their number).
unsigned flush_pass(uint32_t disk, int fd, int phase);

// Notes in the file's shared state that this process filled the record's
// slice copy (create or first open) and what a flush pass needs to write
// its entry. Caller holds the per-file lock.
void note_loaded(TQvFileHandle* h);
// Whether the record's slice copy was filled by some process and is the
// file's master copy. Caller holds the per-file lock.
bool slice_loaded(const TQvFileHandle* h);
// Clears the state of a record that a new file takes. Caller holds
// g_qvFileMutex.
void reset_state(const TQvFileRec* rec);

// After a write that moved dataEnd or endTime: the entry on the device now
// lags, and the next flush pass writes it (without the shared state, the
// entry is stored at once). Caller holds the per-file lock.
void note_growth(TQvFileHandle* h);
// Whether the file's entry on the device lags its slice copy.
bool entry_lags(const TQvFileHandle* h);
// Stores the slice copy as the entry now (bf_Sync) and, when that worked,
// drops the lagging length, so no flush pass writes an older one over it.
// Caller holds the per-file lock.
int store_entry(TQvFileHandle* h);

}  // namespace qvfs::file
