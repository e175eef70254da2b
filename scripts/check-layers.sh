#!/bin/bash
# The plug-in is built in layers: each folder may include only the folders
# below it. base/ (text and path buffers, result codes, descriptor owners,
# child programs, I/O, answers) sits under everything and sees only the
# host's declarations; plugin/ (entry and dispatch) sits on top.
# Exits 1 and names the file and include that break the order.
set -euo pipefail
cd "$(dirname "$0")/.."
declare -A allowed=(
  [platform]="platform"
  [base]="platform base"
  [storage]="platform base storage"
  [media]="platform base storage media"
  [listing]="platform base storage media listing"
  [transfer]="platform base storage media transfer"
  [appstore]="platform base storage appstore"
  [plugin]="platform base storage media listing transfer appstore plugin"
)
bad=0
for folder in "${!allowed[@]}"; do
  for file in $(ls "$folder"/*.h "$folder"/*.cpp 2>/dev/null); do
    while IFS= read -r include; do
      target=${include%%/*}
      [[ " ${allowed[$folder]} " == *" $target "* ]] && continue
      echo "layering: $file includes \"$include\" ($folder/ may include only: ${allowed[$folder]})"
      bad=1
    done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
  done
done
if ((bad)); then exit 1; fi
echo "layering: every include follows the order platform < base < storage < media < listing, transfer, appstore < plugin"
