# Sourced by the commands at the root: installs Debian packages that are missing.

# need_packages PACKAGE...
# Does nothing when all are there. Otherwise installs the missing ones with apt-get, as root or
# through sudo; without either it names them and ends the script.
need_packages() {
  local package missing=()
  for package in "$@"; do
    if [ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null)" != "install ok installed" ]; then
      missing+=("$package")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return
  fi

  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "Missing packages: ${missing[*]}" >&2
      echo "Install them as root: apt-get install ${missing[*]}" >&2
      exit 1
    fi
    as_root=(sudo)
  fi
  echo "== Installing ${missing[*]}"
  "${as_root[@]}" apt-get update -q
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${missing[@]}"
}
