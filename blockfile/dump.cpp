// dump.cpp - the block-file layer's debug dump: one row per block handle of
// the calling process, followed by the disk layer's dump.
#include <cstdio>
#include <cstring>

#include "blockfile/bf.h"
#include "proc_lock.h"

using namespace qvfs;
using namespace qvfs::bf;

extern "C" {

QVFS_API int bf_GetDebugInfo(char* text, int size) {
    if (text == nullptr || size < 120) return 0;
    int n = std::snprintf(text, size_t(size),
                          "==============QVBLOCK===========\n"
                          "blkidx\tFd\terrno\tichan\tdiskid\tblkid\tInRef\tShrRef\tblkaddr\n");
    if (n >= size) return n;
    for (uint32_t i = 0; i < kBlkTableSize; ++i) {
        // Copy the slot under the table lock, format outside it.
        TQvBlkRec h;
        TQvBlkShare rec;
        {
            ProcLockGuard tableLock(g_tBlkFileMutex);
            const TQvBlkRec* p = table_entry(i);
            if (p == nullptr || p->share == nullptr) continue;
            h = *p;
            std::memcpy(&rec, p->share, sizeof rec);
        }
        n += std::snprintf(text + n, size_t(size - n), "%d\t%d\t%d\t%d\t%d\t%x\t%d\t%d\t%lld\n",
                           int(h.blkIdx), h.fd, h.errNo, int(rec.header.chn), int(rec.diskId),
                           rec.blkId, h.inRef, rec.shrRef, static_cast<long long>(rec.blkAddr));
        if (n >= size) return n;
    }
    return n + df_GetDebugInfo(text + n, size - n);
}

}  // extern "C"
