#!/usr/bin/env bash
# Installs the library into a folder of its own, builds the examples there as a user would, outside
# this tree, and runs them against a server.
#   examples_test.sh BUILD_DIR EXAMPLES_DIR PORT
set -euo pipefail
build=$1 examples=$2 port=$3

work=$(mktemp -d)
children=()
cleanup() {
  local child
  for child in "${children[@]}"; do
    kill "$child" 2>/dev/null || true
    wait "$child" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "$*" >&2
  exit 1
}
# until_says FILE TEXT
until_says() {
  local deadline=$((SECONDS + 30))
  until grep -q -- "$2" "$1"; do
    [ $SECONDS -lt $deadline ] || fail "$1 does not say '$2': $(cat "$1")"
    sleep 0.05
  done
}
# expect WHAT OUTPUT WANTED
expect() { [ "$2" = "$3" ] || fail "$1: got '$2', wanted '$3'"; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" --component dev >"$work/install.log"
cp -r "$examples" "$work/examples"
launcher=$(command -v ccache || true)
cmake -S "$work/examples" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher" >"$work/cmake.log" 2>&1 || fail "$(cat "$work/cmake.log")"
cmake --build "$work/build" >"$work/build.log" 2>&1 || fail "$(cat "$work/build.log")"
! grep -rn "$(cd "$build" && pwd)" "$prefix"/lib*/ --include='*.cmake' --include='*.pc' -r ||
  fail "the installed package refers to the build"

# The same library without CMake.
pc=$(dirname "$(find "$prefix" -name portservice-client.pc)")
flags=$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs portservice-client)
# shellcheck disable=SC2086
$launcher g++ -std=c++17 -o "$work/fan_out" "$work/examples/fan_out.cpp" $flags

at=127.0.0.1:$port
"$build/bin/port_server" main --name main --endpoint "giop:tcp:$at" --state-dir "$work/state" \
  >"$work/server.log" 2>&1 &
children+=($!)
until_says "$work/server.log" "serving at"
PATH=$work/build:$PATH

work_queue "$at" work 3 >"$work/jobs" &
worker=$!
children+=($worker)
until portctl_sees=$("$build/bin/portctl" --server "$at" ls) && [[ $portctl_sees == *jobs*wait* ]]; do
  kill -0 $worker || fail "work_queue: no worker"
  sleep 0.05
done
work_queue "$at" add saw plane sand
wait $worker
expect work_queue "$(sort "$work/jobs" | tr '\n' ';')" "done: plane;done: sand;done: saw;"

request_reply "$at" serve 82 &
serving=$!
children+=($!)
until "$build/bin/portctl" --server "$at" exists questions >/dev/null 2>&1; do sleep 0.05; done
expect request_reply "$(request_reply "$at" ask 20 4)" "80 of 80 answered"
expect raw_client "$(raw_client "$at" questions raw)" "re: raw"
(cd "$work/build" && omniidl -p ../examples/tcl -b tcl_description \
  "$(find "$prefix" -name port_service.idl)" >port_service.tcl)
expect tcl "$(cd "$work/build" && ../examples/tcl/client.tcl "$at" questions tickle)" "re: tickle"
wait $serving

expect fan_out "$(fan_out "$at" tell nobody)" "nobody watches"
for i in 1 2 3; do
  "$work/fan_out" "$at" watch 2 >"$work/watch$i" &
  children+=($!)
done
for i in 1 2 3; do until_says "$work/watch$i" watching; done
fan_out "$at" tell one two
for i in 1 2 3; do until_says "$work/watch$i" two; done
expect watchers "$(cat "$work"/watch? | tr '\n' ';')" "watching;one;two;watching;one;two;watching;one;two;"

mkdir "$work/own"
mkfifo "$work/stay"
own_server "giop:tcp:127.0.0.1:$((port + 1))" "$work/own" 3 <"$work/stay" >"$work/own.log" &
own=$!
children+=($own)
exec 9>"$work/stay"
until_says "$work/own.log" "serving at"
expect own_server "$("$build/bin/portctl" --server "127.0.0.1:$((port + 1))" event watch readings --count 3 | tr '\n' ';')" \
  "reading 0;reading 1;reading 2;"
exec 9>&-
wait $own || fail "own_server ended with $?"
