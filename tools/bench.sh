#!/usr/bin/env bash
# ./run bench: the benchmarks, against the build folder given as $1.
#   tools/bench.sh BUILD_DIR [conduit_bench options: --work DIR --runs N]
set -euo pipefail
BUILD_DIR=${1:?usage: tools/bench.sh BUILD_DIR}
shift
command -v find >/dev/null || { echo "bench: find is missing" >&2; exit 1; }
echo "==> file conduit" >&2
"$BUILD_DIR/bin/conduit_bench" "$BUILD_DIR" "$@"
