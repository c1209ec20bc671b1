# shellcheck shell=bash
# Sourced by the commands: installs Debian packages that are missing, and tells where builds go.

# Builds go into folders of their own below this one. A tree that cannot be written to is built
# elsewhere: KLVMSG_BUILD_DIR=/some/folder ./test.sh
build_root() {  # SOURCE
  realpath -m "${KLVMSG_BUILD_DIR:-$1/build}"
}

# Makes the build folder. One that was configured for a source tree in another place is emptied, as
# nothing in it can be used again.
prepare_build() {  # BUILD SOURCE
  local cache=$1/CMakeCache.txt
  if [ -f "$cache" ] && grep -q '^CMAKE_PROJECT_NAME:STATIC=KLVMsgCommModules$' "$cache" &&
    ! { grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$2" "$cache" &&
        grep -qxF "CMAKE_CACHEFILE_DIR:INTERNAL=$1" "$cache"; }; then
    echo "== $1 was made in another place: starting it anew"
    rm -rf "$1"
  fi
  if ! mkdir -p "$1" 2>/dev/null || [ ! -w "$1" ]; then
    echo "Cannot write to $1; name another folder: KLVMSG_BUILD_DIR=/some/folder $0" >&2
    return 1
  fi
}

# Runs a build step with its output in a log; a terminal shows the last line of it meanwhile. When
# the step fails, the log is printed.
run_logged() {  # LOG COMMAND...
  local log=$1 line width status=0
  shift
  if [ -t 1 ]; then
    { width=$(stty size <&3 2>/dev/null | cut -d ' ' -f 2) || width=80; } 3<&1
    width=$((width > 1 ? width - 1 : 79))
    "$@" 2>&1 | while IFS= read -r line; do
      printf '%s\n' "$line" >>"$log"
      printf '\r\033[K%.*s' "$width" "$line"
    done || status=$?
    printf '\r\033[K'
  else
    "$@" >>"$log" 2>&1 || status=$?
  fi
  [ "$status" -eq 0 ] || { cat "$log" >&2; return "$status"; }
}

# Copies the source tree without what git ignores.
copy_tree() {  # SOURCE DESTINATION
  (
    cd "$1" || return
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
      git ls-files -z --cached --others --exclude-standard
    else
      find . -path ./build -prune -o -type f -print0
    fi | xargs -0 cp --parents -t "$2"
  )
}

has_header() {  # HEADER [OPTION...]
  echo "#include <$1>" | "${CXX:-c++}" "${@:2}" -x c++ -E - >/dev/null 2>&1
}

# Whether what a Debian package is wanted for is there, from wherever it came.
is_there() {  # PACKAGE
  case $1 in
    abigail-tools) command -v abidw ;;
    binutils) command -v nm ;;
    build-essential) dpkg-query -W -f '${Status}' build-essential 2>/dev/null | grep ' installed$' ;;
    chromium-driver) command -v chromedriver ;;
    clang) command -v clang++ ;;
    debhelper) command -v dh ;;
    dh-python) command -v dh_python3 ;;
    dpkg-dev) command -v dpkg-buildpackage ;;
    g++) command -v "${CXX:-c++}" ;;
    gnuplot-nox) command -v gnuplot ;;
    graphviz) command -v dot ;;
    iproute2) command -v ip ;;
    libbenchmark-dev) has_header benchmark/benchmark.h ;;
    libclang-rt-*) [ -e "$(clang++ -print-resource-dir)/lib/linux/libclang_rt.fuzzer-$(uname -m).a" ] ;;
    libcereal-dev) has_header cereal/cereal.hpp ;;
    libcpp-httplib-dev) pkg-config --exists cpp-httplib ;;
    libglib2.0-dev) pkg-config --exists glib-2.0 ;;
    libnats-dev) has_header nats/nats.h ;;
    libssl-dev) has_header openssl/ssl.h ;;
    libprotobuf-dev) has_header google/protobuf/message.h ;;
    protobuf-compiler) command -v protoc ;;
    libboost-dev) has_header boost/asio.hpp ;;
    libc++-dev) CXX=clang++ has_header __config -stdlib=libc++ ;;
    libgtest-dev) has_header gtest/gtest.h ;;
    libnng-dev) has_header nng/nng.h ;;
    libzmq3-dev) has_header zmq.h ;;
    pybuild-plugin-pyproject) [ -e /usr/share/dh-python/dhpython/build/plugin_pyproject.py ] ;;
    python3) python3 -c 'import json' 2>/dev/null ;;
    python3-protobuf) /usr/bin/python3 -c 'import google.protobuf' 2>/dev/null ;;
    python3-*) /usr/bin/python3 -c "import ${1#python3-}" 2>/dev/null ;;
    relacy-dev) has_header relacy/relacy.hpp ;;
    *) command -v "$1" ;;
  esac >/dev/null
}

missing_of() {  # PACKAGE...
  local package
  for package in "$@"; do
    is_there "$package" || printf '%s ' "$package"
  done
}

install_packages() {  # PACKAGE...
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || return 1
    as_root=(sudo)
  fi
  echo "== Installing $*"
  "${as_root[@]}" apt-get update -q &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get install -q -y --no-install-recommends "$@"
}

# need_packages PACKAGE... [-- PACKAGE...]
# Does nothing when all are there. Otherwise installs the missing ones with apt-get, as root or
# through sudo. Where that cannot be, it names them in a line, and ends the script unless only some
# behind -- are missing, which it can do without. Checks that run by themselves do without none.
need_packages() {
  local needed=() wanted=() missing
  while [ $# -gt 0 ] && [ "$1" != -- ]; do
    needed+=("$1")
    shift
  done
  wanted=("${@:2}")
  missing=$(missing_of "${needed[@]}" "${wanted[@]}")
  [ -n "$missing" ] || return 0
  if command -v apt-get >/dev/null; then
    # shellcheck disable=SC2086  # the packages are several words
    install_packages $missing || true
    missing=$(missing_of "${needed[@]}" "${wanted[@]}")
    [ -n "$missing" ] || return 0
  fi
  if [ -z "${CI:-}" ] && [ -z "$(missing_of "${needed[@]}")" ]; then
    echo "== Going on without what these Debian packages have: $missing"
    return 0
  fi
  echo "Missing, by the names of Debian's packages: $missing" >&2
  exit 1
}
