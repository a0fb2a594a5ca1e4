#!/usr/bin/env bash
# Times rpktool on one package and prints its ratios from the same run:
#   verify: `rpktool verify` throughput (image data bytes per second) over
#           this machine's hashing limit, what `openssl speed -multi <CPUs>
#           -bytes 4096 sha256` hashes per second (aim >= 0.85); also over
#           `veritysetup verify` of the same image
#   make:   `rpktool make` time over `mke2fs -d` plus `veritysetup format`
#           run alone with the same filesystem options (aim <= 1.0)
# Everything runs from the page cache; each step is timed BENCH_ROUNDS times,
# the best time counts and the spread (worst over best) is shown.
#
# usage: bench/rpktool_bench.sh [BUILD_DIR]
#   BENCH_SIZE_MIB   package image size (default 256)
#   BENCH_ROUNDS     rounds per step (default 2)
#   BENCH_DIR        scratch directory (default: a new one under /tmp, removed afterwards)
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-${MEND_BUILD_DIR:-$repo/build}}
tool=$build/tools/rpktool/rpktool
size_mib=${BENCH_SIZE_MIB:-256}
rounds=${BENCH_ROUNDS:-3}
export PATH=$PATH:/usr/sbin:/sbin

[[ -x $tool ]] || { echo "bench: $tool not built (run scripts/build)" >&2; exit 1; }
for program in mke2fs veritysetup dumpe2fs; do
  command -v $program >/dev/null || { echo "bench: $program not found" >&2; exit 1; }
done

if [[ -n ${BENCH_DIR:-} ]]; then
  work=$BENCH_DIR
  mkdir -p "$work"
else
  work=$(mktemp -d /tmp/rpktool-bench-XXXXXX)
  trap 'rm -rf "$work"' EXIT
fi
key=$repo/tests/fixtures/avbtool/keys/rsa2048.pem

# Source tree: large incompressible files plus many small ones, about 80% of
# the image in all.
root=$work/root
rm -rf "$root"
mkdir -p "$root/system/lib64" "$root/system/app/many"
big_files=$(( size_mib * 3 / 4 / 8 ))
for ((i = 0; i < big_files; ++i)); do
  head -c $((8 << 20)) /dev/urandom > "$root/system/lib64/lib$i.so"
done
for ((i = 0; i < size_mib * 4; ++i)); do
  head -c $(( (i % 16 + 1) * 1024 )) /dev/urandom > "$root/system/app/many/f$i"
done
cat > "$work/config.txt" <<CONFIG
update_package_name=bench
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
"$tool" extract-public-key --key "$key" --output "$work/key.blob"
# The new files are on disk before anything is timed.
sync

now() { date +%s%N; }
declare -A best worst  # best and worst time per step, nanoseconds
time_step() {  # name command...
  local name=$1 start end elapsed
  shift
  start=$(now)
  "$@" >"$work/step.log" 2>&1 || { echo "bench: step '$name' failed: $*" >&2; cat "$work/step.log" >&2; exit 1; }
  end=$(now)
  elapsed=$((end - start))
  if [[ -z ${best[$name]:-} || $elapsed -lt ${best[$name]} ]]; then best[$name]=$elapsed; fi
  if [[ -z ${worst[$name]:-} || $elapsed -gt ${worst[$name]} ]]; then worst[$name]=$elapsed; fi
}
# The hashing limit, in bytes per second, next to each verify round.
hash_limit=0
measure_hash_limit() {
  local rate
  rate=$(openssl speed -seconds 1 -multi "$(nproc)" -bytes 4096 sha256 2>/dev/null |
         awk '/^sha256/ {sub(/k$/, "", $2); printf "%.0f", $2 * 1000}')
  if (( rate > hash_limit )); then hash_limit=$rate; fi
}

package=$work/pkg.zip
for ((r = 0; r < rounds; ++r)); do
  rm -f "$package"  # as the other tools, make writes a new file
  time_step make "$tool" make --config "$work/config.txt" --root "$root" --key "$key" \
    --output "$package" --partition-size "${size_mib}M" --quiet
