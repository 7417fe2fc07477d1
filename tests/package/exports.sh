#!/usr/bin/env bash
# usage: exports.sh LIBRARY HEADER
# Checks that the library exports every function of the header, its data and its classes, and nothing of the C++
# runtime.
set -euo pipefail
library=$1
header=$2
failures=0

exported=$(nm -DC --defined-only "$library" | cut -d' ' -f3-)
expect() {
    if ! grep -qxF -- "$1" <<<"$exported"; then
        echo "not exported: $1"
        failures=$((failures + 1))
    fi
}

mapfile -t functions < <(grep -oE '\bGVUSB_[A-Za-z]+\(' "$header" | tr -d '(' | sort -u)
if [ ${#functions[@]} -ne 21 ]; then
    echo "the header declares ${#functions[@]} functions, not 21: ${functions[*]}"
    failures=$((failures + 1))
fi
for name in "${functions[@]}" g_GvUsbMan g_GvUsbDebugLevel g_GvUsbStarttime g_cGvusbErrorText g_EvtInitAry \
    g_MtxEvtInitAry 'vtable for GVDevice' 'typeinfo for GVDevice' 'vtable for GVDrvHnd' 'typeinfo for GVDrvHnd' \
    'GVLOG_SetLevel(int)' 'GVLOG_Level()' 'GVLOG_Msg(char const*, char const*)' \
    'g_ToUpperString(char const*, char*)' 'GvusbGetErrorText(int)' 'GvUsbErrorText::getErrorText(int)' \
    'GVDevice::IdentifyDevice()' 'GVDevice::IsDevice(_GVUSB_SCANSEARCH*)' 'GVDrvHnd::UpdateDevices()' \
    'GVDrvHnd::OpenDevice(int)' 'GVDrvHnd::OpenDevice(unsigned int)' 'GVDrvHnd::~GVDrvHnd()'; do
    expect "$name"
done

if foreign=$(grep -vE '^(GVUSB_|g_|GVLOG_|GvusbGetErrorText|GvUsbErrorText::|(vtable|typeinfo|typeinfo name) for GV|GV(Device|DrvHnd)::)' <<<"$exported"); then
    echo "exported unintentionally:"
    echo "$foreign"
    failures=$((failures + 1))
fi
exit "$failures"
