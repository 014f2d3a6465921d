// root_ipc.h - the System V objects of a system root: every semaphore set
// and shared segment whose key derives from the key files of the root's key
// directory (the keys the library computes there). Looking creates nothing:
// a missing key file gives no key, and no object is made or attached.
//
// Shared by the programs in tools/ (header only; the programs link the
// library's public interface, not its internals).
#pragma once

#include <dirent.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "common/keys.h"

namespace qvfs::tools {

struct RootIpcObject {
    bool segment = false;   // a shared segment, else a semaphore set
    int id = -1;
    key_t key = 0;
    std::string what;       // "owner list", "lock of disk 0", ...
    uint64_t size = 0;      // segment bytes, or the number of semaphores
    uint64_t attached = 0;  // processes attached to a segment (0 for semaphores)
    pid_t creator = 0;      // segment: the process that created it
    std::vector<pid_t> users;  // segment: the processes attached to it
};

namespace detail {

inline std::string share_record(uint32_t index) {
    if (index >= kDiskIndexBase) return "disk " + std::to_string(index - kDiskIndexBase);
    const char* kind = index >= kBlkFileIndexBase ? "block-file record " : "file record ";
    return kind + std::to_string(index);
}

// Every key of the root's key files with what it serves; the first meaning
// of a key wins where two derivations meet.
inline std::map<key_t, std::string> root_keys(const std::string& root) {
    std::map<key_t, std::string> keys;
    const auto add = [&](const char* file, int proj, const std::string& what) {
        const key_t k = ::ftok((root + file).c_str(), proj);
        if (k != -1) keys.emplace(k, what);
        return k;
    };
    char path[kKeyPathSize];
    std::snprintf(path, sizeof path, kLayerKeyFormat, QVFS_KEY_DIR);
    const std::pair<int, const char*> layer[] = {
        {kProjFileList, "owner list"},       {kProjShrPool, "record pool"},
        {kProjFileMutex, "g_qvFileMutex"},   {kProjBlkFileMutex, "g_tBlkFileMutex"},
        {kProjBlkMutex, "g_tBlkMutex"},      {kProjTimerMutex, "g_tTimerMutex"},
    };
    for (const auto& [proj, what] : layer) add(path, proj, what);
    add(path, kProjState, "state segment");
    for (int d = 0; d < QVFS_MAX_DISKS; ++d) add(path, kProjDiskSegment0 + d, "segment of disk " + std::to_string(d));
    for (uint32_t i = 0; i <= kMaxShareIndex; ++i) {
        std::snprintf(path, sizeof path, kShareKeyFormat, QVFS_KEY_DIR, int(i / kIndexesPerKeyFile));
        const std::string rec = share_record(i);
        // A disk record's segment and the disk's lock share one key.
        const key_t k = add(path, int(i % kIndexesPerKeyFile) + 1, i >= kDiskIndexBase ? rec + " image and lock" : rec);
        if (k != -1) keys.emplace(key_t(k + int(kRecordLockKeyOffset)), "lock of " + rec);
    }
    return keys;
}

// The processes attached to System V segments, by key, as their memory maps
// name the segments ("/SYSV0000abcd").
inline std::map<key_t, std::vector<pid_t>> attachments() {
    std::map<key_t, std::vector<pid_t>> out;
    DIR* d = ::opendir("/proc");
    if (d == nullptr) return out;
    while (const dirent* e = ::readdir(d)) {
        const pid_t pid = pid_t(std::strtol(e->d_name, nullptr, 10));
        if (pid <= 0) continue;
        std::ifstream maps(std::string("/proc/") + e->d_name + "/maps");
        std::vector<key_t> seen;
        for (std::string line; std::getline(maps, line);) {
            const size_t at = line.find("/SYSV");
            if (at == std::string::npos) continue;
            const key_t k = key_t(std::strtoul(line.c_str() + at + 5, nullptr, 16));
            if (std::find(seen.begin(), seen.end(), k) == seen.end()) seen.push_back(k);
        }
        for (key_t k : seen) out[k].push_back(pid);
    }
    ::closedir(d);
    return out;
}

}  // namespace detail

// The objects that exist under the root's keys, segments before semaphore
// sets, each in key order, with the processes attached to the segments.
// root "" is the real system root.
inline std::vector<RootIpcObject> root_ipc_objects(const std::string& root) {
    std::vector<RootIpcObject> segs, sems;
    for (const auto& [key, what] : detail::root_keys(root)) {
        const int shm = ::shmget(key, 0, 0);
        shmid_ds ds{};
        if (shm >= 0 && ::shmctl(shm, IPC_STAT, &ds) == 0)
            segs.push_back({true, shm, key, what, ds.shm_segsz, ds.shm_nattch, ds.shm_cpid, {}});
        const int sem = ::semget(key, 0, 0);
        if (sem >= 0) {
            semid_ds sd{};
            union {
                int val;
                semid_ds* buf;
            } arg{};
            arg.buf = &sd;
            const uint64_t n = ::semctl(sem, 0, IPC_STAT, arg) == 0 ? sd.sem_nsems : 0;
            sems.push_back({false, sem, key, what, n, 0, 0, {}});
        }
    }
    // Who is attached, for the segments that say someone is; the segment's
    // last attacher where /proc does not show the process (another pid
    // namespace).
    if (std::any_of(segs.begin(), segs.end(), [](const RootIpcObject& o) { return o.attached > 0; })) {
        const auto users = detail::attachments();
        for (RootIpcObject& o : segs) {
            if (o.attached == 0) continue;
            const auto it = users.find(o.key);
            if (it != users.end()) o.users = it->second;
            shmid_ds ds{};
            if (o.users.empty() && ::shmctl(o.id, IPC_STAT, &ds) == 0 && ds.shm_lpid > 0) o.users.push_back(ds.shm_lpid);
        }
    }
    segs.insert(segs.end(), sems.begin(), sems.end());
    return segs;
}

// Removes the objects; the number removed.
inline int remove_ipc_objects(const std::vector<RootIpcObject>& objs) {
    int n = 0;
    for (const RootIpcObject& o : objs)
        n += (o.segment ? ::shmctl(o.id, IPC_RMID, nullptr) : ::semctl(o.id, 0, IPC_RMID)) == 0 ? 1 : 0;
    return n;
}

}  // namespace qvfs::tools
