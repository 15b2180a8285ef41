#!/usr/bin/env bash
# Runs every benchmark of bench/ from a Release build and writes the report:
#   docs/perf/report.md   tables of the figures and of their ratios to the baselines
#   docs/perf/*.png       big-answer and app-count scaling (gnuplot)
#   docs/perf/raw/        the raw lines of each run
# Headline figures run with every process pinned to one core (BENCH_CORE, default 0);
# the round trips run unpinned too. Log level: the default (info) with lines going to a
# file through VELNA_LOG_FILE, and the round trips again with VELNA_LOG_LEVEL=error.
# The pinned round trips and the big answers run BENCH_ROUNDS times (default 5), in turn,
# and each figure is the median of its rounds: one run on a shared virtual machine moves
# by more than the changes being weighed.
# Environment: BUILD_DIR (default build-release), REPORT_DIR (default docs/perf),
# BENCH_MAX_APPS (default 500), BENCH_ROUNDS (default 5). With --from-raw, nothing runs:
# the report and the plots are written again from the raw lines of the last run.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build-release}
out=${REPORT_DIR:-docs/perf}
core=${BENCH_CORE:-0}
max_apps=${BENCH_MAX_APPS:-500}
rounds=${BENCH_ROUNDS:-5}
bin=$build/bench
raw=$out/raw
mkdir -p "$raw"

logdir=$(mktemp -d /tmp/talvo-bench-log.XXXXXX)
trap 'rm -rf "$logdir"' EXIT
export VELNA_LOG_FILE=$logdir/velna.log
unset VELNA_LOG_LEVEL
pin=(taskset -c "$core")

step() { echo "bench-report: $*" >&2; }

# Round trips and their floors, under the command prefix given (pinning or none).
round_trips() {
  "$@" "$bin/peers/peers-bench"
  if [ -x "$bin/peers/grpc-bench" ]; then "$@" "$bin/peers/grpc-bench"; fi
  "$@" "$bin/library/library-bench" roundtrip
}

