// qvfs-demo: formats and mounts a disk image in a sandbox and reports what
// the disk layer found. Run it with QVFS_ROOT pointing at a directory; the
// image is made there as dev/scsi/host00/part1 (16 GiB, sparse).
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "disk/df.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kDisk = "/dev/scsi/host00/part1";
constexpr uint64_t kImageBytes = 16ull << 30;

int fail(const char* what) {
    std::fprintf(stderr, "qvfs-demo: %s failed (error %d)\n", what, errno);
    return 1;
}

}  // namespace

int main() {
    const char* root = std::getenv("QVFS_ROOT");
    if (root == nullptr || *root == '\0') {
        std::fprintf(stderr, "qvfs-demo: set QVFS_ROOT to a sandbox directory\n");
        return 2;
    }
    std::error_code ec;
    fs::create_directories(fs::path(root) / "dvr/qvfs", ec);
    fs::path image = fs::path(root) / "dev/scsi/host00/part1";
    fs::create_directories(image.parent_path(), ec);
    if (!fs::exists(image)) {
        std::FILE* f = std::fopen(image.c_str(), "wb");
        if (f == nullptr) return fail("creating the image");
        std::fclose(f);
        fs::resize_file(image, kImageBytes, ec);
        if (ec) return fail("sizing the image");
    }
    std::printf("sandbox      %s\n", root);
    std::printf("disk image   %s (%" PRIu64 " bytes, sparse)\n", image.c_str(),
                static_cast<uint64_t>(fs::file_size(image)));

    if (fsc_ShareInit() != 0) return fail("attaching the shared tables");
    if (df_Init() != 0) return fail("starting the disk layer");
    if (df_DiskFormat(kDisk, 0, 0) != 0) return fail("format");
    if (df_DiskMount(kDisk) != 0) return fail("mount");

    TQvStatfs st{};
    if (df_DiskStatfs(kDisk, &st) != 0) return fail("statfs");
    const uint32_t blocks = df_GetDiskUsedBlockNum(kDisk);
    std::printf("device       %s\n", kDisk);
    std::printf("version      %u\n", df_GetDiskVersion(kDisk));
    std::printf("block size   %" PRIu64 " bytes\n", df_GetDiskUnitSize());
    std::printf("blocks       %u (free %" PRIu64 ", bad %u)\n", blocks,
                st.f_bfree / (df_GetDiskUnitSize() / 512), st.f_spare[0]);
    std::printf("capacity     %" PRIu64 " MiB\n", st.f_blocks * st.f_bsize >> 20);

    std::vector<char> dump(64 * 1024);
    const int n = df_GetDebugInfo(dump.data(), static_cast<int32_t>(dump.size()));
    if (n > 0) std::printf("\n%s", dump.data());

    df_DiskUnmout(kDisk, 0);
    return 0;
}
