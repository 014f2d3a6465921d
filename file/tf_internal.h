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

}  // namespace qvfs::file
