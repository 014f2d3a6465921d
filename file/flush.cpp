// flush.cpp - a file's length on the device: the entries that growing writes
// leave for the flush pass, and the durable sync.
//
// A write that grows a file moves dataEnd and endTime in the shared file
// record only; every process reads the length there (an open never reads
// the entry from the device over a record that another process filled), so
// an acknowledged byte is readable at once, also after its writer died.
// The entry on the device follows in the flush pass of any process: the disk
// layer's flush thread calls flush_pass (registered at tf_Init as its one
// hook into the layers above) before and after each fdatasync of a disk:
//   before  each pending file of the disk: its slice copy's dataEnd and
//           endTime become the candidate, and the block header grows to
//           cover them (written before the flush, so `next` is on the device
//           before any entry beyond it);
//   after   each file with a candidate: the entry is written with the
//           candidate's dataEnd and endTime, whose data the flush made
//           durable. The next pass's flush makes the entry durable.
// A file's state (common/state.h) says what the pass needs without the file
// being open in the pass's process. Calls that store the entry themselves
// (sync, close, status and file-information changes, truncation, the ring
// pointers) drop the pending length and the candidate, so the pass never
// writes an entry older than one already written.
//
// Locks: the pass runs under g_tTimerMutex and takes per-file locks, then
// block record locks; nothing that holds a per-file lock waits for
// g_tTimerMutex.
#include <cerrno>
#include <cstring>

#include "common/keys.h"
#include "common/proc_lock.h"
#include "common/state.h"
#include "file/tf_internal.h"

