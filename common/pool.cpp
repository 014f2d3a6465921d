// pool.cpp - System V keys, the owner list, the record pool and the
// find-or-create calls for shared file, block-file and disk records.
//
// A shared record exists from the allocate call that registers its owner key
// in the owner list until the free call of its last user: the owner slot is
// the record's existence. The first 512 file and 512 block-file records live
// in one pool segment that each process attaches once; the rest, and every
// disk record, live in a segment of their own named by their share key.
//
// The pool takes no lock of its own. Callers hold the table lock of the
// record kind while they allocate or free: g_qvFileMutex for file records,
// g_tBlkFileMutex for block-file records, the disk's lock for a disk record.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "keys.h"
#include "platform.h"
#include "state.h"
#include "reason.h"

TQvfsFileList* g_stQvfsFileList = nullptr;
void* g_stQvfsShrPool = nullptr;

namespace {

using namespace qvfs;

// Key cache: the low 24 bits (device and inode part) of the ftok key of each
// share key file, 0 while unknown. Threads may fill an entry at the same time;
// they store the same value, so relaxed atomics are enough.
std::array<std::atomic<uint32_t>, kKeyCacheEntries> g_keyCache{};

// Share table: one entry per disk, written by fsc_DfMalloc under the disk's
// lock, read by the debug dump.
std::array<ShareEntry, QVFS_MAX_DISKS> g_shareTable{};

// One kind of pool-managed record (file or block-file).
struct RecordKind {
    uint32_t firstIndex;  // share index of slot 0
    uint32_t size;        // record size in bytes
    uint32_t poolOffset;  // where slot 0 lives in the record pool
    std::size_t shrRefOff;
    std::size_t indexOff;
    int fullReason;  // what the caller is told when every slot is in use
};

constexpr RecordKind kFileKind{kFileIndexBase, QVFS_FILE_REC_SIZE, kPoolFileOffset, kFileRecShrRefOff,
                               kFileRecIndexOff, QVFS_WHY_FILES_FULL};
constexpr RecordKind kBlkFileKind{kBlkFileIndexBase, QVFS_BLKFILE_REC_SIZE, kPoolBlkFileOffset,
                                  kBlkRecShrRefOff, kBlkRecIndexOff, QVFS_WHY_NONE};

// Owner slot i: the low 32-bit word, then the high word.
uint64_t owner_of(uint32_t index) {
    const uint32_t lo = g_stQvfsFileList->owner[index][0];
    const uint32_t hi = g_stQvfsFileList->owner[index][1];
    return (static_cast<uint64_t>(hi) << 32) | lo;
}

void set_owner(uint32_t index, uint64_t ownerKey) {
    g_stQvfsFileList->owner[index][0] = static_cast<uint32_t>(ownerKey);
    g_stQvfsFileList->owner[index][1] = static_cast<uint32_t>(ownerKey >> 32);
}

unsigned char* pool_bytes() { return static_cast<unsigned char*>(g_stQvfsShrPool); }

void* pool_record(const RecordKind& k, uint32_t slot) {
    return pool_bytes() + k.poolOffset + static_cast<std::size_t>(slot) * k.size;
}

bool in_pool(const void* p) {
    if (g_stQvfsShrPool == nullptr) return false;
    auto a = reinterpret_cast<uintptr_t>(p);
    auto b = reinterpret_cast<uintptr_t>(g_stQvfsShrPool);
    return a >= b && a - b < QVFS_SHR_POOL_SIZE;
}

// Attaches (creating if needed) the own segment of a share index.
void* attach_index(uint32_t index, uint32_t size, int* shmId = nullptr, int* keyOut = nullptr) {
    int key = fsc_GetShmKey(static_cast<int>(index));
    if (keyOut != nullptr) *keyOut = key;
    if (key == -1) return nullptr;
    return fsc_MallocV2(key, size, nullptr, shmId);
}

// Removes the own segment of a share index from the system (it vanishes when
// the last process detaches). Each step needs the one before.
void remove_index_segment(uint32_t index) {
    int key = fsc_GetShmKey(static_cast<int>(index));
    if (key == -1) return;
    int id = shmget(key, 0, 0666);
    if (id < 0) return;
    shmctl(id, IPC_RMID, nullptr);
}

void* record_malloc(const RecordKind& k, uint64_t ownerKey, uint32_t size) {
    if (size != k.size || ownerKey == 0) {
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    if (g_stQvfsFileList == nullptr || g_stQvfsShrPool == nullptr) {
        errno = QVFS_ERR_BADARG;
        return nullptr;
    }

    // The slot that holds the owner key, else the lowest free slot before it.
    int freeSlot = -1;
    for (uint32_t s = 0; s < kSlotsPerKind; ++s) {
        const uint64_t owner = owner_of(k.firstIndex + s);
        if (owner == ownerKey) {
            if (s < kPoolSlotsPerKind) return pool_record(k, s);
            if (void* rec = attach_index(k.firstIndex + s, k.size)) return rec;
            break;  // its segment is gone: register anew in a free slot
        }
        if (owner == 0 && freeSlot < 0) freeSlot = static_cast<int>(s);
    }
    if (freeSlot < 0) {  // all slots of this kind in use: no code, only the reason
        if (k.fullReason != QVFS_WHY_NONE) why(k.fullReason);
        return nullptr;
    }

    const uint32_t slot = static_cast<uint32_t>(freeSlot);
    const uint32_t index = k.firstIndex + slot;
    void* rec;
    if (slot < kPoolSlotsPerKind) {
        // A pool record keeps its old bytes after a free: clear it on reuse.
        rec = pool_record(k, slot);
        std::memset(rec, 0, k.size);
    } else {
        // A new segment starts zero-filled; an existing one is taken as it is.
        rec = attach_index(index, k.size);
        if (rec == nullptr) return nullptr;
    }
    rec_put_u32(rec, k.indexOff, index);
    set_owner(index, ownerKey);
    return rec;
}

void record_free(const RecordKind& k, void* rec) {
    if (rec == nullptr) return;
    const uint32_t index = rec_u32(rec, k.indexOff);
    const int32_t shrRef = rec_i32(rec, k.shrRefOff);

    // Only a record of this kind, at the place its share index names, is
    // accepted: anything else would free or detach someone else's memory.
    if (index < k.firstIndex || index - k.firstIndex >= kSlotsPerKind) {
        errno = QVFS_ERR_BADHANDLE;
        return;
    }
    const uint32_t slot = index - k.firstIndex;
    const bool poolResident = slot < kPoolSlotsPerKind;
    if (poolResident ? (g_stQvfsShrPool == nullptr || rec != pool_record(k, slot)) : in_pool(rec)) {
        errno = QVFS_ERR_BADHANDLE;
        return;
    }

    if (shrRef >= 1) {
        // Other processes still use it: only this process's mapping goes.
        if (!poolResident) shmdt(rec);
        return;
    }

    // The last user: the record stops existing.
    if (g_stQvfsFileList == nullptr) {
        errno = QVFS_ERR_BADARG;
        if (!poolResident) shmdt(rec);
        return;
    }
    if (!poolResident) {
        if (shmdt(rec) != 0) {
            errno = QVFS_ERR_BADHANDLE;  // not a segment this process attached
            return;
        }
        remove_index_segment(index);
    }
    set_owner(index, 0);
}

}  // namespace

// ---- keys -------------------------------------------------------------------

int fsc_GetShareKey(const char* path, int projId) {
    if (path == nullptr || path[0] == '\0') {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (projId < 1 || projId > 255) {
        errno = QVFS_ERR_PROJID;
        return -1;
    }
    int key = plat::ftok(path, projId);
    if (key >= 0) return key;
    // The key file is missing: make it empty and ask again.
    plat::create_key_file(path);
    key = plat::ftok(path, projId);
    if (key >= 0) return key;
    errno += QVFS_ERR_SYS;
    return -1;
}

int fsc_GetShmKey(int shareIndex) {
    if (shareIndex < 0 || shareIndex > static_cast<int>(kMaxShareIndex)) return -1;
    const int file = shareIndex / kIndexesPerKeyFile;
    const uint32_t proj = static_cast<uint32_t>(shareIndex % kIndexesPerKeyFile) + 1;

    // ftok keeps the project number in bits 24..31 and the file's identity in
    // bits 0..23, so one cached identity serves all 126 indexes of a file.
    const uint32_t cached = g_keyCache[file].load(std::memory_order_relaxed);
    if (cached != 0) return static_cast<int>(cached | (proj << 24));

    char path[kKeyPathSize];
    std::snprintf(path, sizeof path, kShareKeyFormat, QVFS_KEY_DIR, file);
    const int key = fsc_GetShareKey(path, static_cast<int>(proj));
    if (key == -1) return -1;
    g_keyCache[file].store(static_cast<uint32_t>(key) & 0x00FFFFFFu, std::memory_order_relaxed);
    return key;
}

// ---- segments -----------------------------------------------------------------

void* fsc_MallocV2(int key, uint32_t size, int* created, int* shmId) {
    int id = shmget(key, 0, 0666);  // an existing segment, whatever its size
    if (id < 0) {
        id = shmget(key, size, IPC_CREAT | 0666);
        if (id < 0) {
            errno += QVFS_ERR_SYS;
            return nullptr;
        }
        if (created != nullptr) *created = 1;
    }
    if (shmId != nullptr) *shmId = id;
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        errno += QVFS_ERR_SYS;
        return nullptr;
    }
    return addr;
}

int fsc_ShareInit(void) {
    char path[kKeyPathSize];
    layer_key_path(path);
    int result = 0;

    if (g_stQvfsFileList == nullptr) {
        const int key = fsc_GetShareKey(path, kProjFileList);
        if (key == -1) {
            result = -1;
        } else {
            int created = 0;
            auto* list = static_cast<TQvfsFileList*>(fsc_MallocV2(key, QVFS_FILE_LIST_SIZE, &created, nullptr));
            if (list == nullptr) {
                result = -1;
            } else {
                // The online check starts switched on; only the creator sets it,
                // so a process that switched it off is not overruled later.
                if (created) __atomic_store_n(&list->param1, uint8_t{1}, __ATOMIC_RELAXED);
                g_stQvfsFileList = list;
            }
        }
    }

    if (g_stQvfsShrPool == nullptr) {
        const int key = fsc_GetShareKey(path, kProjShrPool);
        if (key == -1)
            result = -1;
        else
            g_stQvfsShrPool = fsc_MallocV2(key, QVFS_SHR_POOL_SIZE, nullptr, nullptr);
    }
    // The library's own shared state; its absence does not fail the start
    // (the features that need it check for it).
    state_attach();
    return result;
}

// ---- records ---------------------------------------------------------------------

void* fsc_TfMalloc(uint64_t ownerKey, uint32_t size) { return record_malloc(kFileKind, ownerKey, size); }

void* fsc_BfMalloc(uint64_t ownerKey, uint32_t size) { return record_malloc(kBlkFileKind, ownerKey, size); }

void fsc_TfFree(void* record) { record_free(kFileKind, record); }

void fsc_BfFree(void* record) { record_free(kBlkFileKind, record); }

void* fsc_DfMalloc(uint64_t ownerKey, uint32_t size) {
    if (size != QVFS_DISK_REC_SIZE || ownerKey == 0) {
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    if (g_stQvfsFileList == nullptr || g_stQvfsShrPool == nullptr) {
        errno = QVFS_ERR_BADARG;
        return nullptr;
    }
    const uint32_t disk = static_cast<uint32_t>(ownerKey >> 40) & 0xFFu;
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_DISKNUM;
        return nullptr;
    }
    const uint32_t index = kDiskIndexBase + disk;
    const int key = fsc_GetShmKey(static_cast<int>(index));
    if (key == -1) return nullptr;

    int id = -1;
    void* rec = fsc_MallocV2(key, QVFS_DISK_REC_SIZE, nullptr, &id);
    if (owner_of(index) == ownerKey) {
        // Registered already: just this process's attachment.
        g_shareTable[disk] = ShareEntry{id, static_cast<uint32_t>(key), rec};
        return rec;
    }
    if (rec == nullptr) return nullptr;
    rec_put_u32(rec, kDiskRecShmNoOff, index);
    rec_put_u32(rec, kDiskRecMapIndexOff, 0);
    rec_put_u32(rec, kDiskRecStatOff, 1);
    rec_put_u32(rec, kDiskRecMountedOff, 0);
    g_shareTable[disk] = ShareEntry{id, static_cast<uint32_t>(key), rec};
    set_owner(index, ownerKey);
    return rec;
}

void fsc_DfFree(void* record) {
    if (record == nullptr) return;
    const uint32_t index = rec_u32(record, kDiskRecShmNoOff);
    if (index < kDiskIndexBase || index > kMaxShareIndex) {
        errno = QVFS_ERR_BADHANDLE;
        return;
    }
    if (g_stQvfsFileList == nullptr) {
        errno = QVFS_ERR_BADARG;
        return;
    }
    // No reference count: the disk layer frees the record only when the
    // disk's image is to go for every process.
    if (shmdt(record) != 0) {
        errno = QVFS_ERR_BADHANDLE;
        return;
    }
    remove_index_segment(index);
    set_owner(index, 0);
}

void* fsc_TfGetFileInfo(uint32_t shareIndex) {
    if (g_stQvfsFileList == nullptr || g_stQvfsShrPool == nullptr) {
        errno = QVFS_ERR_BADARG;
        return nullptr;
    }
    if (shareIndex >= kSlotsPerKind) {
        errno = QVFS_ERR_BADHANDLE;
        return nullptr;
    }
    if (owner_of(shareIndex) == 0) return nullptr;
    if (shareIndex < kPoolSlotsPerKind) return pool_record(kFileKind, shareIndex);
    return attach_index(shareIndex, QVFS_FILE_REC_SIZE);
}

int fsc_GetDebugInfo(char* buf, int size) {
    if (buf == nullptr || size < 100) return 0;
    int len = std::snprintf(buf, static_cast<std::size_t>(size),
                            "===========Share Mem============\nindex\tid\tkey\t\tpointer\n");
    if (len >= size) return len;
    for (int d = 0; d < QVFS_MAX_DISKS; ++d) {
        const ShareEntry& e = g_shareTable[d];
        if (e.id == 0 && e.key == 0 && e.addr == nullptr) continue;
        len += std::snprintf(buf + len, static_cast<std::size_t>(size - len), "%d\t%d\t0x%x\t%p\n", d, e.id,
                             e.key, e.addr);
        if (len >= size) return len;
    }
    return len;
}

// ---- internal helpers ---------------------------------------------------------------

namespace qvfs {

void layer_key_path(char (&buf)[kKeyPathSize]) {
    std::snprintf(buf, sizeof buf, kLayerKeyFormat, QVFS_KEY_DIR);
}

int layer_key(int projId) {
    char path[kKeyPathSize];
    layer_key_path(path);
    return fsc_GetShareKey(path, projId);
}

int record_lock_key(uint32_t shareIndex) {
    if (shareIndex > kMaxShareIndex) return -1;
    const int key = fsc_GetShmKey(static_cast<int>(shareIndex));
    if (key == -1) return -1;
    return static_cast<int>(static_cast<uint32_t>(key) + kRecordLockKeyOffset);
}

int32_t blkfile_record_refs(uint64_t ownerKey) {
    if (ownerKey == 0 || g_stQvfsFileList == nullptr || g_stQvfsShrPool == nullptr) return 0;
    for (uint32_t s = 0; s < kSlotsPerKind; ++s) {
        const uint32_t index = kBlkFileIndexBase + s;
        if (owner_of(index) != ownerKey) continue;
        if (s < kPoolSlotsPerKind) return rec_i32(pool_record(kBlkFileKind, s), kBlkRecShrRefOff);
        // Its own segment: looked up, never created.
        const int key = fsc_GetShmKey(static_cast<int>(index));
        const int id = key == -1 ? -1 : shmget(key, 0, 0);
        void* rec = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, SHM_RDONLY);
        if (rec == reinterpret_cast<void*>(-1)) return 0;  // registered, but its segment is gone
        const int32_t refs = rec_i32(rec, kBlkRecShrRefOff);
        shmdt(rec);
        return refs;
    }
    return 0;
}

void* record_at(uint32_t shareIndex) {
    if (g_stQvfsFileList == nullptr || g_stQvfsShrPool == nullptr || shareIndex >= kDiskIndexBase) return nullptr;
    if (owner_of(shareIndex) == 0) return nullptr;
    const bool file = shareIndex < kBlkFileIndexBase;
    const RecordKind& k = file ? kFileKind : kBlkFileKind;
    const uint32_t slot = shareIndex - k.firstIndex;
    if (slot < kPoolSlotsPerKind) return pool_record(k, slot);
    const int key = fsc_GetShmKey(static_cast<int>(shareIndex));
    const int id = key == -1 ? -1 : shmget(key, 0, 0);
    void* rec = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    return rec == reinterpret_cast<void*>(-1) ? nullptr : rec;
}

void record_release(void* rec) {
    if (rec != nullptr && !in_pool(rec)) shmdt(rec);
}

const ShareEntry& share_entry(int disk) {
    static const ShareEntry kNone{};
    if (disk < 0 || disk >= QVFS_MAX_DISKS) return kNone;
    return g_shareTable[disk];
}

void pool_reset_process_state() {
    if (g_stQvfsFileList != nullptr) shmdt(g_stQvfsFileList);
    if (g_stQvfsShrPool != nullptr) shmdt(g_stQvfsShrPool);
    g_stQvfsFileList = nullptr;
    g_stQvfsShrPool = nullptr;
    state_detach();
    for (auto& e : g_keyCache) e.store(0, std::memory_order_relaxed);
    g_shareTable.fill(ShareEntry{});
}

}  // namespace qvfs
