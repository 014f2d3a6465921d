// sandbox.h - a private system root for one test process.
//
// A Sandbox makes a fresh directory (qvfs-sbx-XXXXXX under $TMPDIR or /tmp),
// points QVFS_ROOT at it and re-reads it in the platform module, so that the
// library finds its key directory "/dvr/qvfs", its disks
// "/dev/scsi/hostNN/part1" and its task device below that directory while
// every name it computes stays the real one.
//
// Keys. Every System V key the library derives comes from ftok on the key
// files, and ftok keeps only 24 bits of a file's identity (device and inode),
// so two sandboxes (or a sandbox and anything else on the machine) can meet
// on a key. At construction the sandbox therefore:
//   - creates the layer key file and the share key files 0..16 itself;
//   - claims each file's identity (and the identity 0x10000 above it, which
//     the record locks use) in a machine-wide claim directory
//     ($TMPDIR/qvfs-sbx-claims), so that sandboxes running in parallel never
//     share a key;
//   - checks that no semaphore or segment exists yet under any of its keys;
// and replaces a key file (new inode) whenever one of these fails.
//
// Teardown removes every semaphore and segment under the sandbox's keys and
// the directory tree, and restores QVFS_ROOT. The claims outlive the
// teardown as long as the process does: the next sandbox made anywhere on the
// machine that finds a claim whose process is gone removes everything left
// under its keys (objects made after the teardown by a library thread, or
// everything, when the process died without a teardown) and its directory. One sandbox per
// process at a time (QVFS_ROOT is process-wide). A forked child inherits the
// sandbox but never tears it down (the destructor only acts in the process
// that made it).
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qvfs::test {

class Sandbox {
public:
    // Number of share key files and share indexes the library derives keys from.
    static constexpr int kKeyFiles = 17;
    static constexpr int kShareIndexes = 2073;

    // Creates the root and the key files. Throws std::runtime_error when the
    // directory cannot be made or no collision-free key files can be found.
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    // The root directory (real path, no trailing slash).
    const std::string& root() const { return root_; }

    // The library's name of a disk's device: "/dev/scsi/hostNN/part1".
    static std::string device_path(int disk);

    // Creates (or resizes) the sparse image of a disk, placed where the
    // library opens the disk's device, and returns the device path. The
    // image holds zeros and takes no space until written. Throws on failure.
    std::string add_disk(int disk, uint64_t bytes);

    // Deletes a disk's image (the disk then looks absent).
    void remove_disk(int disk);

    // The real file behind a disk, for reading back bytes with pread.
    std::string image_path(int disk) const;

    // The real path of any absolute system path inside the sandbox.
    std::string real(const std::string& sysPath) const;

    // Every key the library can derive in this sandbox: the share keys of
    // indexes 0..2072 (share_key), each of them + 0x10000 (record locks) and
    // the layer keys with project numbers 65, 66, 97..100 (layer_key).
    const std::vector<int>& keys() const { return keys_; }
    int share_key(int shareIndex) const;
    int layer_key(int projId) const;

    // Number of semaphore sets plus shared-memory segments that exist under
    // the sandbox's keys right now.
    int ipc_objects() const;

    // Removes every semaphore set and segment under the sandbox's keys and
    // returns how many were removed; the files stay. Attached segments
    // vanish when their last user detaches. Used to simulate a reboot.
    int remove_ipc();

    // Key files replaced at construction because a key was claimed or in use.
    int replaced() const { return spare_; }

private:
    void make_key_files();
    void compute_keys(int n);  // the keys of key file n (kKeyFiles: the layer file)
    std::string key_file(int n) const;  // n == kKeyFiles: the layer key file
    // Creates key file n with a fresh inode and claims its identity; false
    // when the identity is taken (the file then needs replacing).
    bool claim(int n, std::string* why);
    void release_claims();
    void unclaim_last();  // drops the claims of the last successful claim()
    // Removes the claims of sandboxes whose process died without teardown,
    // with the semaphores, segments and directory they left.
    void sweep_stale();
    bool keys_in_use(int n) const;

    std::string root_;
    std::string claimDir_;
    std::vector<std::string> claims_;
    std::vector<int> keys_;
    std::vector<int> shareKeys_;  // by share index
    int layerKeys_[32] = {};      // the layer key file's project numbers (sandbox.cpp)
    pid_t owner_;
    bool hadRoot_ = false;
    std::string oldRoot_;
    int spare_ = 0;
};

// A fixture base whose every test runs inside its own sandbox.
class SandboxTest : public ::testing::Test {
protected:
    Sandbox sbx_;
};

}  // namespace qvfs::test
