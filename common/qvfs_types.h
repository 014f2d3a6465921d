/*
 * qvfs_types.h - records and codes that cross the library's interface.
 *
 * Plain C99, included by the public header api/qvfs.h and by every layer.
 * Every record whose bytes are shared (with another process, with a disk, or
 * with an application built for another target) is declared with fixed-width
 * types only; the C++ build checks each size and each field offset.
 * The layouts are those of the 32-bit ARM recorders and are kept identical on
 * 64-bit hosts.
 */
#ifndef QVFS_TYPES_H
#define QVFS_TYPES_H

#include <stdint.h>
#include <stddef.h>

#if defined(__GNUC__)
#define QVFS_API __attribute__((visibility("default")))
#else
#define QVFS_API
#endif

#ifdef __cplusplus
#define QVFS_EXTERN_C_BEGIN extern "C" {
#define QVFS_EXTERN_C_END }
#else
#define QVFS_EXTERN_C_BEGIN
#define QVFS_EXTERN_C_END
#endif

/* ------------------------------------------------------------------------
 * Error codes. A failing call returns -1 (or null, or the value its contract
 * names) and leaves one of these in errno. A failing system call is reported
 * as QVFS_ERR_SYS plus the system's errno value.
 * ---------------------------------------------------------------------- */
enum {
    QVFS_ERR_BADARG = 1001,       /* null pointer, empty name, disk above 24, no image, item too short */
    QVFS_ERR_BADHANDLE = 1002,    /* bad handle, record size, key, range, no free block, full table ... */
    QVFS_ERR_DISKNUM = 1003,      /* disk number out of range, path names no disk, negative block */
    QVFS_ERR_NOTFORMATTED = 1005, /* the disk header does not carry "QVFS" */
    QVFS_ERR_NOMEM = 1006,        /* the library allocator returned null */
    QVFS_ERR_PROJID = 1007,       /* key project number not in 1..255 */
    QVFS_ERR_OLDVERSION = 1009,   /* disk format version too old for the query */
    QVFS_ERR_INITFAILED = 1010,   /* qvfs_Init could not start the layers */
    QVFS_ERR_CHANNEL = 1011,      /* channel number 1024 or more */
    QVFS_ERR_BLOCKRANGE = 1012,   /* offset or length beyond the block size */
    QVFS_ERR_TOOMANYBLOCKS = 1013,/* the process already has 1024 blocks loaded */
    QVFS_ERR_DAMAGED = 1014,      /* disk metadata that breaks the format's rules or does not fit
                                     the device: damaged header or file entry, truncated device */
    QVFS_ERR_NOTBAD = 1020,       /* the block is not marked bad */
    QVFS_ERR_FMT_NOSHARE = 4001,  /* format: the disk's shared image could not be obtained */
    QVFS_ERR_FMT_TOOSMALL = 4004, /* format: device or requested size too small */
    QVFS_ERR_NOTINIT = -1010,     /* the library is not initialised in this process */
    QVFS_ERR_SYS = 3000           /* plus the system errno of a failed system call */
};

/* ------------------------------------------------------------------------
 * Reasons (qvfs_LastReason). The codes above are few and shared by many
 * causes (1001 is the answer of every failed open); a reason names the one
 * cause of a calling thread's last failure, for messages and for deciding
 * what to do next (mount the disk, free space, close handles, open another
 * file). qvfs_ErrorString gives words for them.
 * ---------------------------------------------------------------------- */
