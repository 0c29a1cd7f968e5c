#!/usr/bin/env bash
# The main road as an ordinary user: no root, no start script, the server started through a systemctl on PATH.
set -euo pipefail
bin=$(cd "${1:?usage: $0 FOLDER_OF_PROGRAMS}" && pwd)
scenarios=$(cd "$(dirname "$0")" && pwd)
if [ "$(id -u)" -ne 0 ]; then
  exec "$scenarios/backup_restore_test.sh" "$bin"
fi
# The user may not be able to read the source tree or the build, so both are copied.
copy=$(mktemp -d /tmp/kestrel-user.XXXXXX)
trap 'rm -rf --one-file-system "$copy"' EXIT
mkdir -p "$copy/bin" "$copy/lib" "$copy/e2e"
cp -r "$bin/kestrel" "$bin/kestrel-lab" "$bin/lab" "$copy/bin/"
cp "$bin/../lib/libkestrel.so" "$bin/../lib/oscar.so" "$copy/lib/"
cp "$scenarios/kestrel_support.sh" "$scenarios/backup_restore_test.sh" "$copy/e2e/"
chmod -R a+rX "$copy"
cd /
setpriv --reuid nobody --regid nogroup --clear-groups env HOME=/tmp "$copy/e2e/backup_restore_test.sh" "$copy/bin"