done

# The same filesystem and tree through the standard tools.
info=$("$tool" info --json "$package")
field() { python3 -c "import json,sys; d=json.load(sys.stdin); print(d$1)" <<<"$info"; }
fs_size=$(field "['hashtree']['image_size']")
salt=$(field "['hashtree']['salt']")
root_digest=$(field "['hashtree']['root_digest']")
image_offset=$(field "['image']['offset']")
image_size=$(field "['image']['size']")
dd if="$package" of="$work/fs.img" bs=4096 skip=$((image_offset / 4096)) count=$((fs_size / 4096)) status=none
inodes=$(dumpe2fs -h "$work/fs.img" 2>/dev/null | awk -F: '/^Inode count/ {gsub(/ /, "", $2); print $2}')
for ((r = 0; r < rounds; ++r)); do
  rm -f "$work/base.img" "$work/base.tree"
  time_step mke2fs mke2fs -q -F -t ext4 -b 4096 -O ^has_journal,^resize_inode -m 0 -N "$inodes" \
    -L update_payload -E nodiscard,root_owner=0:0 -d "$root" "$work/base.img" $((fs_size / 4096))
  time_step format veritysetup format --no-superblock --format=1 --hash=sha256 \
    --data-block-size=4096 --hash-block-size=4096 --salt="$salt" "$work/base.img" "$work/base.tree"
done

# Verification of the same image: veritysetup on the bare image, rpktool on the package.
dd if="$package" of="$work/image.img" bs=4096 skip=$((image_offset / 4096)) count=$((image_size / 4096)) status=none
for ((r = 0; r < rounds; ++r)); do
  time_step veritysetup_verify veritysetup verify "$work/image.img" "$work/image.img" "$root_digest" \
    --hash-offset="$fs_size" --no-superblock --format=1 --data-block-size=4096 \
    --hash-block-size=4096 --data-blocks=$((fs_size / 4096)) --hash=sha256 --salt="$salt"
  time_step rpktool_verify "$tool" verify --key "$work/key.blob" "$package"
  measure_hash_limit
done

spread() { python3 -c "print(f'{$2 / $1:.2f}')"; }
python3 - "$fs_size" "${best[make]}" "${best[mke2fs]}" "${best[format]}" \
  "${best[veritysetup_verify]}" "${best[rpktool_verify]}" "$(nproc)" "$hash_limit" \
  "$(spread "${best[rpktool_verify]}" "${worst[rpktool_verify]}")" \
  "$(spread "${best[make]}" "${worst[make]}")" <<'REPORT'
import sys
fs, make, mke2fs, fmt, vs_verify, rpk_verify, cpus, limit = (int(x) for x in sys.argv[1:9])
verify_spread, make_spread = sys.argv[9:11]
mib = fs / (1 << 20)
s = lambda ns: ns / 1e9
print(f"data: {mib:.0f} MiB of ext4 in the image, {cpus} CPUs, best of the rounds")
print(f"hashing limit (openssl speed, {cpus} CPUs, 4 KiB)  {limit / (1 << 20):8.1f} MiB/s")
print(f"verify  veritysetup verify   {s(vs_verify):7.3f} s  {mib / s(vs_verify):8.1f} MiB/s")
print(f"        rpktool verify       {s(rpk_verify):7.3f} s  {mib / s(rpk_verify):8.1f} MiB/s"
      f"  (worst/best {verify_spread})")
print(f"        of the hashing limit {fs / s(rpk_verify) / limit:7.2f}   (aim >= 0.85)")
print(f"        over veritysetup     {vs_verify / rpk_verify:7.2f}x")
print(f"make    mke2fs -d            {s(mke2fs):7.3f} s")
print(f"        veritysetup format   {s(fmt):7.3f} s")
print(f"        rpktool make         {s(make):7.3f} s  (worst/best {make_spread})")
print(f"        time ratio           {make / (mke2fs + fmt):7.2f}x  (aim <= 1.0)")
REPORT
