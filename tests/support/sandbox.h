// sandbox.h - a private system root for one test process: a fresh directory
// under $TMPDIR named by QVFS_ROOT, below which the library finds its key
// directory, disks and task device. ftok keeps only 24 bits of a key file's
// identity, so the sandbox claims each key file's identity (and the one
// 0x10000 above, for record locks) in $TMPDIR/qvfs-sbx-claims and replaces a
// file whose identity is claimed or whose keys are in use. Teardown removes
// every object under the sandbox's keys and the tree; a later sandbox sweeps
// what a dead process left under its claims. One per process; a forked child
// inherits it but never tears it down.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qvfs::test {

class Sandbox {
public:
    static constexpr int kKeyFiles = 17;       // share key files qvfs0..qvfs16
    static constexpr int kShareIndexes = 2073;
    static constexpr int kLayerKeys = 32;      // owner list, pool, state, 4 locks, 25 disk segments

    Sandbox();  // throws std::runtime_error when no root or free keys can be had
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    const std::string& root() const { return root_; }
    // "/dev/scsi/hostNN/part1", the library's name of a disk's device.
    static std::string device_path(int disk);
    // Creates or resizes the sparse image of a disk; returns its device path.
    std::string add_disk(int disk, uint64_t bytes);
    void remove_disk(int disk);
    std::string image_path(int disk) const;
    // The real path of an absolute system path inside the sandbox.
    std::string real(const std::string& sysPath) const;

    // Share keys of indexes 0..2072, layer keys of the library's projects.
    int share_key(int shareIndex) const;
    int layer_key(int projId) const;
    // Semaphore sets plus segments under the sandbox's keys right now.
    int ipc_objects() const;
    // Removes them all (a simulated reboot); the files stay.
    int remove_ipc();

private:
    std::string key_file(int n) const;  // n == kKeyFiles: the layer key file
    bool claim(int n);
    void sweep_stale();

    std::string root_, claimDir_, oldRoot_;
    std::vector<std::string> claims_;
    std::vector<int> keys_;  // every key, lock keys included
    std::vector<int> shareKeys_;
    int layerKeys_[kLayerKeys] = {};
    pid_t owner_;
    bool hadRoot_ = false;
};

// A fixture base whose every test runs inside its own sandbox.
class SandboxTest : public ::testing::Test {
protected:
    Sandbox sbx_;
};

}  // namespace qvfs::test
