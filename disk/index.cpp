// index.cpp - the block index of a disk: which blocks hold which channel's
// recordings of which type over which time, kept in a segment of the disk's
// own so that every process answers from memory (layout in common/state.h).
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "disk/df.h"
#include "keys.h"
#include "proc_lock.h"
#include "reason.h"
#include "state.h"

namespace qvfs::disk {
namespace {

struct TQvBlkIndex {
    TQvBlkIndexHead head;
    TQvBlkIndexEntry entry[1];  // head.blocks of them
};

// This process's attachments. Set under the disk's lock; read without it by
// header writes. An attachment stays for the life of the process (a header
// write of another thread may be using it), except when the disk changed
// size under it.
std::atomic<TQvBlkIndex*> g_index[QVFS_MAX_DISKS];

std::size_t index_bytes(uint32_t blocks) {
    return sizeof(TQvBlkIndexHead) + std::size_t(blocks) * sizeof(TQvBlkIndexEntry);
}

int index_key(uint32_t disk) {
    char path[kKeyPathSize];
    std::snprintf(path, sizeof path, kLayerKeyFormat, QVFS_KEY_DIR);
    return fsc_GetShareKey(path, kProjDiskSegment0 + static_cast<int>(disk));
}

// The disk's segment of `blocks` entries, attached; a segment of another
// size (the disk was formatted anew) is removed first. Null when the system
// refuses (errno + 3000).
TQvBlkIndex* attach(uint32_t disk, uint32_t blocks) {
    const int key = index_key(disk);
    if (key == -1) return nullptr;
    const std::size_t bytes = index_bytes(blocks);
    int id = shmget(key, 0, 0666);
    if (id >= 0) {
        shmid_ds ds{};
        if (shmctl(id, IPC_STAT, &ds) != 0 || ds.shm_segsz != bytes) {
            shmctl(id, IPC_RMID, nullptr);
            id = -1;
        }
    }
    if (id < 0) id = shmget(key, bytes, IPC_CREAT | 0666);
    void* p = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) {
        errno += QVFS_ERR_SYS;
        return nullptr;
    }
    return static_cast<TQvBlkIndex*>(p);
}

void fill_entry(TQvBlkIndexEntry& e, const BlockHeadView& h) {
    shared_store(e.chn, h.chn);
    shared_store(e.type, h.dataType);
    shared_store(e.cnt, h.cnt);
    shared_store(e.startTime, h.startTime);
    shared_store(e.endTime, h.endTime);
}

// Reads the header of every block in use into the entries. Caller holds
// the disk lock. A header that cannot be read leaves its entry empty (the
// block reads as holding nothing) and the index unbuilt, to be tried again.
void build(const TQvDiskRec& d, TQvBlkIndex& x, uint32_t blocks) {
    const TQvDiskShare& s = *d.share;
    bool complete = true;
    uint8_t sector[kBlockHeadSize];
    for (uint32_t b = 0; b < blocks; ++b) {
        TQvBlkIndexEntry& e = x.entry[b];
        std::memset(static_cast<void*>(&e), 0, sizeof e);
        if (s.map[b] != QV_BLK_USED) continue;
        if (!get_piece(d.fd, block_addr(s.head, b), sector, kBlockHeadSize)) {
            complete = false;
            continue;
        }
        fill_entry(e, parse_block_head(sector));
    }
    std::memcpy(x.head.magic, kBlkIndexMagic, sizeof kBlkIndexMagic);
    x.head.version = kBlkIndexVersion;
    x.head.blocks = blocks;
    shared_store(x.head.built, complete ? 1u : 0u);
}

bool current(const TQvBlkIndex& x, uint32_t blocks) {
    return std::memcmp(x.head.magic, kBlkIndexMagic, sizeof kBlkIndexMagic) == 0 &&
           x.head.version == kBlkIndexVersion && x.head.blocks == blocks && shared_load(x.head.built) == 1;
}

// The entry of a block of an attached index, or null.
TQvBlkIndexEntry* entry_of(uint32_t disk, uint32_t block) {
    if (disk >= QVFS_MAX_DISKS) return nullptr;
    TQvBlkIndex* x = g_index[disk].load(std::memory_order_acquire);
    if (x == nullptr || block >= x->head.blocks) return nullptr;
    return &x->entry[block];
}

}  // namespace

