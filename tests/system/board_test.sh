#!/usr/bin/env bash
# The live board as a browser shows it: servers, ports, rates, search, sorting, and names that try to
# be markup. BIN holds the programs; with SCREENSHOT=FILE.png a picture is kept.
set -euo pipefail
command -v chromium >/dev/null || {
  echo "SKIPPED: there is no chromium"
  exit 77
}
folder=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$folder"
}
trap cleanup EXIT

port=$((RANDOM % 4000 + 14000))
cat >"$folder/servers.ini" <<END
[plant1]
role = main
reference = corbaloc:iiop:127.0.0.1:$port/PortService
[line7]
role = slave
reference = corbaloc:iiop:127.0.0.1:$((port + 1))/PortService
END

until_true() {
  local end=$((SECONDS + 20))
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || { echo "in vain: $*"; exit 1; }
    sleep 0.1
  done
}
# serve ROLE NAME PORT [OPTION...]
serve() {
  "$BIN/port_server" "$1" --name "$2" --endpoint "giop:tcp:127.0.0.1:$3" --state-dir "$folder/$2" \
    --directory "$folder/servers.ini" "${@:4}" &
  pids+=($!)
}
main=127.0.0.1:$((port + 2))
sub=127.0.0.1:$((port + 3))
serve main plant1 "$port" --metrics $main --metrics-of line7=$sub \
  --feed "alarms=while echo tank 1 full; echo tank 2 full; do sleep 0.01; done"
serve sub line7 $((port + 1)) --main plant1 --metrics $sub --metrics-of plant1=$main
until_true curl -sf http://$main/readyz
until_true curl -sf http://$sub/readyz

export PORTSVC_SERVER=127.0.0.1:$port
"$BIN/portctl" create alarms --kind box --limit 100000
"$BIN/portctl" create orders --limit 100
"$BIN/portctl" create small --kind box --limit 4
"$BIN/portctl" create '<img src=x onerror=document.title="taken">' --kind box --limit 10
for i in 1 2 3 4 5 6 7; do "$BIN/portctl" event put small "event $i"; done
"$BIN/portctl" serve orders --exec 'tr a-z A-Z' &
pids+=($!)
"$BIN/portctl" --server 127.0.0.1:$((port + 1)) send orders hello --wait

# shown URL: the page's text, as it is after some seconds.
shown() {
  chromium --headless --no-sandbox --disable-gpu --user-data-dir="$folder/browser" \
    --virtual-time-budget=7000 --dump-dom "$1" 2>/dev/null | tee "$folder/page"
}
# expect PATTERN: the page of the last shown has it.
expect() {
  grep -qE -- "$1" "$folder/page" || { echo "the page lacks: $1"; cat "$folder/page"; exit 1; }
}
shown "http://$main/" >/dev/null
expect '>plant1, main server<'
expect '<td class="name">line7</td><td>sub</td><td>up for [0-9]+ s</td><td>plant1</td>.*<a href="http://'$sub'/"'
expect '<td class="name">orders</td><td>packet</td><td>portctl .*1 to take'
expect '<td class="name">small</td>'
expect '<td class="name">&lt;img src=x onerror=document.title="taken"&gt;</td>'
expect '<title>plant1 - port service</title>'
# The browser's time runs faster than the feed's.
rate='<td class="name">alarms</td><td>box</td>[^/]*</td>.* of 100,000</td><td class="n">[1-9][0-9.]*</td>'
for attempt in 1 2 3 4 5; do
  grep -qE "$rate" "$folder/page" && break
  shown "http://$main/" >/dev/null
done
expect "$rate"
shown "http://$main/#search=ord" >/dev/null
expect '1 of 4 shown'
grep -q '>alarms<' "$folder/page" && { echo "the search shows what it should not"; exit 1; }
shown "http://$main/#sort=dropped" >/dev/null
expect 'id="ports"><tr><td class="name">small</td>.*<td class="n bad">3</td>'
shown "http://$sub/" >/dev/null
expect '>line7, sub server<'
expect '<td class="name">plant1</td><td>main</td><td>reached for '
expect '<td class="name">orders</td><td>proxy</td>'

if [ -n "${SCREENSHOT:-}" ]; then
  chromium --headless --no-sandbox --disable-gpu --user-data-dir="$folder/browser" --hide-scrollbars \
    --virtual-time-budget=7000 --window-size=1200,640 --screenshot="$SCREENSHOT" "http://$main/" 2>/dev/null
fi
echo "the board shows what there is"
