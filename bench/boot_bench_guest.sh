#!/bin/sh
# The virtual device's side of bench/boot_bench.sh; run by tests/vm/run-vm.
#
#   boot_bench_guest.sh DIR ROUNDS
#
# DIR (on the /data disk) holds the packages (NAME.zip), their verity tables
# with DEV for the data and hash device (NAME.trial, NAME.real), their image
# range in the zip (NAME.range: "OFFSET SIZE") and the plan: one scenario a
# line, "LABEL NAME...". Each round runs, per scenario, the daemon and then
# the floor over the same packages, both from cold caches. Results are
# printed as lines the host parses:
#   RESULT LABEL ROUND daemon WALL_MS MAXRSS_KIB EXIT
#   RESULT LABEL ROUND baseline WALL_MS MAXRSS_KIB EXIT   (with $BASELINE_BINARY)
#   RESULT LABEL ROUND floor WALL_MS          (dd through the page cache)
#   RESULT LABEL ROUND floor_direct WALL_MS   (dd with direct I/O)
#   LOG LABEL ROUND MS LINE      (the daemon's stamped log, after all rounds)
#   TRACE LINE                   (one extra traced daemon run, if strace is there)
set -u
dir=$1
rounds=$2
mend=$MEND_BINARY
timed=$RUN_TIMED
logs=/tmp/bench-logs
mkdir -p "$logs" /data/rvx/imgs /data/rvx/files /data/rvx/msgs /mnt/rvx

cold() {
  sync
  echo 3 > /proc/sys/vm/drop_caches
}

