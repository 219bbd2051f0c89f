#!/usr/bin/env bash
# What a client behind a sub server sees while its main server is killed and comes back.
#   examples/failover_tour.sh            builds what is missing; ports 9710 (main) and 9711 (sub)
#   examples/failover_tour.sh --port N   ports N and N+1
#   BIN=DIR examples/failover_tour.sh    the programs in DIR, nothing is built
set -euo pipefail
export LC_ALL=C
TOP=$(cd "$(dirname "$0")/.." && pwd)

port=9710
[ "${1:-}" = --port ] && port=${2:?--port needs a number}
if [ -z "${BIN:-}" ]; then
  . "$TOP/cmake/packages.sh"
  need "${BUILD_PACKAGES[@]}"
  configure_and_build "$TOP/build" -DPORTSVC_TESTS=OFF
  BIN=$TOP/build/bin
fi
PATH=$BIN:$PATH
main=127.0.0.1:$port
sub=127.0.0.1:$((port + 1))

state=$(mktemp -d)
children=()
cleanup() {
  trap - EXIT INT TERM
  kill "${children[@]}" 2>/dev/null || true
  wait
  rm -rf "$state"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

cat >"$state/servers.ini" <<EOF
[main]
role = main
reference = corbaloc:iiop:$main/PortService

[sub]
role = slave
reference = corbaloc:iiop:$sub/PortService
EOF

# start ROLE ADDRESS [OPTION...]: starts a server and waits until it serves.
start() {
  local role=$1 address=$2
  shift 2
  rm -f "$state/$role.ior"
  port_server "$role" --name "$role" --endpoint "giop:tcp:$address" --state-dir "$state/$role" \
    --directory "$state/servers.ini" --ior-file "$state/$role.ior" "$@" &
  children+=($!)
  local deadline=$((SECONDS + 20))
  until [ -s "$state/$role.ior" ]; do
    kill -0 "${children[-1]}" 2>/dev/null || exit 1
    [ $SECONDS -lt $deadline ] || { echo "the $role server does not come up" >&2; exit 1; }
    sleep 0.05
  done
}

began=${EPOCHREALTIME/./}
say() {
  local hundredths=$(((${EPOCHREALTIME/./} - began) / 10000))
  printf '\n[%2d.%02d s] %s\n' $((hundredths / 100)) $((hundredths % 100)) "$*"
}
show() {
  printf '$ %s\n' "${*//$state/DIR}"
  "$@"
}

# The owner, on the main server. Like any owner it comes back when its server does.
own() {
  while true; do
    portctl --server "$main" serve orders --exec 'tr a-z A-Z' 2>/dev/null &
    owner=$!
    trap 'kill $owner; exit' TERM
    wait $owner || true
    sleep 0.2
  done
}

# The client: asks through the sub server, over and over, and notes when and with what outcome.
ask() {
  local number answer
  for ((number = 1; ; ++number)); do
    if answer=$(portctl --server "$sub" send orders "order $number" --wait --timeout 2 2>&1); then
      [ "$answer" = "ORDER $number" ] && answer=answered || answer="wrong answer: $answer"
    else
      answer=$(sed -E 's/^portctl: [^:]*: ([0-9]+ [a-z_]+):.*/\1/' <<<"$answer")
    fi
    echo "$EPOCHREALTIME $answer" >>"$state/seen"
    sleep 0.05
  done
}

say "a main and a sub server, a port, and its snapshot"
start main "$main"
main_process=${children[-1]}
start sub "$sub" --main main
show portctl --server "$main" create orders --limit 100
show portctl --server "$main" snapshot save

say "an owner on the main server; a client that keeps asking through the sub server"
own &
children+=($!)
ask &
children+=($!)
sleep 2

say "kill -9, the main server"
killed=$EPOCHREALTIME
{ kill -KILL "$main_process" && wait "$main_process"; } 2>/dev/null || true
sleep 2

say "the main server is started again, with the ports of its snapshot and other port ids"
start main "$main" --restore
show portctl --server "$sub" refresh --main "$main"
deadline=$((SECONDS + 20))
until tail -n 1 "$state/seen" | grep -q ' answered$' || [ $SECONDS -ge $deadline ]; do
  sleep 0.1
done
sleep 1

say "what the client saw, in seconds after the kill"
awk -v killed="$killed" '
  { time = $1 - killed; $1 = ""; outcome = substr($0, 2); count[outcome]++ }
  outcome != last { printf "  %+6.2f  %s\n", time, outcome; last = outcome }
  outcome == "answered" && !failed { before = time }
  outcome != "answered" { failed = 1 }
  outcome == "answered" && failed && !after { after = time }
  END {
    print "\n  requests  outcome"
    fflush()
    for (each in count) printf "  %8d  %s\n", count[each], each | "sort -rn"
    close("sort -rn")
    if (!after) { print "\n  it was never answered again"; exit 1 }
    printf "\n  without an answer for %.2f s\n", after - before
  }' "$state/seen"
