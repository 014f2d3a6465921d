// dump.cpp - the debug dump of the process's file table.
#include <cstdio>
#include <cstring>

#include "common/proc_lock.h"
#include "file/tf_internal.h"

using namespace qvfs;
using namespace qvfs::file;

namespace {
constexpr int kMinDumpSize = 140;
}

int tf_GetDebugInfo(char* buf, int size) {
    if (buf == nullptr || size < kMinDumpSize) return 0;
    int count = std::snprintf(buf, size_t(size),
                              "=================QVFILE==============\nfileid\terrno\tfilename\t\t\tInRef"
                              "\tShrRef\t StartAddr\t   EndAddr\t  preStart\t    preEnd\n");
    if (count >= size) return count;
    for (uint32_t i = 0; i < kFileTableSize; ++i) {
        // Copy under the lock, format outside it: each row is consistent for
        // its file, the rows together need not be.
        TQvFileHandle h;
        TQvFileRec rec;
        {
            ProcLockGuard table(g_qvFileMutex);
            TQvFileHandle* p = table_entry(i);
            if (p == nullptr) continue;
            h = *p;
            if (p->rec != nullptr) std::memcpy(&rec, p->rec, sizeof rec);
            else std::memset(&rec, 0, sizeof rec);
        }
        rec.name[sizeof rec.name - 1] = '\0';
        count += std::snprintf(buf + count, size_t(size - count),
                               "%d\t%d\t%s\t%d\t%d\t%10lld\t%10lld\t%10lld\t%10lld\n", int(h.index), h.errNo,
                               rec.name, h.inRef, rec.shrRef, (long long)rec.slice.dataStart,
                               (long long)rec.slice.dataEnd, (long long)rec.slice.resStart,
                               (long long)rec.slice.resEnd);
        if (count >= size) return count;
    }
    return count + bf_GetDebugInfo(buf + count, size - count);
}