# Milliseconds of one timed command.
timed_ms() {
  "$timed" "$@" > /tmp/timed.out 2>&1
  status=$?
  line=$(grep '^run_timed ' /tmp/timed.out)
  [ $status = 0 ] || { echo "bench: failed ($status): $*" >&2; cat /tmp/timed.out >&2; }
  ms=${line#*wall_ms=}
  echo "${ms%% *}"
}

# Lays out the packages of a scenario as the app would leave them: the zips
# in the package directory and one state record each.
stage() {
  : > /data/rvx/files/shared_prefs.cfg
  rm -f /data/rvx/msgs/* /data/rvx/imgs/*
  task=1
  for name in "$@"; do
    ln "$dir/$name.zip" "/data/rvx/imgs/$name.zip"
    record='{"boot_failed_count":0,"cancel_task_id":0,"first_report":false,'
    record=$record'"image_path":"/data/rvx/imgs/%s.zip","is_async_repair":false,'
    record=$record'"is_boot_success":false,"is_repair_success":false,"need_cancel":false,'
    record=$record'"need_delete":false,"reboot_type":0,"task_id":%d,'
    record=$record'"update_package_name":"%s","update_version_code":1}\n'
    # shellcheck disable=SC2059  # the record is the format
    printf "$record" "$name" "$task" "$name" >> /data/rvx/files/shared_prefs.cfg
    task=$((task + 1))
  done
}

# Undoes what the daemon left: overlays, package mounts, verity devices (the
# loop devices under them clear themselves).
unstage() {
  while grep -q ' /system/lib64 overlay ' /proc/mounts; do umount /system/lib64; done
  for name in "$@"; do
    umount "/mnt/rvx/$name" 2>/dev/null
    rmdir "/mnt/rvx/$name" 2>/dev/null
    /usr/sbin/dmsetup remove "$name" 2>/dev/null
  done
  rm -f /data/rvx/imgs/*
}

run_daemon() {  # kind binary label round name...
  kind=$1 binary=$2 label=$3 round=$4
  shift 4
  stage "$@"
  cold
  log=/dev/null
  [ "$kind" = daemon ] && log=$logs/$label.$round
  "$timed" --log "$log" -- "$binary" > /tmp/daemon.out 2>&1
  line=$(grep '^run_timed ' /tmp/daemon.out)
  repaired=$(grep -c 'status\\":1}' /data/rvx/msgs/native.msg 2>/dev/null)
  [ "${repaired:-0}" = $# ] || echo "bench: $label round $round: $repaired of $# repaired" >&2
  wall=${line#*wall_ms=}; wall=${wall%% *}
  rss=${line#*maxrss_kib=}; rss=${rss%% *}
  code=${line##*exit=}
  echo "RESULT $label $round $kind $wall $rss $code"
  unstage "$@"
}

# The kernel's own cost for the same packages: per package, a loop device
# set up as the daemon sets it up (read-only, direct I/O, 4096-byte blocks,
# no scheduler, 128 KiB read-ahead), then twice a fresh verity device with
# the daemon's table, created by dmsetup and read whole by dd from cold
# caches. Each pass is measured twice: dd through the page cache (the floor)
# and dd with direct I/O (what the kernel can do at best).
floor_pass() {  # table_file numbers [dd flag]
  table=$(sed "s/DEV/$2/g" "$1")
  cold
  create=$(timed_ms /usr/sbin/dmsetup create bench-floor --readonly --readahead 256 \
    --table "$table")
  dm=$(/usr/sbin/dmsetup info -c --noheadings -o blkdevname bench-floor)
  read_ms=$(timed_ms /usr/bin/dd if="/dev/$dm" of=/dev/null bs=4M ${3:+"$3"})
  /usr/sbin/dmsetup remove bench-floor
  awk -v a="$create" -v b="$read_ms" 'BEGIN { printf "%.1f", a + b }'
}

run_floor() {  # label round name...
  label=$1 round=$2
  shift 2
  stage "$@"
  buffered=0 direct=0
  for name in "$@"; do
    read -r offset size < "$dir/$name.range"
    loop=$(/usr/sbin/losetup --show -f -r --direct-io=on -b 4096 -o "$offset" \
      --sizelimit "$size" "/data/rvx/imgs/$name.zip")
    dev=${loop#/dev/}
    echo none > "/sys/block/$dev/queue/scheduler"
    echo 128 > "/sys/block/$dev/queue/read_ahead_kb"
    numbers=$(cat "/sys/block/$dev/dev")
    for pass in trial real; do
      ms=$(floor_pass "$dir/$name.$pass" "$numbers")
      buffered=$(awk -v t="$buffered" -v a="$ms" 'BEGIN { printf "%.1f", t + a }')
      ms=$(floor_pass "$dir/$name.$pass" "$numbers" iflag=direct)
      direct=$(awk -v t="$direct" -v a="$ms" 'BEGIN { printf "%.1f", t + a }')
    done
    /usr/sbin/losetup -d "$loop"
  done
  echo "RESULT $label $round floor $buffered"
  echo "RESULT $label $round floor_direct $direct"
  unstage "$@"
}

round=1
while [ $round -le "$rounds" ]; do
  while read -r label names <&3; do
    # shellcheck disable=SC2086  # the names are words
    run_daemon daemon "$mend" "$label" $round $names
    if [ -n "${BASELINE_BINARY:-}" ]; then
      # shellcheck disable=SC2086
      run_daemon baseline "$BASELINE_BINARY" "$label" $round $names
    fi
    # shellcheck disable=SC2086
    run_floor "$label" $round $names
  done 3< "$dir/plan"
  round=$((round + 1))
done

for file in "$logs"/*; do
  base=${file##*/}
  sed "s/^/LOG ${base%.*} ${base##*.} /" "$file"
done

# A cross-check of where the time goes, in kernel calls: one more run of the
# first scenario under strace (slower; not part of the figures).
if [ -x /usr/bin/strace ]; then
  read -r label names < "$dir/plan"
  # shellcheck disable=SC2086
  stage $names
  cold
  /usr/bin/strace -f -ttt -T -o /tmp/trace "$mend" > /dev/null 2>&1
  sed 's/^/TRACE /' /tmp/trace
  # shellcheck disable=SC2086
  unstage $names
fi
