#!/usr/bin/env bash
# ./run bench: the benchmarks, against the build folder given as $1.
#   tools/bench.sh BUILD_DIR [options of both benchmarks: --work DIR --runs N]
set -euo pipefail
BUILD_DIR=${1:?usage: tools/bench.sh BUILD_DIR}
shift
for tool in find cp awk; do
  command -v "$tool" >/dev/null || { echo "bench: $tool is missing" >&2; exit 1; }
done
echo "==> file conduit" >&2
"$BUILD_DIR/bin/conduit_bench" "$BUILD_DIR" "$@"
echo "==> file transfer" >&2
"$BUILD_DIR/bin/transfer_bench" "$BUILD_DIR" "$@"
