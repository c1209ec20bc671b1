#!/usr/bin/env bash
# Runs the README's first program, or the guide's, in both roles: first_program_test.sh PROGRAM
set -euo pipefail
program=$1
output=$(mktemp -d)
trap 'rm -rf "$output"' EXIT

# Has the server met by a command that is given its port; the server's exit code.
# The program takes a port and nothing tells which are free: try until one is.
serve_to() {
  for port in $(shuf -i 20000-60000 -n 20); do
    "$program" serve "$port" >"$output/server" 2>"$output/error" &
    server=$!
    for attempt in $(seq 300); do
      if "$@" "$port" >"$output/client" 2>/dev/null; then
        wait "$server"
        return
      fi
      kill -0 "$server" 2>/dev/null || break  # it could not use the port
      sleep 0.1
    done
    wait "$server" || true
  done
  cat "$output/error" >&2
  exit 1
}

serve_to "$program" greet
[ "$(cat "$output/server")" = "Hello!" ] && [ "$(cat "$output/client")" = "Welcome!" ]

# Numbers are written with the lowest byte first. A greeting that is cut off: the first program goes on
# waiting, the bare one says so.
greet_by_half() { printf '\10\0\0\0Greeting\6\0\0\0Hel' >"/dev/tcp/127.0.0.1/$1"; }
if [ "$(basename "$program")" = first ]; then
  greet_after_half() { greet_by_half "$1" && "$program" greet "$1"; }
  serve_to greet_after_half
  [ "$(cat "$output/server")" = "Hello!" ] && [ "$(cat "$output/client")" = "Welcome!" ]
else
  if serve_to greet_by_half; then
    exit 1
  fi
  [ "$(cat "$output/server" "$output/error")" = "cut off" ]
fi