enum {
    QVFS_WHY_NONE = 0,                /* the last call succeeded, or gave no more than its code */
    QVFS_WHY_NOT_INIT = 1101,         /* qvfs_Init has not run in this process */
    QVFS_WHY_NOT_MOUNTED = 1102,      /* the disk is not mounted (or not a disk path) */
    QVFS_WHY_DISK_FULL = 1103,        /* no free block for the channel's new block */
    QVFS_WHY_CHANNEL = 1104,          /* channel 1024 or above */
    QVFS_WHY_HANDLES_FULL = 1105,     /* all 1024 handles of this process are open */
    QVFS_WHY_FILES_FULL = 1106,       /* all 1024 shared file records are in use (system-wide) */
    QVFS_WHY_NO_SUCH_FILE = 1107,     /* the name is well formed but names no live file */
    QVFS_WHY_BAD_NAME = 1108,         /* not a file name this library gives out */
    QVFS_WHY_FILE_OPEN = 1109,        /* the file is open (in this or another process) */
    QVFS_WHY_BAD_HANDLE = 1110,       /* the handle is not open (closed, stale or never given) */
    QVFS_WHY_NOT_WRITABLE = 1111,     /* the handle was opened read-only */
    QVFS_WHY_NOT_READABLE = 1112,     /* the handle was opened write-only */
    QVFS_WHY_BAD_EXTENSION = 1113,    /* extension empty, 8 characters or more, or not printable */
    QVFS_WHY_BAD_RESERVE = 1114,      /* pre-record size negative or larger than a block's data area */
    QVFS_WHY_BLOCK_FULL = 1115,       /* the block has no room left for this file's bytes */
    QVFS_WHY_DAMAGED = 1116,          /* the file's entry or the disk's metadata is damaged */
    QVFS_WHY_IO = 1117                /* the device failed a transfer (the block is marked bad) */
};

/* Replaceable allocator hooks (qvfs_RegistAllocatorInterface). */
typedef void* (*QvfsAllocFn)(uint32_t size);
typedef void (*QvfsFreeFn)(void* p);

/* Fixed limits. */
#define QVFS_MAX_DISKS 25
#define QVFS_MAX_CHANNELS 1024
/* Wildcards of the block search (qvfs_FindBlocks). */
#define QVFS_ANY_CHANNEL 0xFFFFFFFFu
#define QVFS_ANY_BLK_TYPE 0xFFFFFFFFu
#define QVFS_MAX_HANDLES 1024
#define QVFS_MAX_BLOCKS 131072
#define QVFS_KEY_DIR "/dvr/qvfs"
#define QVFS_DEV_PREFIX "/dev/scsi/host"
#define QVFS_TASK_DEVICE "/dev/qvfs_task"

/* The one shared parameter: the disk online check (1 on, 0 off). */
#define QVFS_PARAM_ONLINE_CHECK 1

/* Text file name: 27 characters and a terminating zero. */
#define QVFS_NAME_LEN 27

/* ------------------------------------------------------------------------
 * Open-parameter record, 128 bytes: the create request of a new file.
 *
 *  off size field
 *    0    4 chn        channel (unsigned)
 *    4    4 startTime  start time, seconds (signed)
 *    8    4 fileType   file type (maps to the block type)
 *   12    4 resSize    reserved region size for file type 1 (also the
 *                      length about to be written, for block choice)
 *   16    4 recType    record type
 *   20    4 (not read)
 *   24   64 path       device path of the disk to record on
 *   88    8 ext        extension without the dot
 *   96   28 preName    previous file's 27-character name, or empty
 *  124    4 (not read)
 * ---------------------------------------------------------------------- */
typedef struct TQvfsOpenParam {
    uint32_t chn;
    int32_t startTime;
    int32_t fileType;
    int32_t resSize;
    int32_t recType;
    int32_t reserved0;
    char path[64];
    char ext[8];
    char preName[28];
    int32_t reserved1;
} TQvfsOpenParam;

/* The older open-parameter form taken by qvfs_Open: the first 96 bytes. */
#define QVFS_OPEN_PARAM_V1_SIZE 96

/* ------------------------------------------------------------------------
 * Status records.
 *
 * TQvStat64 has the 104-byte layout of the 32-bit ARM stat64 record, so that
 * a TQvFileStat is the same 232 bytes on every target. The time members are
 * named as glibc names them; st_mtime and friends work as usual.
 * ---------------------------------------------------------------------- */
typedef struct TQvTimespec32 {
    int32_t tv_sec;
    uint32_t tv_nsec;
} TQvTimespec32;

