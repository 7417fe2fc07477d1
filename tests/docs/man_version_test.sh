#!/usr/bin/env bash
# usage: man_version_test.sh VERSION PAGES
# Every manual page of the library states its version in the footer.
set -euo pipefail
version=$1
pages=$2
failed=0
for page in "$pages/man5/gvusb.conf.5" "$pages"/man3/*.3; do
    first=$(head -n 1 "$page")
    case $first in
    '.so '* | ".TH $(basename "$page" | sed 's/\(.*\)\./\1 /') \"\" \"gvusb $version\" "*) ;;
    *)
        echo "$(basename "$page") begins with: $first"
        failed=1
        ;;
    esac
done
exit "$failed"
