#!/usr/bin/env bash
# The daemon's boot-time cost on the virtual device against the kernel's own
# floor, from one boot of tests/vm/run-vm:
#
#   daemon: the whole run of `mend` (process start to exit) over freshly
#           dropped packages, from cold caches, its output through a pipe;
#   floor:  per package, twice `dmsetup create` with the daemon's verity table
#           plus `dd` of the whole device, each from cold caches, over a loop
#           device set up as the daemon sets it up;
#
# for one 64 MiB, one 256 MiB, ten 16 MiB and three 16 MiB packages. Prints
# per scenario the median and spread over the rounds of both times, their
# ratio and the daemon's peak RSS; then the daemon's time per phase (from its
# own log lines, stamped as they arrive) and the kernel calls of one traced
# run. See docs/performance.md.
#
# usage: bench/boot_bench.sh [BUILD_DIR]
#   BENCH_ROUNDS   rounds, each running every scenario once (default 5)
#   BENCH_DIR      work directory, kept afterwards (default: a new one under
#                  /tmp, removed afterwards); its packages are reused
#   BENCH_BASELINE another build of the daemon, run beside this one in the
#                  same boot (e.g. the build of the main branch)
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-${MEND_BUILD_DIR:-$repo/build}}
build=$(cd "$build" 2>/dev/null && pwd) || { echo "bench: no build directory $build" >&2; exit 1; }
rounds=${BENCH_ROUNDS:-5}
mend=$build/system/core/init/mend/mend
tool=$build/tools/rpktool/rpktool
timed=$build/bench/run_timed
export PATH=$PATH:/usr/sbin:/sbin
export MEND_VM_KERNEL_DIR=${MEND_VM_KERNEL_DIR:-$build/vm/kernel}

for program in "$mend" "$tool" "$timed"; do
  [[ -x $program ]] || { echo "bench: $program not built (run scripts/build)" >&2; exit 1; }
done
for program in dmsetup losetup dd qemu-system-x86_64; do
  command -v $program >/dev/null || { echo "bench: no $program (run scripts/setup)" >&2; exit 1; }
done

if [[ -n ${BENCH_DIR:-} ]]; then
  work=$BENCH_DIR
  mkdir -p "$work"
else
  work=$(mktemp -d /tmp/boot-bench-XXXXXX)
  trap 'rm -rf "$work"' EXIT
fi
key=$repo/tests/fixtures/avbtool/keys/rsa2048.pem
pkgs=$work/pkgs
system=$work/system

# One package of SIZE MiB: three quarters of the image are incompressible
# files (the rest stays empty, which dm-verity skips), one module over
# /system/lib64.
make_package() {  # name size_mib
  local name=$1 size=$2 tree=$work/tree/$1 i
  [[ -f $pkgs/$name.zip ]] && return 0
  rm -rf "$tree"
  mkdir -p "$tree/system/lib64"
  local file_mib=4 files=$((size * 3 / 4 / 4))
  for ((i = 0; i < files; ++i)); do
    head -c $((file_mib << 20)) /dev/urandom > "$tree/system/lib64/lib${name}_$i.so"
  done
  cat > "$work/config.txt" <<CONFIG
update_package_name=$name
update_version_name=1.0
update_version_code=1
module_num=1
module_name=lib
module_path=/system/lib64
fix_method=overlay
ro_build_display_id=BENCH
trigger_rollback_count=3
structure_version=1
is_async_exec=0
CONFIG
  "$tool" make --config "$work/config.txt" --root "$tree" --key "$key" \
    --output "$pkgs/$name.zip" --partition-size "${size}M" --quiet
  rm -rf "$tree"
  "$tool" info --json "$pkgs/$name.zip" | python3 -c '
import json, sys
info = json.load(sys.stdin)
out = sys.argv[1]
open(out + ".trial", "w").write(info["hashtree"]["dm_table"] + "\n")
open(out + ".real", "w").write(info["hashtree"]["dm_table_restart"] + "\n")
open(out + ".range", "w").write("%d %d\n" % (info["image"]["offset"], info["image"]["size"]))
' "$pkgs/$name"
}

mkdir -p "$pkgs" "$system/lib64" "$system/etc/security"
echo "bench: making packages in $work" >&2
make_package p64 64
make_package p256 256
small=()
for i in 0 1 2 3 4 5 6 7 8 9; do
  make_package "p16_$i" 16
  small+=("p16_$i")
done
{
  echo "64MiB p64"
  echo "256MiB p256"
  echo "10x16MiB ${small[*]}"
  echo "3x16MiB ${small[*]:0:3}"
} > "$pkgs/plan"
echo "stock" > "$system/lib64/stock.txt"
"$tool" extract-public-key --key "$key" --output "$system/etc/security/rpk_public_key"

machine() {
  local cpu
  cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')
  echo "host: $cpu, $(nproc) CPUs, load $(cut -d' ' -f1-3 /proc/loadavg)"
  echo "guest: QEMU $(qemu-system-x86_64 --version | head -1 | awk '{print $4}') (TCG, 2 vCPUs)," \
    "$(cat "$MEND_VM_KERNEL_DIR/VERSION" 2>/dev/null || echo 'kernel not fetched yet')"
}
machine_before=$(machine)

vm_args=(--file "$pkgs:/data/bench" --file "$system:/system" --timeout 3600
         --bin "$mend" --bin "$timed"
         --bin "$(command -v dmsetup)" --bin "$(command -v losetup)" --bin "$(command -v dd)"
         --env "MEND_BINARY=$mend" --env "RUN_TIMED=$timed"
         --prop ro.product.mend.support=1 --prop persist.product.mend.support=1
         --prop ro.build.display.id=BENCH --prop ro.cold_boot_done=1)
if command -v strace >/dev/null; then vm_args+=(--bin "$(command -v strace)"); fi
if [[ -n ${BENCH_BASELINE:-} ]]; then
  baseline=$(realpath "$BENCH_BASELINE")
  vm_args+=(--bin "$baseline" --env "BASELINE_BINARY=$baseline")
fi

echo "bench: booting the virtual device ($rounds rounds)" >&2
"$repo/tests/vm/run-vm" "${vm_args[@]}" --script "$repo/bench/boot_bench_guest.sh" \
  -- /data/bench "$rounds" > "$work/vm.out" 2> "$work/vm.err" \
  || { echo "bench: the virtual device failed:" >&2; cat "$work/vm.err" "$work/vm.out" >&2
       exit 1; }
grep '^bench: ' "$work/vm.out" "$work/vm.err" >&2 || true

echo "$machine_before"
python3 "$repo/bench/boot_report.py" "$work/vm.out"
