#!/usr/bin/env bash
# Tries everything as on the first day, on bare Debian systems: the two commands, the packages, the
# installation by hand. Run by hand before a release; takes root, debootstrap and most of an hour.
# check-fresh-systems.sh [--keep] [RELEASE]...     (bookworm trixie)
#
# Each system is a folder below /tmp/klvmsg-fresh, made by debootstrap from the mirror that this machine's
# apt uses, and entered by chroot in namespaces of its own: what is mounted there, and what is started
# there, is gone when a command ends. --keep leaves the folders.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P)
. "$root/scripts/setup.sh"

keep=no
if [ "${1:-}" = --keep ]; then
  keep=yes
  shift
fi
case "${1:-}" in
  -*) echo "usage: check-fresh-systems.sh [--keep] [RELEASE]..." >&2; exit 2 ;;
esac
[ $# -gt 0 ] || set -- bookworm trixie
[ "$(id -u)" -eq 0 ] || { echo "check-fresh-systems.sh has to be run by root" >&2; exit 1; }
need_packages debootstrap iproute2
work=/tmp/klvmsg-fresh
mkdir -p "$work"

step() {
  echo "=== $release: $* ($(date +%T))"
}

remove_system() {  # FOLDER
  if grep -qF " $1/" /proc/self/mountinfo; then
    echo "something is mounted in $1, which therefore stays" >&2
    exit 1
  fi
  rm -rf --one-file-system "$1"
}

make_bare_system() {  # FOLDER
  local mirror
  # shellcheck disable=SC2016  # apt-get expands it
  mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Origin: Debian' 'Label: Debian' \
    'Component: main' 'Created-By: Packages' | sort -u | head -n 1)
  remove_system "$1"
  # shellcheck disable=SC2086  # without a mirror there is no argument
  debootstrap --variant=minbase "$release" "$1" $mirror >"$log" 2>&1
  apt-config dump Acquire | grep -v IndexTargets >"$1/etc/apt/apt.conf.d/90host"
  cp -L /etc/resolv.conf /etc/hosts "$1/etc/"
  chroot "$1" useradd --create-home --shell /bin/bash tester
}

# Runs a script, which is read from standard input, in a system. `offline` has no network but loopback.
# What it prints is shown when it fails, and is in $log for the checks that follow.
run_in() {  # FOLDER USER [offline]
  local script
  script="set -euo pipefail; $(cat)"
  # shellcheck disable=SC2016  # the inner shells expand these
  if ! env -i PATH="$PATH" unshare --mount --pid --fork --kill-child ${3:+--net} bash -c '
      set -e
      mount -t proc proc "$1/proc"
      mount -t tmpfs tmpfs "$1/dev/shm"
      mount -t devpts -o newinstance,ptmxmode=666,mode=620 devpts "$1/dev/pts"
      [ -z "$4" ] || ip link set lo up
      home=/root
      [ "$2" = root ] || home=/home/$2
      chroot "$1" setpriv --reuid "$2" --regid "$2" --init-groups \
        env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME="$home" \
        LANG=C.UTF-8 bash -c "$3"
      exit 0' - "$1" "$2" "$script" "${3:-}" </dev/null >"$log" 2>&1; then
    cat "$log" >&2
    echo "FAILED on $release" >&2
    exit 1
  fi
}

expect() {  # TEXT: in what was printed last
  grep -qF -e "$1" "$log" || { cat "$log" >&2; echo "FAILED on $release: nothing says \"$1\"" >&2; exit 1; }
}

hide() {  # SYSTEM [--no-more] COMMAND...
  local command
  for command in "${@:2}"; do
    case $2 in
      --no-more) [ "$command" = "$2" ] || mv "$1/usr/bin/$command.hidden" "$1/usr/bin/$command" ;;
      *) mv "$1/usr/bin/$command" "$1/usr/bin/$command.hidden" ;;
    esac
  done
}

