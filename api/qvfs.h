/*
 * qvfs.h - public interface of the qvfs recording file system.
 *
 * Compiles as C99 and as C++. Every call returns -1 (or the value its comment
 * names) on failure and leaves a code of qvfs_types.h in errno.
 */
#ifndef QVFS_H
#define QVFS_H

#include "qvfs_types.h"

QVFS_EXTERN_C_BEGIN

/* ---- allocator, I/O hooks and small helpers ----------------------------- */

/* Resets both allocator hooks to the system allocator. Returns 0. */
QVFS_API int qvfs_InitAllocatorInterface(void);
/* Replaces both allocator hooks; a null pointer for either changes nothing.
 * Hooks registered before qvfs_Init are dropped by it. Returns 0. */
QVFS_API int qvfs_RegistAllocatorInterface(QvfsAllocFn allocHook, QvfsFreeFn freeHook);
QVFS_API void* qvfs_Malloc(uint32_t size);
QVFS_API void qvfs_Free(void* p);
/* Formats seconds since the epoch as local "YYYY-MM-DD_hh:mm:ss".
 * Returns the length written, 0 when it does not fit. */
QVFS_API int qvfs_GetTimeString(uint32_t seconds, char* buf, uint32_t size);

QVFS_EXTERN_C_END

#endif /* QVFS_H */
