#!/usr/bin/env bash
# The package and System V steps of scripts/common.sh that CI relies on:
# installs go through although every index update fails, a failing install
# is retried and then reported, and the object listing names what exists.
set -euo pipefail
source "$(dirname "$0")/../scripts/common.sh"
fake=$(mktemp -d)
trap 'rm -rf "$fake"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

# A package tool whose index update always fails (a mirror in mid-sync) and
# whose install succeeds from the FAKE_OK_AT-th try on.
cat >"$fake/apt-get" <<'END'
#!/bin/sh
echo "$1" >>"$FAKE_DIR/calls"
[ "$1" = update ] && exit 100
[ "$(grep -c '^install' "$FAKE_DIR/calls")" -ge "$FAKE_OK_AT" ]
END
printf '#!/bin/sh\nexec "$@"\n' >"$fake/sudo"
chmod +x "$fake/apt-get" "$fake/sudo"
export PATH="$fake:$PATH" FAKE_DIR=$fake QVFS_APT_PAUSE=0
calls() { grep -c "^$1" "$fake/calls" || true; }

FAKE_OK_AT=3 qvfs_apt_install pkg-a pkg-b 2>"$fake/err" || fail "no install although the third try succeeds"
[ "$(calls install)" = 3 ] && [ "$(calls update)" = 3 ] || fail "tries: $(cat "$fake/calls")"
grep -q "warning: apt-get update failed" "$fake/err" || fail "no warning for the failed update"

rm "$fake/calls"
if FAKE_OK_AT=99 QVFS_APT_TRIES=2 qvfs_apt_install pkg-a 2>"$fake/err"; then fail "an install that never works succeeded"; fi
[ "$(calls install)" = 2 ] || fail "tries: $(cat "$fake/calls")"
grep -q "cannot install: pkg-a" "$fake/err" || fail "no final message: $(cat "$fake/err")"

# The listing, in a namespace of its own where that can be had.
if unshare --ipc true 2>/dev/null && command -v ipcmk >/dev/null; then
    got=$(unshare --ipc bash -c "source '$QVFS_TOP/scripts/common.sh'; ipcmk -M 4096 >/dev/null; ipcmk -S 2 >/dev/null;
        qvfs_ipc_objects" | awk '{print $1, ($2 ~ /^0x/), ($3 ~ /^[0-9]+$/)}')
    [ "$got" = "$(printf 'segment 1 1\nsemaphore 1 1')" ] || fail "listing: $got"
fi
echo "ci scripts OK"
