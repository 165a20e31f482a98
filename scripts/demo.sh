#!/usr/bin/env bash
# Installs dependencies, builds, and runs the demo: the example job definitions are
# read through the module as the agent loads it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh build

agent=build/apps/backup-agent/backup-agent
for job in examples/backup-job.json examples/restore-job.json; do
  echo "== $job"
  "$agent" check-job "$job"
done