check_commands() {  # SYSTEM: bare at first, in the end with all that the commands install
  step "Nothing installed, no network: one line tells what is missing"
  mkdir -p "$1/srv/first place"
  copy_tree "$root" "$1/srv/first place"
  run_in "$1" tester offline <<'EOF'
cd '/srv/first place'
for command in ./demo.sh ./test.sh; do
  if $command; then exit 1; fi
done
./demo.sh --help
EOF
  expect "Missing, by the names of Debian's packages: cmake g++ make"
  expect "--clients N"

  step "From nothing: ./demo.sh and ./test.sh"
  run_in "$1" root <<'EOF'
cd '/srv/first place'
./demo.sh --clients 3
./test.sh
cp -r build/release/tests/readme/project /srv/first
cp tests/readme/first_program_test.sh /srv/first/
EOF
  expect "hub and clients agree on every file"
  expect "100% tests passed"

  step "Everything installed, an ordinary user, no network: ./test.sh"
  run_in "$1" root <<'EOF'
chown -R tester: '/srv/first place'
EOF
  run_in "$1" tester offline <<'EOF'
cd '/srv/first place'
./test.sh
EOF
  expect "100% tests passed"

  step "No apt-get, no dpkg, and one thing missing: ./test.sh"
  hide "$1" apt-get dpkg dpkg-query tshark
  run_in "$1" tester offline <<'EOF'
cd '/srv/first place'
./test.sh -R SocketTest
EOF
  expect "Going on without what these Debian packages have: tshark"
  expect "100% tests passed"
  hide "$1" --no-more apt-get dpkg dpkg-query tshark

  step "The clone moved, with its build folder: ./demo.sh"
  mv "$1/srv/first place" "$1/srv/second place"
  run_in "$1" tester offline <<'EOF'
cd '/srv/second place'
./demo.sh -- /etc/passwd
EOF
  expect "was made in another place"
  expect "hub and clients agree on every file"

  step "A tree that cannot be written to"
  run_in "$1" root <<'EOF'
chown -R root: '/srv/second place'
rm -r '/srv/second place/build'
EOF
  run_in "$1" tester offline <<'EOF'
cd '/srv/second place'
if ./demo.sh; then exit 1; fi
KLVMSG_BUILD_DIR=/tmp/elsewhere ./demo.sh
EOF
  expect "name another folder: KLVMSG_BUILD_DIR="
  expect "hub and clients agree on every file"
}

check_by_hand() {  # SYSTEM that can build
  step "By hand, as docs/install.md tells it"
  run_in "$1" root <<'EOF'
sudo() { "$@"; }
cd '/srv/second place'
commands=$(sed -n '/^## By hand/,/^## Build/p' docs/install.md | sed -n '/^```sh/,/^```/p' | sed '/^```/d')
eval "${commands%sudo xargs*}"
mkdir /tmp/by-hand
g++ -std=c++17 /srv/first/first.cpp $(pkg-config --cflags --libs KLVMsgCommModules) -o /tmp/by-hand/first
/srv/first/first_program_test.sh /tmp/by-hand/first
cmake -S /srv/first -B /tmp/by-hand-cmake
cmake --build /tmp/by-hand-cmake
/srv/first/first_program_test.sh /tmp/by-hand-cmake/first
eval "sudo xargs${commands##*sudo xargs}"
[ -z "$(find /usr/local -iname '*klv*' -not -type d)" ]
EOF
}

check_packages() {  # SYSTEM that can build, BARE SYSTEM
  step "The same packages twice, in different folders and under different umasks"
  run_in "$1" root <<'EOF'
cd '/srv/second place'
scripts/build-packages.sh
mkdir -p /tmp/packages && cp build/packages/*.deb /tmp/packages
cp -r '/srv/second place' /srv/third
cd /srv/third
umask 077
TZ=Asia/Tokyo scripts/build-packages.sh --no-check
for package in /tmp/packages/*.deb; do cmp "$package" "build/packages/${package##*/}"; done
EOF
  expect "lintian accepts:"
  cp -r "$1/tmp/packages" "$2/srv/packages"

  step "The packages installed and used: the tools without a compiler"
  run_in "$2" root <<'EOF'
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
apt-get install -q -y --no-install-recommends /srv/packages/libklvmsgcommmodules1_*.deb \
  /srv/packages/klvmsgcommmodules-tools_*.deb tshark
[ -z "$(command -v c++)" ]
EOF
  run_in "$2" tester offline <<'EOF'
klvmsgcat --listen 127.0.0.1:45999 --receive Note --count 1 >/tmp/got &
for attempt in $(seq 50); do
  sleep 0.2
  echo "from a package" | klvmsgcat --connect 127.0.0.1:45999 --lines Note && break
done
wait
grep "from a package" /tmp/got
tshark -G protocols | grep -w klvmsg
EOF

  step "The packages installed and used: Python, with what it recommends"
  run_in "$2" root <<'EOF'
