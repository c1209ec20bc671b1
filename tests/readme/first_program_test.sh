#!/usr/bin/env bash
# Runs the README's first program in both roles: first_program_test.sh PROGRAM
set -euo pipefail
program=$1
output=$(mktemp -d)
trap 'rm -rf "$output"' EXIT

# The program takes a port and nothing tells which are free: try until one is.
for port in $(shuf -i 20000-60000 -n 20); do
  "$program" serve "$port" >"$output/server" 2>"$output/error" &
  server=$!
  for attempt in $(seq 300); do
    if "$program" greet "$port" >"$output/client" 2>/dev/null; then
      wait "$server"
      [ "$(cat "$output/server")" = "Hello!" ] && [ "$(cat "$output/client")" = "Welcome!" ]
      exit
    fi
    kill -0 "$server" 2>/dev/null || break  # it could not use the port
    sleep 0.1
  done
  wait "$server" || true
done
cat "$output/error" >&2
exit 1
