#!/bin/bash
set -e
. scripts/common.sh
scripts/setup.sh
build_preset windows-ucrt package test-bundle
ls -l build/windows-ucrt/*.zip
cd build/windows-ucrt
cmake -E tar tf thr-1.1.0-win64-ucrt.zip | grep -i licen
x86_64-w64-mingw32ucrt-objdump -p bin/thr.dll | grep "DLL Name"
cd ../..
scripts/consumers.sh || echo consumers FAILED
scripts/bundle.sh --preset windows-ucrt drl_test objects_test || echo bundle FAILED
