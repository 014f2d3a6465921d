// state.cpp - attaching the library's state segment.
#include "state.h"

#include <sys/shm.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "keys.h"

namespace qvfs {
namespace {

std::atomic<TQvfsState*> g_state{nullptr};

}  // namespace

int state_attach() {
    if (g_state.load(std::memory_order_acquire) != nullptr) return 0;
    const int key = layer_key(kProjState);
    if (key == -1) return -1;
    int created = 0;
    auto* s = static_cast<TQvfsState*>(fsc_MallocV2(key, sizeof(TQvfsState), &created, nullptr));
    if (s == nullptr) return -1;
    // The creator stamps the layout. Two first processes may both see
    // `created`; they write the same bytes. A process that attached an
    // existing segment still zero in its head found it before the creator
    // stamped it, and stamps it itself.
    if (created || s->head.version == 0) {
        s->head.version = kStateVersion;
        s->head.size = sizeof(TQvfsState);
        std::memcpy(s->head.magic, kStateMagic, sizeof kStateMagic);
    }
    if (std::memcmp(s->head.magic, kStateMagic, sizeof kStateMagic) != 0 || s->head.version != kStateVersion ||
        s->head.size != sizeof(TQvfsState)) {
        shmdt(s);
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    TQvfsState* expected = nullptr;
    if (!g_state.compare_exchange_strong(expected, s)) shmdt(s);  // another thread was first
    return 0;
}

TQvfsState* state() { return g_state.load(std::memory_order_acquire); }

TQvDiskState* disk_state(uint32_t disk) {
    TQvfsState* s = state();
    return (s == nullptr || disk >= QVFS_MAX_DISKS) ? nullptr : &s->disk[disk];
}

TQvBlkState* blk_state(uint32_t shareIndex) {
    TQvfsState* s = state();
    if (s == nullptr || shareIndex < kBlkFileIndexBase || shareIndex >= kBlkFileIndexBase + kSlotsPerKind)
        return nullptr;
    return &s->blk[shareIndex - kBlkFileIndexBase];
}

TQvFileState* file_state(uint32_t shareIndex) {
    TQvfsState* s = state();
    return (s == nullptr || shareIndex >= kSlotsPerKind) ? nullptr : &s->file[shareIndex];
}

void state_detach() {
    TQvfsState* s = g_state.exchange(nullptr);
    if (s != nullptr) shmdt(s);
}

}  // namespace qvfs
