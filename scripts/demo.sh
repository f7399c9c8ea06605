#!/usr/bin/env bash
# The agent's main job, end to end on this machine: a throwaway PKI, the
# local back end with mutual TLS and stapled OCSP, and the host program
# driving liblum.so.0 as a television would. The device registers,
# synchronises and polls on a short schedule; the television submits a few
# data items, which the agent packages and uploads (one of them is not
# allowed, so the package reports it as rejected). Meanwhile the user asks for
# remote support: the television shows the session code, and a support agent
# at the back end's console sends tasks: which commands the television
# offers, the device's facts, its picture settings; the agent switches the
# picture mode to Cinema, reads it back, presses HOME on the remote and runs
# the network diagnostic. The host's television is simulated, so its "[tv]"
# lines show the picture mode and the key press arrive. At the same time the
# back end offers a software update, which the user allows: the agent
# downloads it block by block (the status lines show the percentage),
# verifies every block and the whole payload against the signed metadata, and
# the user confirms it. The back end also lists one named object (DRMP),
# which the agent installs. Then the television is switched off with the
# session held, which suspends it; the back end takes the object off its
# list; switched on again, the television resumes the session (same code),
# the agent removes the object, and the user ends the session.
#   scripts/demo.sh [longest first run in seconds, default 90]
# The answers' contents are checked; a failed check fails the demo at its
# end.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-90}
"$root/scripts/deps.sh"
"$root/scripts/build.sh" release demo
bin="$root/build/release"
prefix="$root/build/install"
cmake --install "$bin" --prefix "$prefix" >/dev/null
echo "== liblum installed under $prefix"

