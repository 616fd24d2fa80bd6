#!/usr/bin/env bash
# The peer comparison in one command: builds what it needs (Release, its own build folder),
# installs the pinned peer packages, runs the retargeting and the key-reduction comparisons and
# prints both sides' figures and their ratios, all measured in this one run.
#
#   bash bench/peers/run.sh [OUTDIR]      (default: peers-out)
#
# Environment: TARNI_PEERS_BUILD (build folder, default build/peers), TARNI_DATA_DIR (the shared
# clips, default ../shared/data beside the project), TARNI_PEERS_RUNS (timed runs per figure).
# Needs what the project's build needs, plus node 18 or later with npm.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../.." && pwd)"
out="${1:-peers-out}"
build="${TARNI_PEERS_BUILD:-$root/build/peers}"
data="${TARNI_DATA_DIR:-$root/../shared/data}"
runs="${TARNI_PEERS_RUNS:-}"

for clip in cmu/131_01_walk.bvh cmu/01_01_jumps.bvh reactidle/003_genuine_idle.bvh; do
  if [ ! -f "$data/$clip" ]; then
    echo "run.sh: the shared clip $data/$clip is missing (set TARNI_DATA_DIR)" >&2
    exit 2
  fi
done
mkdir -p "$out"
out="$(cd "$out" && pwd)"

echo "== building tarni-ca and the comparison driver (Release) in $build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER=g++ \
  -DTARNI_BUILD_TESTS=OFF -DTARNI_BUILD_BENCH=ON -DTARNI_NATIVE_ARCH=ON > "$out/configure.log"
cmake --build "$build" --target tarni-ca bench_peers_driver > "$out/build.log"

echo "== installing the pinned peer packages"
(cd "$here" && npm ci --no-audit --no-fund --loglevel=error)

common=(--tarni "$build/apps/tarni-ca/tarni-ca" --driver "$build/bench/peers_driver"
        --data "$data" --out "$out")
if [ -n "$runs" ]; then common+=(--runs "$runs"); fi

echo "== retargeting: tarni-ca against three.js"
node "$here/retarget.mjs" "${common[@]}" | tee "$out/retarget.txt"
echo
echo "== key reduction: tarni-ca against fit-curve, paper and simplify-js"
node "$here/reduce.mjs" "${common[@]}" | tee "$out/reduce.txt"
echo
node "$here/summary.mjs" "$out" | tee "$out/summary.txt"
