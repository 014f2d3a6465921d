// table.cpp - the file table, the shared file records, open, close and
// unlink, and the layer's start and stop.
//
// Invariants kept under g_qvFileMutex:
//   - a slot of the file table is either null or holds a handle whose
//     `index` is that slot and whose inRef is at least 1;
//   - every reference of a handle (inRef) is also one count of its record's
//     shrRef, and, when the process holds an owner slot, one of its count.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/proc_lock.h"
#include "file/tf_internal.h"
#include "reason.h"

int g_qvFileMutex = -1;

namespace qvfs::file {
namespace {

TQvFileHandle* g_fileTable[kFileTableSize];

// A text name's fields sit at fixed distances before its first '.'; a
// string whose dot stands closer to its start carries no name.
constexpr std::ptrdiff_t kMinDotPos = 23;
constexpr std::ptrdiff_t kBlockBeforeDot = 21;  // 6 hex digits
constexpr std::ptrdiff_t kSliceBeforeDot = 15;  // 4 hex digits

// Reads up to n hexadecimal digits, stopping at the first other character.
uint32_t read_hex(const char* p, int n) {
    uint32_t v = 0;
    for (int i = 0; i < n; ++i) {
        char c = p[i];
        uint32_t d;
        if (c >= '0' && c <= '9') d = uint32_t(c - '0');
        else if (c >= 'a' && c <= 'f') d = uint32_t(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F') d = uint32_t(c - 'A' + 10);
        else break;
        v = v * 16 + d;
    }
    return v;
}

// The name itself inside a string that holds one (a bare name, or a path
// ending in one): from the 'H' 23 characters before its first '.' to the
// end, extension included. A string without such a dot is its own name.
const char* name_part(const char* s) {
    const char* dot = std::strchr(s, '.');
    return dot != nullptr && dot - s >= kMinDotPos ? dot - kMinDotPos : s;
}

// Whether the record's stored name is non-empty and the given name ends
// with it (a device path in front of either does not count), extension
// included: "...C00.rvdx" does not name the file stored as "...C00.rvd".
// The stored name lives in shared memory: it is bounded to its 64 bytes
// here whatever another process left in it. g_qvFileMutex held.
bool stored_name_matches(const TQvFileRec* rec, const char* name) {
    char stored[kNameSize];
    std::memcpy(stored, rec->name, kNameSize);
    stored[kNameSize - 1] = '\0';
    const char* want = name_part(stored);
    const std::size_t n = std::strlen(want), given = std::strlen(name);
    return n != 0 && given >= n && std::strcmp(name + (given - n), want) == 0;
}

// Counts one more open of the calling process in the owner slots: its own
// slot, else the first free one; with all 8 taken by others nothing is kept.
void record_opener(TQvFileRec* rec, int32_t pid) {
    for (TQvFileOwner& o : rec->owner) {
        if (o.pid == pid) {
            ++o.count;
            return;
        }
    }
    for (TQvFileOwner& o : rec->owner) {
        if (o.pid == 0) {
            o.pid = pid;
            o.count = 1;
            return;
        }
    }
}

void drop_opener(TQvFileRec* rec, int32_t pid) {
    for (TQvFileOwner& o : rec->owner) {
        if (o.pid == pid) {
            if (--o.count <= 0) o = TQvFileOwner{0, 0};
            return;
        }
    }
}

void clear_slot(TQvFileHandle* h) {
    if (h->index < kFileTableSize && g_fileTable[h->index] == h) g_fileTable[h->index] = nullptr;
}

// The record-making part of _tf_GetFile, g_qvFileMutex held. Null with the
// error code set; the table and the records are then as before.
TQvFileHandle* make_handle(const char* name) {
    if (name[0] == '\0') {
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    int disk = fsc_GetDiskNumByPath(name);
    const char* dot = std::strchr(name, '.');
    if (dot == nullptr || dot - name < kMinDotPos) {
        errno = QVFS_ERR_BADHANDLE;
        why(QVFS_WHY_BAD_NAME);
        return nullptr;
    }
    uint32_t slice = read_hex(dot - kSliceBeforeDot, 4);
    uint32_t block = read_hex(dot - kBlockBeforeDot, 6);
    if (disk < 0) {
        disk = int(fsc_DiskAtoI(static_cast<unsigned char>(dot[-2])) * 24 +
                   fsc_DiskAtoI(static_cast<unsigned char>(dot[-1])));
    }
    if (df_IsDiskReady(uint32_t(disk)) != 0) {
        errno = QVFS_ERR_BADHANDLE;
        why(QVFS_WHY_NOT_MOUNTED);
        return nullptr;
    }
    uint64_t key = file_owner_key(uint32_t(disk), block, slice);
    if (key == 0) {
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    uint32_t slot = 0;
    while (slot < kFileTableSize && g_fileTable[slot] != nullptr) ++slot;
    if (slot == kFileTableSize) {
        errno = QVFS_ERR_BADHANDLE;
        why(QVFS_WHY_HANDLES_FULL);
        return nullptr;
    }
    auto* h = static_cast<TQvFileHandle*>(qvfs_Malloc(sizeof(TQvFileHandle)));
    if (h == nullptr) {
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    std::memset(h, 0, sizeof *h);
    h->index = slot;
    h->lockId = -1;
    g_fileTable[slot] = h;

    auto* rec = static_cast<TQvFileRec*>(fsc_TfMalloc(key, sizeof(TQvFileRec)));
    if (rec == nullptr) {
        g_fileTable[slot] = nullptr;
        qvfs_Free(h);
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    // A record nobody counts was just registered for this file: what its
    // share index's state says belongs to an earlier file.
    if (rec->shrRef <= 0) reset_state(rec);
    // All processes that attach this record reach the same semaphore.
    int shareKey = fsc_GetShmKey(rec->shareIndex);
    int lockId = shareKey < 0 ? -1 : fsc_ProcLockInit(shareKey + kRecordLockKeyOffset);
    if (lockId < 0) {
        fsc_TfFree(rec);  // frees it only when no process counts it
        g_fileTable[slot] = nullptr;
        qvfs_Free(h);
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    h->lockId = lockId;
    h->rec = rec;
    std::memset(rec->name, 0, kNameSize);
    std::strncpy(rec->name, name, kNameSize - 1);
    ++rec->shrRef;
    h->inRef = 1;
    record_opener(rec, int32_t(getpid()));
    return h;
}

}  // namespace

TQvFileHandle* table_entry(uint32_t slot) {
    return slot < kFileTableSize ? g_fileTable[slot] : nullptr;
}

bool holds_attachment(const void* rec) {
    for (TQvFileHandle* h : g_fileTable) {
        if (h != nullptr && h->rec == rec) return true;
    }
    return false;
}

namespace {

// The body of _tf_GetFile; g_qvFileMutex held.
TQvFileHandle* get_file_locked(const char* name) {
    if (name[0] != '\0') {
        for (TQvFileHandle* h : g_fileTable) {
            if (h == nullptr || h->rec == nullptr || !stored_name_matches(h->rec, name)) continue;
            ++h->inRef;
            ++h->rec->shrRef;
            record_opener(h->rec, int32_t(getpid()));
            return h;
        }
    }
    return make_handle(name);
}

// The body of release_ref; g_qvFileMutex held.
void release_ref_locked(TQvFileHandle* h) {
    --h->inRef;
    if (h->rec != nullptr) {
        --h->rec->shrRef;
        drop_opener(h->rec, int32_t(getpid()));
    }
    if (h->inRef <= 0) {
        if (h->blkFile != nullptr) {
            bf_CloseFile(h->blkFile);
            h->blkFile = nullptr;
        }
        fsc_TfFree(h->rec);  // frees the slot only when shrRef dropped below 1
        h->rec = nullptr;
        clear_slot(h);
        qvfs_Free(h);
    }
}

}  // namespace

void release_ref(TQvFileHandle* h) {
    if (h->index >= kFileTableSize) return;
    ProcLockGuard table(g_qvFileMutex);
    release_ref_locked(h);
}

void set_record_name(TQvFileRec& rec, const char* name) {
    char copy[kNameSize];
    std::memcpy(copy, name, kNameSize);
    copy[kNameSize - 1] = '\0';
    ProcLockGuard table(g_qvFileMutex);
    std::memcpy(rec.name, copy, kNameSize);
}

}  // namespace qvfs::file

using namespace qvfs;
using namespace qvfs::file;

TQvFileHandle* _tf_GetFile(const char* name) {
    if (name == nullptr) {
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    ProcLockGuard table(g_qvFileMutex);
    return get_file_locked(name);
}

TQvFileHandle* _tf_CreateFile(const TQvfsOpenParam* param, char* name) {
    if (param == nullptr || name == nullptr) return nullptr;
    name[0] = '\0';
    TQvBlkSliceInfo slice;
    std::memset(&slice, 0, sizeof slice);
    TQvBlkRec* blk = bf_CreateFile(param, name, &slice);
    if (blk == nullptr) return nullptr;
    TQvFileHandle* h = _tf_GetFile(name);
    if (h == nullptr) {
        int saved = errno;
        bf_CloseFile(blk);
        errno = saved;
        return nullptr;
    }
    ProcLockGuard file(h->lockId);
    std::memcpy(&h->rec->slice, &slice, sizeof slice);
    if (h->blkFile == nullptr) {
        h->blkFile = blk;
    } else {
        // The handle already holds a reference on its block; keep one.
        bf_CloseFile(blk);
    }
    note_loaded(h);
    return h;
}

TQvFileHandle* tf_OpenFile(const TQvfsOpenParam* param, char* name) {
    if (param != nullptr) {
        return name != nullptr ? _tf_CreateFile(param, name) : nullptr;
    }
    if (name == nullptr) return nullptr;
    TQvFileHandle* h = _tf_GetFile(name);
    if (h == nullptr) return nullptr;
    bool opened;
    {
        ProcLockGuard file(h->lockId);
        if (h->blkFile == nullptr) {
            // A record that a process already filled is the file's master
            // copy: its length may be ahead of the entry on the device (the
            // flush pass writes the entry later), so the entry read here
            // only proves the name.
            if (slice_loaded(h)) {
                TQvBlkSliceInfo entry;
                h->blkFile = bf_OpenFile(name, &entry);
            } else {
                h->blkFile = bf_OpenFile(name, &h->rec->slice);
                if (h->blkFile != nullptr) note_loaded(h);
            }
        }
        opened = h->blkFile != nullptr;
    }
    if (opened) return h;
    int saved = errno;  // the block-file layer's code is the one reported
    release_ref(h);
    errno = saved;
    return nullptr;
}

int tf_CloseFile(TQvFileHandle* handle) {
    if (handle == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (handle->index >= kFileTableSize) return 0;
    // A length the device's entry lacks is stored now, so that the record
    // can go with this reference and a later open that reads the entry
    // finds every byte.
    if (entry_lags(handle)) {
        ProcLockGuard file(handle->lockId);
        store_entry(handle);
    }
    release_ref(handle);
    return 0;
}

int tf_Unlink(const char* name) {
    if (name == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    // Refusing because another opener holds the file sets no error code:
    // whatever making the handle left in errno (a semaphore that already
    // existed, say) is not the caller's business.
    const int callerErrno = errno;
    // g_qvFileMutex is held from the test "nobody else has the file open"
    // to the end of the deletion: every open, in any process, counts itself
    // in the record under this lock before it reads the entry, so an open
    // either comes first (and the unlink is refused) or comes after (and
    // finds the entry gone). The block-file layer's locks come after this
    // one in the lock order.
    ProcLockGuard table(g_qvFileMutex);
    TQvFileHandle* h = get_file_locked(name);
    if (h == nullptr) return -1;
    const bool alone = h->rec != nullptr && h->inRef < 2 && h->rec->shrRef < 2;
    if (h->index < kFileTableSize) release_ref_locked(h);
    if (!alone) {
        errno = callerErrno;
        why(QVFS_WHY_FILE_OPEN);
        return -1;
    }
    return bf_Unlink(name);
}

int tf_Init(void) {
    std::memset(g_fileTable, 0, sizeof g_fileTable);
    char path[64];
    std::snprintf(path, sizeof path, "%s/qvfslayer", QVFS_KEY_DIR);
    g_qvFileMutex = fsc_ProcLockInit(fsc_GetShareKey(path, 97));
    fsc_ShareInit();
    const int result = bf_Init();
    // The flush pass writes the entries that growing writes leave behind.
    disk::set_flush_hook(flush_pass);
    return result;
}

int tf_Uninit(void) {
    for (uint32_t i = 0; i < kFileTableSize; ++i) {
        TQvFileHandle* h;
        {
            ProcLockGuard table(g_qvFileMutex);
            h = g_fileTable[i];
        }
        if (h != nullptr && h->index < kFileTableSize) release_ref(h);
    }
    return 0;
}
