#!/bin/sh
# certificates.sh FOLDER [NAME NAMES]...: makes an authority, where there is none, and a certificate of it
# for each name: certificates.sh /tmp/plant gateway DNS:localhost,IP:127.0.0.1 press DNS:press.example
set -eu
umask 077
mkdir -p "$1" && cd "$1" && shift
new="openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 365"
[ -e authority.pem ] || $new -keyout authority.key -out authority.pem -subj "/CN=The plant"
while [ $# -gt 1 ]; do
  $new -CA authority.pem -CAkey authority.key -keyout "$1.key.new" -out "$1.pem.new" -subj "/CN=$1" \
    -addext "subjectAltName=$2" -addext "basicConstraints=critical,CA:FALSE"
  mv "$1.key.new" "$1.key" && mv "$1.pem.new" "$1.pem"  # whole files only, whoever reads them meanwhile
  shift 2
done 2>/dev/null
