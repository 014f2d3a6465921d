// Words for error codes: every code of the library has its own message,
// system codes carry the system's words, and nothing is ever null.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "api/qvfs.h"

namespace {

TEST(ErrorString, EveryLibraryCodeHasItsOwnWords) {
    std::set<std::string> seen{"unknown error"};
    const int codes[] = {QVFS_ERR_BADARG,       QVFS_ERR_BADHANDLE,  QVFS_ERR_DISKNUM,       QVFS_ERR_NOTFORMATTED,
                         QVFS_ERR_NOMEM,        QVFS_ERR_PROJID,     QVFS_ERR_OLDVERSION,    QVFS_ERR_INITFAILED,
                         QVFS_ERR_CHANNEL,      QVFS_ERR_BLOCKRANGE, QVFS_ERR_TOOMANYBLOCKS, QVFS_ERR_FMT_NOSHARE,
                         QVFS_ERR_FMT_TOOSMALL, QVFS_ERR_NOTINIT,    QVFS_ERR_NOTBAD,        QVFS_ERR_DAMAGED, 0};
    for (int c : codes) {
        const char* s = qvfs_ErrorString(c);
        ASSERT_NE(nullptr, s) << c;
        EXPECT_TRUE(seen.insert(s).second) << "code " << c << " shares its words: " << s;
    }
    EXPECT_STREQ("not a formatted disk", qvfs_ErrorString(QVFS_ERR_NOTFORMATTED));
    EXPECT_STREQ("no error", qvfs_ErrorString(0));
    for (int c : {-1, -5000, 1004, 2000, 5000, 9999, 123456})
        EXPECT_STREQ("unknown error", qvfs_ErrorString(c)) << c;
}

TEST(ErrorString, SystemCodesCarryTheSystemsWords) {
    EXPECT_EQ(std::string(std::strerror(ENOENT)), qvfs_ErrorString(QVFS_ERR_SYS + ENOENT));
    EXPECT_EQ(std::string(std::strerror(EIO)), qvfs_ErrorString(QVFS_ERR_SYS + EIO));
    // A format whose metadata writes failed adds the system offset twice.
    const std::string fmtText = qvfs_ErrorString(2 * QVFS_ERR_SYS + EIO);
    EXPECT_NE(std::string::npos, fmtText.find(std::strerror(EIO))) << fmtText;
    EXPECT_NE(std::string::npos, fmtText.find("format")) << fmtText;
    // A bare system errno, as some lower calls leave it.
    EXPECT_EQ(std::string(std::strerror(EACCES)), qvfs_ErrorString(EACCES));
    // A transfer that moved too few bytes without an error leaves 3000 alone.
    EXPECT_STRNE("unknown error", qvfs_ErrorString(QVFS_ERR_SYS));
}

}  // namespace
