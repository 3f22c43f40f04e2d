#!/usr/bin/env bash
# The demonstration run of `make demo`, on a finished native build.
set -eu
build=$1
"$build/examples/link_demo"
