#!/bin/sh
# Runs the demo program for one second into a fresh directory and checks what
# it leaves: exit status 0, a wave file that sox reads as 44100 frames of
# stereo 16-bit PCM, and a log with every step in it. Then checks that bad
# command lines and outputs that cannot be written end with a non-zero status
# and a message naming what failed.
# Usage: check-demo.sh path/to/qzdemo
set -u
demo=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# ---- A good run ------------------------------------------------------------
if "$demo" --seconds 1 --out "$work/out" >"$work/stdout" 2>"$work/stderr"; then
  :
else
  fail "qzdemo --seconds 1 exited with status $?"
  cat "$work/stdout" "$work/stderr"
fi
wav=$work/out/qzdemo.wav
log=$work/out/qzdemo.log
[ -s "$work/stderr" ] && fail "a good run wrote to stderr: $(cat "$work/stderr")"
grep -q "equal to a second rendering" "$work/stdout" || fail "stdout lacks the sample check"
grep -q "CRC-32 0x[0-9A-F]* as written" "$work/stdout" || fail "stdout lacks the byte check"

if command -v soxi >/dev/null 2>&1; then
  check() {  # option, expected, what
    got=$(soxi "$1" "$wav" 2>&1)
    [ "$got" = "$2" ] || fail "soxi $1 gives '$got', expected '$2' ($3)"
  }
  check -t wav "file type"
  check -r 44100 "sample rate"
  check -c 2 "channels"
  check -b 16 "bits"
  check -s 44100 "frames: one second"
  check -e "Signed Integer PCM" "encoding"
else
  echo "soxi not found (tools/install-deps installs sox): wave format not checked by sox"
fi

if [ -f "$log" ]; then
  for line in \
    "Status: qzdemo: started: 1 s, seed" \
    "Status: qzdemo: wave file $wav" \
    "Status: qzdemo: queue thread started" \
    "Status: qzdemo: wave file opened for writing: PCM, 2 channels, 44100 Hz, 16 bits" \
    "Status: qzdemo: timer started at 23 ms and adjusted by 2200 units: 44 blocks to go" \
    "Info: qzdemo: block 43: frames 44032 to 44099 rendered and written" \
    "Status: qzdemo: timer stopped after 44 ticks" \
    "Status: qzdemo: wave file closed, lengths patched" \
    "Status: qzdemo: queue thread stopped" \
    "Status: qzdemo: read back 176456 bytes through QzFileInputStream, data CRC" \
    "Status: qzdemo: read back 44100 frames through QzWaveFile, equal to a second rendering" \
    "Status: -----------------------malloc_stats_begin-----------------------" \
    "Status: qzdemo: slot Qz_Sin holds" \
    "Status: qzdemo: done in"; do
    grep -qF "$line" "$log" || fail "the log lacks '$line'"
  done
  blocks=$(grep -c "Info: qzdemo: block [0-9]*: frames" "$log")
  [ "$blocks" = 44 ] || fail "the log has $blocks block lines, expected 44"
  grep -q "Error:" "$log" && fail "the log has error lines: $(grep Error: "$log")"
else
  fail "no log file at $log"
fi

# ---- Failures: status, and a message on stderr naming what failed ------------
expect_failure() {  # status, message, arguments...
  want=$1 message=$2
  shift 2
  "$demo" "$@" >"$work/stdout" 2>"$work/stderr"
  status=$?
  [ "$status" = "$want" ] || fail "qzdemo $* exited with $status, expected $want"
  grep -qF -e "$message" "$work/stderr" || fail "qzdemo $* did not say '$message' on stderr: $(cat "$work/stderr")"
}
expect_failure 2 "unknown option '--bogus'" --bogus
expect_failure 2 "--seconds wants a whole number from 1 to 600, not 'zero'" --seconds zero
expect_failure 2 "option --out needs a value" --out
touch "$work/plain"
expect_failure 1 "cannot create the output directory '$work/plain/sub': Not a directory" --out "$work/plain/sub"
expect_failure 1 "the output path '$work/plain' is not a directory" --out "$work/plain"
# The log's and the wave file's names taken by directories: the log, then the
# wave file (opened on the queue thread, which must be stopped on the way out).
mkdir -p "$work/nolog/qzdemo.log" "$work/nowav/qzdemo.wav"
expect_failure 1 "cannot create the log file $work/nolog/qzdemo.log (QZ_CREATE_FILE_LOG returned 0)" --out "$work/nolog"
expect_failure 1 "cannot create the wave file $work/nowav/qzdemo.wav: QzWaveFile::Open failed with 0x80004005" \
  --seconds 1 --out "$work/nowav"
grep -q "Status: qzdemo: queue thread stopped" "$work/nowav/qzdemo.log" ||
  fail "the failed run did not stop its queue thread"

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "qzdemo: all checks passed"
