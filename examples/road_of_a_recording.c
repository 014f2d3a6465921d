/*
 * road_of_a_recording.c - one recording from start to end through qvfs.h:
 * start the library, format and mount a disk, record with a pre-record
 * ring, close, reopen by name, play back, look at the file and its block,
 * delete it.
 *
 *   road_of_a_recording /dev/scsi/host00/part1
 *
 * THE DISK IS FORMATTED: every recording on it is lost. Run it in a sandbox:
 * with QVFS_ROOT=/some/dir the library opens $QVFS_ROOT/dev/scsi/host00/part1,
 * which may be a sparse file of a few GiB (truncate -s 5G ...: two blocks;
 * a disk holds its first block from 3089 MiB on).
 *
 * Build: cc road_of_a_recording.c $(pkg-config --cflags --libs qvfs)
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <qvfs.h>

#define RING_SIZE (1 << 20) /* bytes of video kept from before the trigger */
#define CHUNK 65536         /* one write of the encoder */
#define MAIN_CHUNKS 16      /* the recording after the trigger: 1 MiB */

static unsigned char g_buf[CHUNK];

static int fail(const char* what) {
    fprintf(stderr, "%s failed: error %d\n", what, errno);
    return 1;
}

/* Byte i of the camera's stream: something recognisable to check against. */
static unsigned char stream_byte(unsigned long long i) {
    return (unsigned char)(i * 7u + (i >> 9) + (i >> 17));
}

static void make_chunk(unsigned long long from, unsigned len) {
    unsigned k;
    for (k = 0; k < len; ++k) g_buf[k] = stream_byte(from + k);
}

int main(int argc, char** argv) {
    const char* disk;
    TQvfsOpenParam param;
    char name[64];
    int h, n, i;
    unsigned long long s, streamEnd, kept, first, pos;
    int32_t preStart, preEnd;
    TQvFileStat st;
    TQvFileStat listed[8];
    int block, files;
    char when[32];

    if (argc != 2) {
        fprintf(stderr, "usage: %s /dev/scsi/hostNN/part1   (formats that disk!)\n", argv[0]);
        return 2;
    }
    disk = argv[1];

    /* 1. Start the library, then prepare the disk. */
    if (qvfs_Init() != 0) return fail("qvfs_Init");
    if (qvfs_Format(disk) != 0) return fail("qvfs_Format");
    if (qvfs_Mount(disk) != 0) return fail("qvfs_Mount");

    /* 2. A new recording of channel 1 with a pre-record ring (file type 1). */
    memset(&param, 0, sizeof param);
    param.chn = 1;
    param.startTime = (int32_t)time(NULL);
    param.fileType = 1;
    param.resSize = RING_SIZE;
    param.recType = 0;
    strncpy(param.path, disk, sizeof param.path - 1);
    strcpy(param.ext, "rvd");
    h = qvfs_OpenV2(&param, name, QVFS_O_RDWR);
    if (h < 0) return fail("qvfs_OpenV2");
    printf("created   %s\n", name);

    /* 3. Waiting for the trigger: the encoder's stream goes round the ring,
     *    stream byte s at ring position s mod RING_SIZE. */
    streamEnd = RING_SIZE + RING_SIZE / 2;
    for (s = 0; s < streamEnd; s += CHUNK) {
        if (qvfs_Seek(h, (int64_t)(s % RING_SIZE), 0) != (int64_t)(s % RING_SIZE)) return fail("qvfs_Seek");
        make_chunk(s, CHUNK);
        if (qvfs_Write(h, g_buf, CHUNK) != CHUNK) return fail("qvfs_Write (ring)");
    }

    /* 4. Trigger: the ring keeps the last RING_SIZE - CHUNK bytes (it has
     *    wrapped); the recording proper follows it. */
    kept = RING_SIZE - CHUNK;
    first = streamEnd - kept;
    preEnd = (int32_t)(streamEnd % RING_SIZE);
    preStart = (int32_t)(first % RING_SIZE);
    if (qvfs_UpdataePreRecPtr(h, preStart, preEnd) != 0) return fail("qvfs_UpdataePreRecPtr");
    if (qvfs_Seek(h, 0, 2) != (int64_t)kept) return fail("qvfs_Seek (end)");
    for (i = 0; i < MAIN_CHUNKS; ++i) {
        make_chunk(streamEnd, CHUNK);
        if (qvfs_Write(h, g_buf, CHUNK) != CHUNK) return fail("qvfs_Write");
        streamEnd += CHUNK;
        /* 28: the block is nearly full; a recorder opens its next file. */
        if (qvfs_error(h) == 28) break;
    }
    if (qvfs_Close(h) != 0) return fail("qvfs_Close");

    /* 5. Playback, by name: the ring's bytes oldest first, then the rest. */
    h = qvfs_Open(NULL, name, QVFS_O_RDONLY);
    if (h < 0) return fail("qvfs_Open");
    pos = first;
    while ((n = qvfs_Read(h, g_buf, CHUNK)) > 0) {
        for (i = 0; i < n; ++i)
            if (g_buf[i] != stream_byte(pos + (unsigned)i)) {
                fprintf(stderr, "wrong byte at stream offset %llu\n", pos + (unsigned)i);
                return 1;
            }
        pos += (unsigned)n;
    }
    if (pos != streamEnd || qvfs_Eof(h) != 1) {
        fprintf(stderr, "played %llu bytes, expected %llu\n", pos - first, streamEnd - first);
        return 1;
    }
    qvfs_Close(h);
    printf("played    %llu bytes, all as recorded\n", pos - first);

    /* 6. What the file system knows about it. */
    if (qvfs_Stat(name, &st) != 0) return fail("qvfs_Stat");
    qvfs_GetTimeString((uint32_t)st.startTime, when, sizeof when);
    printf("stat      size %lld, channel %llu, started %s\n", (long long)st.st.st_size,
           (unsigned long long)st.chn, when);

    /* 7. The block the channel records into, and its files. */
    block = qvfs_GetUsedInBlockId(disk, 1, (uint32_t)param.fileType);
    if (block < 0) return fail("qvfs_GetUsedInBlockId");
    files = qvfs_BlockStat(disk, (uint32_t)block, listed, 8);
    if (files < 0) return fail("qvfs_BlockStat");
    printf("block     %d holds %d file(s)\n", block, files);
    for (i = 0; i < files; ++i) printf("          %s %lld bytes\n", listed[i].name, (long long)listed[i].st.st_size);

    /* 8. Delete it: the block goes back to the disk with its last file. */
    if (qvfs_Unlink(name) != 0) return fail("qvfs_Unlink");
    if (qvfs_Stat(name, &st) == 0) {
        fprintf(stderr, "the file is still there\n");
        return 1;
    }
    printf("deleted   %s\n", name);

    qvfs_UnMount(disk);
    qvfs_DeInit();
    printf("ok\n");
    return 0;
}