typedef struct TQvStat64 {
    uint64_t st_dev;     /*  0 */
    uint32_t __pad1;     /*  8 */
    uint32_t __st_ino;   /* 12 */
    uint32_t st_mode;    /* 16 */
    uint32_t st_nlink;   /* 20 */
    uint32_t st_uid;     /* 24 */
    uint32_t st_gid;     /* 28 */
    uint64_t st_rdev;    /* 32 */
    uint32_t __pad2[2];  /* 40 */
    int64_t st_size;     /* 48: file length in bytes */
    uint32_t st_blksize; /* 56 */
    uint32_t __pad3;     /* 60 */
    int64_t st_blocks;   /* 64: st_size / 512 */
    TQvTimespec32 st_atim; /* 72 */
    TQvTimespec32 st_mtim; /* 80: seconds = low word of the end time */
    TQvTimespec32 st_ctim; /* 88: seconds = low word of the end time */
    uint64_t st_ino;     /* 96 */
} TQvStat64;

#ifndef st_atime
#define st_atime st_atim.tv_sec
#endif
#ifndef st_mtime
#define st_mtime st_mtim.tv_sec
#endif
#ifndef st_ctime
#define st_ctime st_ctim.tv_sec
#endif

/* File status record, 232 bytes. */
typedef struct TQvFileStat {
    TQvStat64 st;          /*   0 */
    uint64_t chn;          /* 104 */
    uint64_t lock;         /* 112: 0 normal, 1 locked, 2 backup */
    uint64_t recType;      /* 120 */
    uint64_t startTime;    /* 128: creation time, seconds */
    uint8_t usrParam[32];  /* 136 */
    char name[64];         /* 168: text name, zero-terminated */
} TQvFileStat;

/* File-information item: one requested piece of information. */
typedef struct TQvFileInfo {
    void* buf;
    uint32_t len;
} TQvFileInfo;

/* Statfs record, laid out as the 32-bit target's statfs with 64-bit counts.
 * Only f_type, f_bsize, f_blocks, f_bfree, f_bavail and f_spare[0] (the
 * number of bad blocks) are written. */
typedef struct TQvStatfs {
    uint32_t f_type;    /*  0: 0x51564653 "QVFS" */
    uint32_t f_bsize;   /*  4: 512 */
    uint64_t f_blocks;  /*  8 */
    uint64_t f_bfree;   /* 16 */
    uint64_t f_bavail;  /* 24 */
    uint64_t f_files;   /* 32 */
    uint64_t f_ffree;   /* 40 */
    int32_t f_fsid[2];  /* 48 */
    uint32_t f_namelen; /* 56 */
    uint32_t f_frsize;  /* 60 */
    uint32_t f_flags;   /* 64 */
    uint32_t f_spare[4];/* 68: f_spare[0] = number of bad blocks */
} TQvStatfs;

#define QVFS_STATFS_MAGIC 0x51564653u

/* Block-information record, 40 bytes, one per block in use. Reserved words
 * are never written. */
typedef struct TQvDiskBlkInfo {
    uint32_t blkId;      /*  0 */
    uint32_t reserved0;  /*  4 */
    uint64_t startTime;  /*  8 */
    uint32_t cnt;        /* 16: files in the block */
    uint32_t reserved1;  /* 20 */
    uint64_t endTime;    /* 24 */
    uint32_t fileType;   /* 32 */
    uint32_t reserved2;  /* 36 */
} TQvDiskBlkInfo;

/* Block status record of the block-file layer, eight 32-bit words. */
typedef struct TQvBlkStat {
    uint32_t diskId;
    uint32_t blkId;
    uint32_t dataType;
    uint32_t lock;       /* biased locked-file counter */
    uint32_t recType;    /* low word of the biased record-type counter */
    uint32_t state;      /* 0 not allocated, 1 current, 2 allocated */
    uint32_t endTimeLo;
    uint32_t endTimeHi;
} TQvBlkStat;

/* Segment query of the block listing, filled by the caller. */
typedef struct TQvBlkSegQuery {
    uint32_t diskId;
    uint32_t blkId;
    int32_t total;
    int32_t found;
    int32_t segIndex;
    int32_t reserved;
    int32_t max;
    uint32_t segSize;
    int32_t segFound;
    void* segBuf;
    TQvFileStat* out;
} TQvBlkSegQuery;

