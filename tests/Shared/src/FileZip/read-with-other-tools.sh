#!/usr/bin/env bash
# Lets unzip, 7z and Python's zipfile test every archive that a kill in the middle of an add leaves.
# read-with-other-tools.sh TEST_PROGRAM_COMMAND...
set -euo pipefail

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
export AGENTCLI_KEEP_ARCHIVES="Z:${folder//\//\\}"
"$@" --gtest_filter='AppendInPlaceSourceTest.AKill*' >"$folder/log" 2>&1 || {
  cat "$folder/log"
  exit 1
}

read=0
for archive in "$folder"/*.zip; do
  entries=$(python3 - "$archive" <<'END'
import sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as archive:
    if archive.testzip() is not None:
        sys.exit("damaged data")
    print(len(archive.namelist()))
END
  ) || { echo "Python cannot read $archive"; exit 1; }
  if [ "$entries" != 0 ]; then # unzip and 7z make a warning of an archive without entries
    unzip -tqq "$archive" || { echo "unzip complains about $archive"; exit 1; }
    7z t -bso0 -bsp0 "$archive" || { echo "7z complains about $archive"; exit 1; }
  fi
  read=$((read + 1))
done
echo "$read archives read"
[ "$read" -gt 30 ]