namespace qvfs::file {
namespace {

using qvfs::shared_load;
using qvfs::shared_store;

constexpr uint32_t kWords = sizeof(TQvDiskState::pendingFiles) / sizeof(uint64_t);
static_assert(kWords * 64 == kFileShareIndexes);

TQvFileState* state_of(const TQvFileHandle* h) {
    return h == nullptr || h->rec == nullptr ? nullptr : file_state(uint32_t(h->rec->shareIndex));
}

// Whether the state describes a file whose entry the pass can write: one a
// process loaded, on this disk.
bool usable_state(const TQvFileState& st, uint32_t disk) {
    return shared_load(st.loaded) == 1 && st.disk == disk && st.fileLock >= 0;
}

void clear_bit(uint32_t disk, uint32_t index) {
    if (TQvDiskState* ds = disk_state(disk))
        __atomic_and_fetch(&ds->pendingFiles[index / 64], ~(uint64_t{1} << (index % 64)), __ATOMIC_ACQ_REL);
}

// Before the flush: the pending length becomes the candidate, and the
// block header is pushed to cover it.
void take_candidate(uint32_t disk, uint32_t index, int fd) {
    TQvFileState* st = file_state(index);
    auto* rec = static_cast<TQvFileRec*>(record_at(index));
    if (st == nullptr || rec == nullptr) {
        record_release(rec);
        return;
    }
    if (!usable_state(*st, disk)) {
        clear_bit(disk, index);  // the record went to another file
        record_release(rec);
        return;
    }
    TQvBlkSliceInfo snapshot;
    bool push = false;
    {
        ProcLockGuard file(st->fileLock);
        // A candidate left by a pass that did not finish is taken afresh:
        // its flush may not have happened.
        if (shared_load(st->pending) != 0 || shared_load(st->candidate) != 0) {
            std::memcpy(&snapshot, &rec->slice, sizeof snapshot);
            st->candEnd = snapshot.dataEnd;
            st->candTime = snapshot.endTime;
            shared_store(st->candidate, 1u);
            shared_store(st->pending, 0u);
            push = true;
        }
    }
    if (push) bf::push_header(st->blkShare, st->blkLock, st->disk, st->blkId, snapshot, fd);
    record_release(rec);
}

// After the flush: the entry with the candidate. Returns 1 when it wrote
// one. The bit goes when nothing is left to write for the file.
unsigned write_candidate(uint32_t disk, uint32_t index, int fd) {
    TQvFileState* st = file_state(index);
    auto* rec = static_cast<TQvFileRec*>(record_at(index));
    unsigned written = 0;
    if (st != nullptr && rec != nullptr && usable_state(*st, disk)) {
        ProcLockGuard file(st->fileLock);
        if (shared_load(st->candidate) != 0) {
            TQvBlkSliceInfo entry;
            std::memcpy(&entry, &rec->slice, sizeof entry);
            entry.dataEnd = st->candEnd;
            entry.endTime = st->candTime;
            if (bf::put_sector(&entry, fd, disk, int32_t(st->blkId), st->blkAddr + entry.sliceID * bf::kSector) == 0)
                written = 1;
            shared_store(st->candidate, 0u);
        }
        if (shared_load(st->pending) == 0) clear_bit(disk, index);
    } else if (st != nullptr && !usable_state(*st, disk)) {
        clear_bit(disk, index);
    }
    record_release(rec);
    return written;
}

}  // namespace

unsigned flush_pass(uint32_t disk, int fd, int phase) {
    TQvDiskState* ds = disk_state(disk);
    if (ds == nullptr) return 0;
    unsigned written = 0;
    for (uint32_t w = 0; w < kWords; ++w) {
        uint64_t bits = shared_load(ds->pendingFiles[w]);
        while (bits != 0) {
            const uint32_t index = w * 64 + uint32_t(__builtin_ctzll(bits));
            bits &= bits - 1;
            if (phase == disk::kBeforeFlush) take_candidate(disk, index, fd);
            else written += write_candidate(disk, index, fd);
        }
    }
    return written;
}

void note_loaded(TQvFileHandle* h) {
    TQvFileState* st = state_of(h);
    if (st == nullptr || h->blkFile == nullptr || h->blkFile->share == nullptr) return;
    const TQvBlkShare& b = *h->blkFile->share;
    st->fileLock = h->lockId;
    st->blkLock = h->blkFile->lock;
    st->disk = b.diskId;
    st->blkId = b.blkId;
    st->blkShare = b.shareIndex;
    st->blkAddr = b.blkAddr;
    st->blkType = b.header.dataType;
    shared_store(st->loaded, 1u);
}

bool slice_loaded(const TQvFileHandle* h) {
    const TQvFileState* st = state_of(h);
    return st != nullptr && shared_load(st->loaded) == 1;
}

void reset_state(const TQvFileRec* rec) {
    if (TQvFileState* st = rec == nullptr ? nullptr : file_state(uint32_t(rec->shareIndex))) {
        std::memset(static_cast<void*>(st), 0, sizeof *st);
        st->fileLock = -1;
        st->blkLock = -1;
    }
}

void note_growth(TQvFileHandle* h) {
    TQvFileState* st = state_of(h);
    TQvDiskState* ds = st == nullptr ? nullptr : disk_state(st->disk);
    if (ds == nullptr || shared_load(st->loaded) != 1) {
        // Without the shared state the entry is stored at once.
        bf_Sync(&h->rec->slice, h->blkFile);
        return;
    }
    if (shared_load(st->pending) != 0) return;
    shared_store(st->pending, 1u);
    const uint32_t index = uint32_t(h->rec->shareIndex);
    __atomic_or_fetch(&ds->pendingFiles[index / 64], uint64_t{1} << (index % 64), __ATOMIC_ACQ_REL);
    df_SetSyncMark(st->disk, 1);
}

bool entry_lags(const TQvFileHandle* h) {
    const TQvFileState* st = state_of(h);
    return st != nullptr && (shared_load(st->pending) != 0 || shared_load(st->candidate) != 0);
}

int store_entry(TQvFileHandle* h) {
    const int result = bf_Sync(&h->rec->slice, h->blkFile);
    if (result == 0) {
        if (TQvFileState* st = state_of(h)) {
            shared_store(st->pending, 0u);
            shared_store(st->candidate, 0u);
        }
    }
    return result;
}

int sync_durable(TQvFileHandle* h) {
    if (h == nullptr || h->rec == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(h->lockId);
    // The data first, then the entry and header that cover it.
    if (bf::flush_block_device(h->blkFile) != 0) {
        errno += QVFS_ERR_SYS;
        return -1;
    }
    const int result = store_entry(h);
    if (result != 0) return result;
    if (bf::flush_block_device(h->blkFile) != 0) {
        errno += QVFS_ERR_SYS;
        return -1;
    }
    return 0;
}

}  // namespace qvfs::file
