// lifecycle.cpp - start and stop of the library in a process, options and
// the per-handle error query.
#include <unistd.h>

#include "api/handle_table.h"
#include "disk/df.h"
#include "platform.h"
#include "proc_lock.h"

extern "C" {
// Build stamp; nothing in the library reads it.
QVFS_API const char* g_pcSvnVersion = "SVN_VERSION:106294    END";
}

namespace qvfs::api {
std::atomic<int32_t> g_initialised{0};
}  // namespace qvfs::api

using namespace qvfs::api;
using qvfs::MutexGuard;

namespace {
// Serialises qvfs_Init; g_initPid is the process that last started the
// library (guarded by g_initMutex).
pthread_mutex_t g_initMutex = PTHREAD_MUTEX_INITIALIZER;
pid_t g_initPid = 0;
}  // namespace

extern "C" {

int qvfs_Init(void) {
    // A second call in a started process changes nothing: its handles stay
    // valid and the layers keep their tables. A forked child inherits the
    // flag but not the threads, and starts the library afresh; so does a
    // process whose shared locks were removed under it (its state is gone).
    MutexGuard once(g_initMutex);
    const pid_t self = getpid();
    if (g_initialised.load(std::memory_order_acquire) == 1 && g_initPid == self && qvfs::lock_exists(g_qvFileMutex))
        return 0;
    // A key directory that cannot be made is not reported here: the key
    // files cannot be created then, and the layers' key calls fail below or
    // later with the system's code.
    if (!qvfs::plat::dir_exists(QVFS_KEY_DIR)) qvfs::plat::make_dirs(QVFS_KEY_DIR);

    reset_table();
    // Hooks registered before this point are dropped on purpose: the layers
    // must start with the system allocator.
    qvfs_InitAllocatorInterface();

    const int r = tf_Init();
    if (r != 0) {
        errno = QVFS_ERR_INITFAILED;
        return r;
    }
    // The task device may be missing (no driver): the task check then falls
    // back to its own sweep, and the library works all the same.
    tc_Init();
    g_initPid = self;
    g_initialised.store(1, std::memory_order_release);
    return 0;
}

void qvfs_DeInit(void) {
    if (g_initialised.load(std::memory_order_acquire) != 1) return;
    // One thread, no other users: the slots cannot change under the walk.
    // The handle lock and the table mutex are taken one after the other.
    for (uint32_t slot = 0; slot < kSlots; ++slot) {
        TQvfsHandle* h = slot_record(slot);
        if (h == nullptr) continue;
        {
            MutexGuard own(h->lock);
            if (h->rwflag & kCanWrite) tf_SyncFile(h->file);
            tf_CloseFile(h->file);
            h->file = nullptr;
        }
        release_handle(h);
    }
}

int qvfs_SetOpt(uint64_t options) {
    if (!initialised()) return -1;
    int result = -1;
    for (unsigned bit = 0; bit < 64; ++bit) {
        if (((options >> bit) & 1u) == 0) continue;
        if ((uint64_t{1} << bit) == QVFS_OPT_NO_ONLINE_CHECK) {
            result = df_SetOnlineCheck(0);
        } else {
            errno = QVFS_ERR_BADHANDLE;  // unknown option; the others still apply
        }
    }
    return result;
}

int qvfs_SetMainTask(void) { return tc_SetMainTask(); }

const char* qvfs_Version(void) { return QVFS_VERSION_TEXT; }

int qvfs_LastReason(void) { return qvfs::t_reason; }

int qvfs_error(int handle) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return 0;
    MutexGuard own(h->lock);
    return h->errNo;
}

}  // extern "C"
