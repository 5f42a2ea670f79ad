#!/usr/bin/env bash
# Makes a throw-away NSS database in DIR/db with an empty password, as a
# user would with certutil.  With "softhsm", also a SoftHSM2 token labelled
# "sealmark" (user PIN 1234), configured by DIR/softhsm2.conf, and
# registered in the database with modutil.
# Usage: nss_db.sh DIR [softhsm]
set -euo pipefail
dir=$1
mkdir -p "$dir/db"
certutil -N --empty-password -d "sql:$dir/db"
if [ "${2:-}" = softhsm ]; then
  mkdir -p "$dir/tokens"
  printf 'directories.tokendir = %s/tokens\nobjectstore.backend = file\nlog.level = ERROR\n' "$dir" \
    > "$dir/softhsm2.conf"
  export SOFTHSM2_CONF=$dir/softhsm2.conf
  softhsm2-util --init-token --free --label sealmark --pin 1234 --so-pin 5678 >/dev/null
  modutil -dbdir "sql:$dir/db" -add softhsm -libfile /usr/lib/softhsm/libsofthsm2.so -force >/dev/null
fi