work=$(mktemp -d /tmp/lum-demo.XXXXXX)
backend_pid=""
host_pid=""
cleanup() {
  [ -n "$host_pid" ] && kill "$host_pid" 2>/dev/null && wait "$host_pid" 2>/dev/null
  [ -n "$backend_pid" ] && kill "$backend_pid" 2>/dev/null && wait "$backend_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# A free loopback port for the back end.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])' 2>/dev/null || echo 18443)

echo "== Making a throwaway PKI for device acme.lum.localhost:$port"
mkdir -p "$work/pki" "$work/state"
"$bin/tools/pki/lum-pki" "$work/pki" --opid acme --port "$port" >/dev/null

cat > "$work/tunables.json" <<JSON
{"daPollDelayFixedMs": 3000, "daPollDelayVariedMs": 1000,
 "daRetryDelayFixedMs": 2000, "daRetryDelayVariedMs": 0,
 "daMessageTimeoutMs": 5000, "daConnectTimeoutMs": 5000,
 "dsStartupDelayFixedMs": 2000, "dsStartupDelayVariedMs": 0,
 "dsStandardDelayFixedMs": 3000, "dsStandardDelayVariedMs": 500,
 "dsRetryDelayFixedMs": 2000, "dsRetryDelayVariedMs": 0,
 "dsAggressiveDelayFixedMs": 1000, "dsAggressiveDelayVariedMs": 0,
 "dsMessageTimeoutMs": 5000, "dsConnectTimeoutMs": 5000,
 "svRetryDelayFixedMs": 1000, "svRetryDelayVariedMs": 0,
 "svMessageTimeoutMs": 10000, "svConnectTimeoutMs": 5000,
 "svPingTestHostname": "localhost", "svNetworkDiagTimeoutMs": 10000}
JSON
cat > "$work/config.json" <<JSON
{"core": {"persistentPath": "$work/state",
  "loggers": [{"type": "console", "argument": "stdout", "format": "medium",
    "filters": [{"service": "core", "category": "state", "severity": "info"},
                {"service": "core", "category": "webservice", "severity": "info"},
                {"service": "core", "category": "supervisor", "severity": "info"},
                {"service": "ds", "category": "state", "severity": "info"},
                {"service": "ds", "category": "webservice", "severity": "info"},
                {"service": "sv", "category": "state", "severity": "info"},
                {"service": "sv", "category": "webservice", "severity": "info"}]}]},
 "dataServices": {"maximumDataBytes": 262144},
 "supportView": {"pauseSessionOnTerm": true},
 "softwareUpdate": {"stagingLocation": "$work/staging.raw"},
 "drmp": {}}
JSON
cat > "$work/device.json" <<JSON
{"id": "DEMO-0001", "model": "LT-55", "subModel": "LT-55-EU", "brand": "Acme",
 "esn": "ESN-DEMO-0001", "mac": "00:11:22:33:44:55", "swVersion": "1.0.0"}
JSON

# What the television reports; "TvVolume" is not among the allowed ids.
cat > "$work/items.txt" <<'ITEMS'
{"id":"TvPowerState","value":"on"}
{"id":"TvChannelTune","channel":"7","source":"dvb-t"}

{"id":"TvVolume","level":12}
{"id":"TvChannelTune","channel":"12","dateTime":"2024-05-01T20:15:00.000Z"}
{"id":"TvPowerState","value":"standby"}
ITEMS

allowed=TvPowerState,TvChannelTune,DeviceInfoEsn,DeviceInfoMac
# The software update the back end offers: 256 KiB in blocks of 16 KiB,
# served with a pause per block so the percentage can be seen moving.
head -c 262144 /dev/urandom > "$work/update.bin"
echo "== Starting the local back end on 127.0.0.1:$port (allowed data items: $allowed)"
# The back end's standard input is its support console, fed from a FIFO that
# this script keeps open (fd 3). Its output goes through a process
# substitution so that $! is the back end itself (for a pipeline it would be
# sed, and the back end would outlive us), and into a file the script reads.
mkfifo "$work/console"
exec 3<>"$work/console"
"$bin/tools/backend/lum-backend" --pki "$work/pki" --port "$port" \
  --tunables "$work/tunables.json" --allowed-ids "$allowed" --region eu1 \
  --long-poll-ms 5000 --update-payload "$work/update.bin" --update-version 2.0.0 \
  --update-block-bytes 16384 --update-block-ms 150 < "$work/console" \
  > >(tee "$work/backend.out" | sed -u 's/^/[backend] /') &
backend_pid=$!
for _ in $(seq 50); do
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
  sleep 0.1
done

# Waits until `file` holds a line matching `pattern`, for at most 30 s (or
# the seconds given third).
wait_for() {
  for _ in $(seq $((${3:-30} * 10))); do
    grep -q -- "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "demo: gave up waiting for '$2'" >&2
  return 1
}

# Sends one task to the device through the console and waits for its answer,
# which the console prints on one line after the answer's heading; the line
# ends up in $answer ("" when none came).
answer=""
task() {
  local queued id
  queued=$(grep -c '^queued task ' "$work/backend.out" || true)
  echo "task * $*" >&3
  answer=""
  for _ in $(seq 300); do
    id=$(grep '^queued task ' "$work/backend.out" |
      sed -n "$((queued + 1))s/^queued task \([0-9]*\) .*/\1/p" || true)
    if [ -n "$id" ]; then
      answer=$(grep -A1 "^task answer from .*, TASK_ID $id," "$work/backend.out" |
        sed -n 2p || true)
      [ -n "$answer" ] && return 0
    fi
    sleep 0.1
  done
  echo "demo: no answer to task $*" >&2
}

# Records a check of what the support agent saw: `check WHAT PATTERN TEXT`
# passes when TEXT matches the extended regular expression PATTERN.
failed_checks=()
check() {
  if grep -Eq -- "$2" <<<"$3"; then
    echo "   ok: $1"
  else
    echo "   NOT AS EXPECTED: $1"
    failed_checks+=("$1")
  fi
}

echo "== Running the host program (with a simulated television) until the support agent is done, at most $seconds s"
echo "   it submits these data items once the agent knows the allowed ids:"
grep -v '^$' "$work/items.txt" | sed 's/^/     /'
echo "   and the user asks for remote support right away"
# The host is exec'd, so that $! of a background run is lum-host itself and
# SIGTERM reaches it. Its television keeps its files in $work/tv.
host() {
  exec "$bin/tools/host/lum-host" --identity "$work/pki/identity.json" \
    --config "$work/config.json" --device "$work/device.json" --log-through \
    --tv-dir "$work/tv" "$@" > >(tee -a "$work/tv.out" | sed -u 's/^/[host] /')
}
# The back end lists one object for the television to hold.
echo "drmp put channel-list {\"channels\":[\"1 Demo One\",\"2 Demo Two\"]}" >&3
wait_for "$work/backend.out" 'DRMP object channel-list listed'
echo "   and the user allows software updates (download, then confirm once verified)"
host --items "$work/items.txt" --items-delay-ms 200 --open-session \
  --check-update --update-permission 1 --confirm-update \
  --run-seconds "$seconds" &
host_pid=$!
wait_for "$work/tv.out" 'session=4 code=[0-9]'
code=$(grep -o 'session=4 code=[0-9]*' "$work/tv.out" | head -1 | cut -d= -f3)
echo "== The television shows the session code $code; the support agent asks for the commands"
echo "compact on" >&3
task FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS
echo "== The support agent reads the device's facts and picture settings"
task FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO EXECUTE {}
task B7E20D_LIVE_SUPPORT_PICTURE_DIAGNOSE_TOOL GET {}
check "the picture settings are read" '"PICTURE_MODE" *: *"Standard"' "$answer"
echo "== The support agent switches the picture mode to Cinema and reads it back"
task B7E20D_LIVE_SUPPORT_PICTURE_DIAGNOSE_TOOL EXECUTE '{"PICTURE_MODE":"Cinema"}'
check "the television accepted the change" '"CURRENT" *: *"Cinema"' "$answer"
task B7E20D_LIVE_SUPPORT_PICTURE_DIAGNOSE_TOOL GET {}
check "the picture mode read back is Cinema" '"PICTURE_MODE" *: *"Cinema"' "$answer"
wait_for "$work/tv.out" '^\[tv\] picture=Cinema ' 3 || true
check "the television shows the Cinema picture" '^\[tv\] picture=Cinema ' "$(cat "$work/tv.out")"
echo "== The support agent presses HOME on the remote"
task FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON EXECUTE '{"KEY":"HOME"}'
check "the HOME key reached the television" '"PLATFORM_KEY" *: *"KEY_HOME"' "$answer"
wait_for "$work/tv.out" '^\[tv\] .*keys=.*KEY_HOME' 3 || true
check "the television's key log has KEY_HOME" '^\[tv\] .*keys=.*KEY_HOME' "$(cat "$work/tv.out")"
echo "== The support agent runs the network diagnostic with the speed tests against the back end"
# Without the ping tests: they would ping this machine's default gateway,
# and the demo keeps its traffic on loopback.
task B7E20D_LIVE_SUPPORT_NORVIK_NETWORK_DIAGNOSTIC EXECUTE '{"TESTS":false}'
check "the speed tests ran against the back end" '"DOWNLOAD" *: *\{[^}]*"OK" *: *true' "$answer"
echo "== The software update: offered, downloaded block by block, verified and confirmed"
wait_for "$work/tv.out" 'update=4 ' 60 || true
grep -o 'update=[0-9] source=[0-9] version=[^ ]* percent=[0-9]*' "$work/tv.out" | uniq |
  sed 's/^/   /' | head -30
check "the update was downloaded, verified and confirmed" 'update=4 source=1 version=2.0.0 percent=100' "$(cat "$work/tv.out")"
check "the staging file holds the offered payload" "^$(sha256sum < "$work/update.bin" | cut -c1-64)" "$(sha256sum < "$work/staging.raw" 2>/dev/null)"
echo "== The object the back end listed is installed"
wait_for "$work/state/drmp/channel-list" 'Demo One' 10 || true
check "the object channel-list is installed" 'Demo One' "$(cat "$work/state/drmp/channel-list" 2>/dev/null)"
echo "== Switching the television off once the back end has the data package"
wait_for "$work/backend.out" '^data package from'
kill -TERM "$host_pid" 2>/dev/null || true
wait "$host_pid" || true
host_pid=""
wait_for "$work/backend.out" ') suspended'
echo "drmp delete channel-list" >&3
echo "== The television was switched off with the session held; the back end no longer lists the object; switching it on again"
: > "$work/tv.out"
(host --close-session-after-ms 5000 --run-seconds 7)
grep -q "session=4 code=$code" "$work/tv.out" &&
  echo "== The session resumed with the same code $code, and the user ended it"
check "the object no longer listed was removed" '^gone$' "$([ -e "$work/state/drmp/channel-list" ] && echo present || echo gone)"

echo "== Stopping the local back end"
kill "$backend_pid" 2>/dev/null || true
wait "$backend_pid" 2>/dev/null || true
backend_pid=""

echo "== Persisted state left by the agent"
for f in core daTime dsTime data session; do
  [ -f "$work/state/$f" ] && echo "  $f: $(head -c 160 "$work/state/$f")..."
done
if [ ${#failed_checks[@]} -gt 0 ]; then
  echo "== Not as expected: $(IFS=';'; echo "${failed_checks[*]}")"
  echo "== Demo failed"
  exit 1
fi
echo "== Demo finished"