#ifdef __cplusplus
/* The layouts above, as the recorders' applications pass them. */
static_assert(sizeof(TQvfsOpenParam) == 128 && offsetof(TQvfsOpenParam, chn) == 0);
static_assert(offsetof(TQvfsOpenParam, startTime) == 4 && offsetof(TQvfsOpenParam, fileType) == 8);
static_assert(offsetof(TQvfsOpenParam, resSize) == 12 && offsetof(TQvfsOpenParam, recType) == 16);
static_assert(offsetof(TQvfsOpenParam, path) == 24 && offsetof(TQvfsOpenParam, ext) == 88);
static_assert(offsetof(TQvfsOpenParam, preName) == 96 && offsetof(TQvfsOpenParam, reserved1) == 124);
static_assert(sizeof(TQvTimespec32) == 8 && offsetof(TQvTimespec32, tv_nsec) == 4);
static_assert(sizeof(TQvStat64) == 104 && offsetof(TQvStat64, st_dev) == 0 && offsetof(TQvStat64, st_mode) == 16);
static_assert(offsetof(TQvStat64, st_rdev) == 32 && offsetof(TQvStat64, st_size) == 48);
static_assert(offsetof(TQvStat64, st_blksize) == 56 && offsetof(TQvStat64, st_blocks) == 64);
static_assert(offsetof(TQvStat64, st_atim) == 72 && offsetof(TQvStat64, st_mtim) == 80);
static_assert(offsetof(TQvStat64, st_ctim) == 88 && offsetof(TQvStat64, st_ino) == 96);
static_assert(sizeof(TQvFileStat) == 232 && offsetof(TQvFileStat, st) == 0 && offsetof(TQvFileStat, chn) == 104);
static_assert(offsetof(TQvFileStat, lock) == 112 && offsetof(TQvFileStat, recType) == 120);
static_assert(offsetof(TQvFileStat, startTime) == 128 && offsetof(TQvFileStat, usrParam) == 136);
static_assert(offsetof(TQvFileStat, name) == 168);
static_assert(sizeof(TQvStatfs) == 88 && offsetof(TQvStatfs, f_type) == 0 && offsetof(TQvStatfs, f_bsize) == 4);
static_assert(offsetof(TQvStatfs, f_blocks) == 8 && offsetof(TQvStatfs, f_bfree) == 16);
static_assert(offsetof(TQvStatfs, f_bavail) == 24 && offsetof(TQvStatfs, f_files) == 32);
static_assert(offsetof(TQvStatfs, f_ffree) == 40 && offsetof(TQvStatfs, f_fsid) == 48);
static_assert(offsetof(TQvStatfs, f_namelen) == 56 && offsetof(TQvStatfs, f_frsize) == 60);
static_assert(offsetof(TQvStatfs, f_flags) == 64 && offsetof(TQvStatfs, f_spare) == 68 && sizeof(((TQvStatfs*)0)->f_spare) == 16);
static_assert(sizeof(TQvDiskBlkInfo) == 40 && offsetof(TQvDiskBlkInfo, blkId) == 0);
static_assert(offsetof(TQvDiskBlkInfo, startTime) == 8 && offsetof(TQvDiskBlkInfo, cnt) == 16);
static_assert(offsetof(TQvDiskBlkInfo, endTime) == 24 && offsetof(TQvDiskBlkInfo, fileType) == 32);
static_assert(sizeof(TQvBlkStat) == 32 && offsetof(TQvBlkStat, diskId) == 0 && offsetof(TQvBlkStat, blkId) == 4);
static_assert(offsetof(TQvBlkStat, dataType) == 8 && offsetof(TQvBlkStat, lock) == 12);
static_assert(offsetof(TQvBlkStat, recType) == 16 && offsetof(TQvBlkStat, state) == 20);
static_assert(offsetof(TQvBlkStat, endTimeLo) == 24 && offsetof(TQvBlkStat, endTimeHi) == 28);
#endif

#endif /* QVFS_TYPES_H */
