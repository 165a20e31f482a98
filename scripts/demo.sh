#!/usr/bin/env bash
# The main command: installs dependencies, builds the programs it runs (not the tests), and
# backs up and restores the demo tenant of the Exchange Online simulator for real. It starts
# backupd (SQLite catalog and a directory pool in a temporary data directory) and exo-sim with
# the demo tenant, registers both with the agent (backup server URL and access key in the agent
# configuration, the tenant in its registry), runs `backup-agent backup --all-mailboxes`, which
# shows its progress and the summary of the new backup set, lists the sets, browses a mailbox
# live and as the set holds it, restores a folder and a single item of one mailbox into
# another under relocation folders, verifies the set and rehearses the restore of one mailbox.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh --target backup-agent --target exchange --target backupd --target exo-sim build

agent=build/apps/backup-agent/backup-agent
sim=build/apps/exo-sim/exo-sim
backupd=build/apps/backupd/backupd
work="$(mktemp -d)"
pids=()
cleanup() {
  for pid in ${pids[@]+"${pids[@]}"}; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

# Waits until the program whose standard output is $1 prints its "listening on HOST:PORT"
# line and prints HOST:PORT; $2 names the program, $3 its standard error file.
listening() {
  for _ in $(seq 1 100); do
    grep -q 'listening on ' "$1" 2>/dev/null && break
    sleep 0.1
  done
  local address
  address="$(sed -n 's/.*listening on //p' "$1" | head -n 1)"
  [ -n "$address" ] || { echo "$2 did not start:" >&2; cat "$3" >&2; exit 1; }
  echo "$address"
}

# The backup server: a random access key, a catalog and a pool named "main" in $work/backupd.
umask 077
head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n' >"$work/keys"
mkdir -p "$work/backupd"
pool="$("$backupd" pool add --data "$work/backupd" --name main)"
"$backupd" --data "$work/backupd" --access-key-file "$work/keys" --listen 127.0.0.1:0 \
  >"$work/backupd.out" 2>"$work/backupd.err" &
pids+=($!)
backupd_url="http://$(listening "$work/backupd.out" backupd "$work/backupd.err")"
echo "== backupd serves pool main ($pool) at $backupd_url"

"$sim" --profile demo >"$work/sim.out" 2>"$work/sim.err" &
pids+=($!)
base="http://$(listening "$work/sim.out" exo-sim "$work/sim.err")"
echo "== exo-sim serves the demo tenant at $base"

# The agent's configuration names the backup server, its access key and this host.
cat >"$work/agent.json" <<EOF
{"state_dir": "$work/state", "log_file": "$work/agent.log", "host_id": "demo-host",
 "backup_server": {"url": "$backupd_url", "access_key": "$(cat "$work/keys")"}}
EOF

# The demo tenant's registration (see docs/exo-sim.md); the secret goes through a file,
# never the command line.
printf '%s' 'exo-sim-demo-secret' >"$work/secret"
echo "== tenant add"
uuid="$("$agent" --config "$work/agent.json" tenant add \
  --tenant-id 8d7a4f52-6c1b-4e0a-9f3d-2b5c7e9a1d04 \
  --client-id 3f2b8c1e-5a4d-4c6f-8e7b-9a0d1c2e3f45 \
  --tenant-email admin@demo.exosim.test \
  --login-endpoint "$base" --graph-endpoint "$base" --ews-endpoint "$base/EWS/Exchange.asmx" \
  --secret-file "$work/secret" --uuid 4c1d2e3f-5a6b-4c7d-8e9f-0a1b2c3d4e5f)"
echo "$uuid"
echo "== tenant test"
"$agent" --config "$work/agent.json" tenant test "$uuid"

echo "== backup of every mailbox of the tenant to pool main"
status=0
"$agent" --config "$work/agent.json" backup --tenant "$uuid" --all-mailboxes --pool "$pool" || status=$?
if [ "$status" -ne 0 ]; then
  echo "== the backup ended with status $status; the agent's log:" >&2
  tail -n 30 "$work/agent.log" >&2 || true
  exit "$status"
fi

# Shows the agent's log when a later step fails.
step_failed() {
  echo "== $1 ended with status $2; the agent's log:" >&2
  tail -n 30 "$work/agent.log" >&2 || true
  exit "$2"
}

echo "== the tenant's backup sets"
"$agent" --config "$work/agent.json" sets --tenant "$uuid" || step_failed "sets" $?
set_uuid="$("$agent" --config "$work/agent.json" sets --tenant "$uuid" --json |
  grep -o '"set_uuid":"[^"]*"' | head -n 1 | cut -d'"' -f4)"
[ -n "$set_uuid" ] || step_failed "reading the new set's uuid" 1

from=alice.archer@demo.exosim.test
to=bruno.brandt@demo.exosim.test
echo "== the tenant's mailboxes matching \"alice\" (Microsoft Graph search)"
"$agent" --config "$work/agent.json" mailboxes --tenant "$uuid" --search alice || step_failed "mailboxes" $?
echo "== $from's top-level folders, live"
"$agent" --config "$work/agent.json" folders --tenant "$uuid" --mailbox "$from" || step_failed "folders" $?
echo "== $from's Inbox as set $set_uuid holds it (first lines)"
"$agent" --config "$work/agent.json" browse --set "$set_uuid" --mailbox "$from" --path Inbox >"$work/inbox" ||
  step_failed "browse" $?
head -n 8 "$work/inbox"

echo "== restore of $from's Inbox folder into $to, under \"Restored by the demo\""
"$agent" --config "$work/agent.json" restore --set "$set_uuid" --from "$from" --to "$to" \
  --path "Inbox" --relocation "Restored by the demo" || step_failed "restore of a folder" $?

# One item of the set: the first item of the Inbox as the browse above listed it.
item="$(awk -F '\t' '$1 == "item" { print $3; exit }' "$work/inbox")"
[ -n "$item" ] || step_failed "finding an item in the Inbox" 1
echo "== restore of one item of $from into $to, under \"Restored item\""
"$agent" --config "$work/agent.json" restore --set "$set_uuid" --from "$from" --to "$to" \
  --item "$item" --relocation "Restored item" || step_failed "restore of an item" $?

echo "== verify of set $set_uuid: every item read back and checked against its recorded SHA-256"
"$agent" --config "$work/agent.json" verify --set "$set_uuid" || step_failed "verify" $?

# A rehearsal restores a mailbox of the set into a scratch folder and exports every restored
# item again; the line of each item that round-trips is left out here.
echo "== restore rehearsal of $from into $to"
"$agent" --config "$work/agent.json" verify --set "$set_uuid" --mailbox "$from" --rehearse-into "$to" |
  grep -v '^  round-trips: ' || step_failed "the restore rehearsal" $?
