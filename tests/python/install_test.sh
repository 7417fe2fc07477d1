#!/usr/bin/env bash
# usage: install_test.sh PYTHON LAUNCHER LIBRARY PROJECT
# Install the package by pip into a new environment, without a network, and use it there.
set -euo pipefail
python=$1 launcher=$2 library=$3 project=$4
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
unset PYTHONPATH

# pip builds in the folder of the sources, which must stay as it is.
mkdir "$folder/sources"
cp -r "$project/pyproject.toml" "$project/python" "$project/docs" "$folder/sources"
"$python" -m venv --system-site-packages "$folder/environment"
cd "$folder/sources"
"$folder/environment/bin/pip" --disable-pip-version-check install --no-index --no-build-isolation .

cd "$folder"
cat >program.py <<'END'
import gvusb, os
assert os.path.dirname(gvusb.__file__).startswith(os.environ["ENVIRONMENT"]), gvusb.__file__
assert os.path.exists(os.path.join(os.path.dirname(gvusb.__file__), "py.typed"))
with gvusb.open() as reader:
    print(reader.transceive(b"\x02\x00", timeout=30).hex())
END
answer=$(ENVIRONMENT=$folder/environment GVUSB_LIBRARY=$library "$launcher" --no-config --reader id=1 -- \
    "$folder/environment/bin/python" program.py)
[ "$answer" = 0200 ] || {
    echo "the program prints $answer"
    exit 1
}
"$folder/environment/bin/pip" --disable-pip-version-check uninstall --yes gvusb
! "$folder/environment/bin/python" -c 'import gvusb' 2>/dev/null