export DEBIAN_FRONTEND=noninteractive
apt-get install -q -y /srv/packages/python3-klvmsg_*.deb
EOF
  run_in "$2" tester offline <<'EOF'
cd
klvmsg --version
klvmsgcat --listen 127.0.0.1:45997 --receive Note --count 1 >got 2>cat-says &
klvmsg record run.jsonl --listen 45996 --connect 127.0.0.1:45997 --connections 1 2>record-says &
for attempt in $(seq 100); do
  sleep 0.2
  ! grep -q listening cat-says || ! grep -q listening record-says || break
done
python3 -c '
import klvmsg
with klvmsg.connect("127.0.0.1", 45996, timeout=5) as peer:
    peer.send("Note", b"from Python")
    peer.finish(timeout=20)'
wait
grep "from Python" got
klvmsg chart run.jsonl
grep -q "<svg" run.svg
script -qc 'stty cols 80 rows 24; timeout -s INT 3 klvmsg spy --top -l 45995 -c 127.0.0.1:45997' top || true
grep -q "Ctrl-C ends" top
ls /usr/share/man/man1/klvmsg.1.gz /usr/share/man/man1/klvmsgcat.1.gz
EOF

  step "The packages installed and used: development"
  run_in "$2" root <<'EOF'
export DEBIAN_FRONTEND=noninteractive
apt-get install -q -y --no-install-recommends /srv/packages/*.deb cmake g++ gdb make pkg-config
EOF
  cp -r "$1/srv/first" "$2/srv/first"
  run_in "$2" tester offline <<'EOF'
cd /usr/share/doc
grep -roP --include=*.md '\]\(\K(?!https?:)[^)# ]+(?=[)#])' *klvmsg* | while IFS=: read -r page link; do
  [ -e "${page%/*}/$link" ] || { echo "$page: nothing is at $link"; exit 1; }
done
cmake -S /usr/share/doc/libklvmsgcommmodules-dev/examples -B ~/examples
cmake --build ~/examples --parallel "$(nproc)"
~/examples/exchange/exchange --clients 3 /etc/passwd /usr/share/doc/libklvmsgcommmodules-dev/README.md
cmake -S /srv/first -B ~/first
cmake --build ~/first
/srv/first/first_program_test.sh ~/first/first
pkg-config --cflags --libs KLVMsgCommModules
mkdir ~/by-pkg-config
g++ -std=c++17 -Wall -Wextra -Wnon-virtual-dtor -Wold-style-cast -Werror /srv/first/first.cpp \
  $(pkg-config --cflags --libs KLVMsgCommModules) -o ~/by-pkg-config/first
/srv/first/first_program_test.sh ~/by-pkg-config/first
# A function that the library alone calls: of others gdb may take the program's own stub.
gdb --batch -ex 'set breakpoint pending on' -ex 'break KLVMsgComm_initialize' -ex run -ex 'info source' \
  --args ~/by-pkg-config/first serve 45998
EOF
  expect "hub and clients agree on every file"
  expect "-isystem/usr/include/KLVMsgCommModules"
  expect "KLVMsgComm_IF.cpp"

  step "The packages installed and used: the six commands of docs/beyond.md"
  run_in "$2" root <<'EOF'
export DEBIAN_FRONTEND=noninteractive
apt-get install -q -y --no-install-recommends iproute2 nats-server
EOF
  cp -r "$root/tests/bridge" "$root/docs/beyond.md" "$2/srv"
  run_in "$2" root offline <<'EOF'
python3 /srv/bridge/beyond_test.py /srv/beyond.md /usr/bin
EOF

  step "The packages removed"
  run_in "$2" root <<'EOF'
export DEBIAN_FRONTEND=noninteractive
dpkg-query -W -f '${Package}\n' '*klvmsg*' | xargs apt-get purge -q -y
[ -z "$(find / -xdev -ipath '*klvmsg*' -not -path '/srv/*' -not -path '/home/*' -not -path '/proc/*')" ]
if ldconfig -p | grep -i klv; then exit 1; fi
EOF
}

for release in "$@"; do
  bare=$work/$release-bare builder=$work/$release-builder log=$work/$release.log
  step "A bare system"
  make_bare_system "$bare"
  remove_system "$builder"
  cp -a "$bare" "$builder"
  check_commands "$builder"
  check_by_hand "$builder"
  check_packages "$builder" "$bare"
  if [ $keep = no ]; then
    remove_system "$bare"
    remove_system "$builder"
    rm "$log"
  fi
  step "All of it works"
done