int index_mount(TQvDiskRec& d, uint32_t disk, bool fresh) {
    if (disk >= QVFS_MAX_DISKS || d.share == nullptr) return -1;
    const uint32_t blocks = map_blocks(d.share->head);
    TQvBlkIndex* x = g_index[disk].load(std::memory_order_acquire);
    if (x == nullptr || x->head.blocks != blocks) {
        // Only a disk formatted anew to another size gets here with an
        // attachment, and no transfer of this process uses that disk.
        if (x != nullptr) shmdt(x);
        x = attach(disk, blocks);
        g_index[disk].store(x, std::memory_order_release);
        if (x == nullptr) return -1;
    }
    if (fresh || !current(*x, blocks)) build(d, *x, blocks);
    return 0;
}

void index_invalidate(uint32_t disk) {
    TQvBlkIndex* x = disk < QVFS_MAX_DISKS ? g_index[disk].load(std::memory_order_acquire) : nullptr;
    if (x != nullptr) {
        shared_store(x->head.built, 0u);
        return;
    }
    // Another process's index of the disk, if there is one.
    const int key = disk < QVFS_MAX_DISKS ? index_key(disk) : -1;
    const int id = key == -1 ? -1 : shmget(key, 0, 0666);
    if (id >= 0) shmctl(id, IPC_RMID, nullptr);
}

void index_note_alloc(uint32_t disk, uint32_t block, uint32_t chn, uint32_t type) {
    if (TQvBlkIndexEntry* e = entry_of(disk, block)) {
        fill_entry(*e, BlockHeadView{0, 0, 0, chn, type, 0, 0, 0});
    }
}

void index_note_head(uint32_t disk, int32_t block, const void* sector) {
    if (block < 0) return;
    if (TQvBlkIndexEntry* e = entry_of(disk, static_cast<uint32_t>(block)))
        fill_entry(*e, parse_block_head(static_cast<const uint8_t*>(sector)));
}

}  // namespace qvfs::disk

using namespace qvfs;
using namespace qvfs::disk;

extern "C" {

int df_FindBlocks(const char* path, uint32_t chn, uint32_t type, int64_t from, int64_t to, TQvDiskBlkInfo* out,
                  int32_t max) {
    TQvDiskRec* disk = rec_of_path(path);
    if (disk == nullptr || max < 0 || (max > 0 && out == nullptr)) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = *disk;
    const auto number = static_cast<uint32_t>(disk - g_astQvDisk);
    ProcLockGuard lock(d.lock);
    if (!is_ready(d)) {
        errno = QVFS_ERR_BADARG;
        why(QVFS_WHY_NOT_MOUNTED);
        return -1;
    }
    // A process that mounted before the index was dropped (a format by
    // another process) builds it again here.
    if (index_mount(d, number, false) != 0) return -1;
    const TQvBlkIndex& x = *g_index[number].load(std::memory_order_acquire);
    const TQvDiskShare& s = *d.share;

    // The `max` earliest matches by start time (then block), kept as a heap
    // whose top is the latest of them; the count of all matches returned.
    const auto earlier = [](const TQvDiskBlkInfo& a, const TQvDiskBlkInfo& b) {
        return a.startTime != b.startTime ? a.startTime < b.startTime : a.blkId < b.blkId;
    };
    int32_t found = 0, kept = 0;
    for (uint32_t b = 0; b < x.head.blocks; ++b) {
        if (s.map[b] != QV_BLK_USED) continue;
        const TQvBlkIndexEntry& e = x.entry[b];
        if ((chn != QVFS_ANY_CHANNEL && shared_load(e.chn) != chn) || (type != QVFS_ANY_BLK_TYPE && shared_load(e.type) != type))
            continue;
        // A block whose files hold no data yet has no end time: it may
        // reach as far as its files' starts, which the header does not keep.
        const auto start = static_cast<int64_t>(shared_load(e.startTime));
        const uint64_t endTime = shared_load(e.endTime);
        const int64_t end = endTime == 0 ? INT64_MAX : std::max(start, static_cast<int64_t>(endTime));
        if (shared_load(e.cnt) == 0 || start > to || end < from) continue;
        ++found;
        if (max == 0) continue;
        TQvDiskBlkInfo r{};
        r.blkId = b;
        r.startTime = uint64_t(start);
        r.endTime = shared_load(e.endTime);
        r.cnt = shared_load(e.cnt);
        r.fileType = static_cast<uint32_t>(fsc_BlkType2FileType(static_cast<int>(shared_load(e.type))));
        if (kept < max) {
            out[kept++] = r;
            std::push_heap(out, out + kept, earlier);
        } else if (earlier(r, out[0])) {
            std::pop_heap(out, out + kept, earlier);
            out[kept - 1] = r;
            std::push_heap(out, out + kept, earlier);
        }
    }
    std::sort_heap(out, out + kept, earlier);
    return found;
}

}  // extern "C"