# The lines of several rounds of one measurement (files of "name median p99 cpu extra"),
# as one line per name: the median of each figure over the rounds, the first extra.
median_of_rounds() {
  awk -F'\t' -v OFS='\t' '
    function median(list,   v, n, i, j, t) {
      n = split(list, v, " ")
      for (i = 2; i <= n; i++) for (j = i; j > 1 && v[j - 1] + 0 > v[j] + 0; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
      return n % 2 ? v[(n + 1) / 2] : sprintf("%.2f", (v[n / 2] + v[n / 2 + 1]) / 2)
    }
    !($1 in seen) { seen[$1] = 1; order[++names] = $1; extra[$1] = $5 }
    { for (k = 2; k <= 4; k++) fig[$1, k] = fig[$1, k] " " $k }
    END { for (i = 1; i <= names; i++) { n = order[i]
            print n, median(fig[n, 2]), median(fig[n, 3]), median(fig[n, 4]), extra[n] } }' "$@"
}

run_all() {
  rm -rf "$raw/rounds"
  mkdir -p "$raw/rounds"
  for r in $(seq "$rounds"); do
    step "round $r of $rounds: round trips pinned to core $core, at level info, then error; big answers"
    round_trips "${pin[@]}" >"$raw/rounds/pinned-info.$r.tsv"
    VELNA_LOG_LEVEL=error "${pin[@]}" "$bin/library/library-bench" roundtrip \
      >"$raw/rounds/pinned-error.$r.tsv"
    { "${pin[@]}" "$bin/peers/peers-bench" big; "${pin[@]}" "$bin/library/library-bench" big; } \
      >"$raw/rounds/big.$r.tsv"
  done
  for m in pinned-info pinned-error big; do median_of_rounds "$raw"/rounds/"$m".*.tsv >"$raw/$m.tsv"; done
  step "round trips, unpinned"
  round_trips env >"$raw/unpinned-info.tsv"
  step "1 to $max_apps apps"
  { "${pin[@]}" "$bin/peers/peers-bench" scale "$max_apps"
    "${pin[@]}" "$bin/library/library-bench" scale "$max_apps"; } >"$raw/scale.tsv"
  step "RSS over 100000 requests"
  "${pin[@]}" "$bin/library/library-bench" rss 100000 >"$raw/rss.tsv"
  step "log lines"
  "${pin[@]}" "$bin/logging/dlog-bench" --benchmark_format=csv 2>/dev/null |
    grep '^"BM_' >"$raw/dlog.csv"
  step "loop turn of a channel"
  "${pin[@]}" "$bin/channels/channel-bench" --benchmark_format=csv 2>/dev/null |
    grep '^"BM_' >"$raw/channels.csv"
  # when, the commit measured, the load average at the end, the rounds
  printf '%s|%s|%s|%s\n' "$(date -u '+%Y-%m-%d %H:%M UTC')" \
    "$(git rev-parse --short HEAD 2>/dev/null || echo unknown)" \
    "$(cut -d' ' -f1-3 /proc/loadavg)" "$rounds" >"$raw/run"
}

[ "${1:-}" = --from-raw ] || run_all

step "writing $out/report.md"
IFS='|' read -r when commit load ran_rounds <"$raw/run"
machine="$(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), Linux $(uname -r), load average at the end $load"
awk -v machine="$machine" -v commit="$commit" -v core="$core" -v when="$when" -v rounds="${ran_rounds:-1}" \
  -f scripts/bench-report.awk "$raw"/pinned-info.tsv "$raw"/pinned-error.tsv \
  "$raw"/unpinned-info.tsv "$raw"/big.tsv "$raw"/scale.tsv "$raw"/rss.tsv "$raw"/dlog.csv "$raw"/channels.csv \
  >"$out/report.md"

# Plot data: size, then microseconds per MiB of each series; apps, then the medians.
awk -F'\t' '{ split($1, p, "-"); size = p[length(p)]; sub("MiB", "", size)
              series = $1; sub("-[0-9]+MiB$", "", series)
              v[size, series] = $2 / size; sizes[size] = 1 }
     END { for (s in sizes) print s, v[s, "library-big"], v[s, "transport-big"],
                                    v[s, "stream-raw"], v[s, "memcpy"] }' \
  "$raw/big.tsv" | sort -n >"$logdir/big.dat"
awk -F'\t' '{ n = $1; sub(".*-", "", n); kind = $1; sub("-[0-9]+$", "", kind); v[n, kind] = $2; c[n, kind] = $4; ns[n] = 1 }
     END { for (n in ns) print n, v[n, "scale-rr"], v[n, "scale-one"], c[n, "scale-rr"], c[n, "scale-one"],
                               v[n, "raw-scale-rr"] }' \
  "$raw/scale.tsv" | sort -n >"$logdir/scale.dat"
if command -v gnuplot >/dev/null; then
  gnuplot <<PLOT
set terminal pngcairo size 800,480 noenhanced
set grid
set key top left
set logscale x 2
set output "$out/big-answers.png"
set title "Big answer over the message port, 1 MiB pieces: time per MiB"
set xlabel "answer size (MiB)"
set ylabel "microseconds per MiB"
set yrange [0:*]
plot "$logdir/big.dat" using 1:2 with linespoints title "library (joined answer)", \
     "" using 1:3 with linespoints title "transport alone (same pieces)", \
     "" using 1:4 with linespoints title "raw socket stream", \
     "" using 1:5 with linespoints title "memcpy"
set output "$out/apps.png"
set title "rpc-port round trip with N apps connected (256 B)"
set xlabel "apps connected"
set ylabel "microseconds"
plot "$logdir/scale.dat" using 1:2 with linespoints title "median, round-robin", \
     "" using 1:3 with linespoints title "median, all to one app", \
     "" using 1:4 with linespoints title "client CPU, round-robin", \
     "" using 1:5 with linespoints title "client CPU, all to one app", \
     "" using 1:6 with linespoints title "raw floor: echo processes, round-robin"
PLOT
else
  step "gnuplot not found: no plots (scripts/bench.sh installs it)"
fi
step "done"
