#!/usr/bin/env bash
# usage: python_module_test.sh LAUNCHER LIBRARY PROJECT
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export GVUSB_LAUNCHER=$1 GVUSB_LIBRARY=$2 GVUSB_HEADER=$3/include/gvusb.h PYTHONPATH=$3/examples/python PYTHONDONTWRITEBYTECODE=1
exec "$1" --no-config --reader "id=1A2B3C,family=Desk,name=Desk reader,type=D-100" \
    --reader "id=4D5E6F,family=Gate,name=Gate reader,product=2,endpoints=control" -- \
    python3 -m unittest discover --start-directory "$here" --pattern 'python_module_test.py' --verbose
