#!/usr/bin/env bash
# Makes the bootstrap credentials of one build: a fresh self-signed
# certificate and its key, written as a C header (OUT) that the library
# compiles in. Every build gets a pair of its own, so no private key is
# shared with whoever has the sources; a deployment replaces the pair with
# one its manager trusts. The header holds a private key: it is made 0600.
#   bash scripts/make-bootstrap-credentials.sh OUT
set -euo pipefail
out=$1
umask 077
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

openssl req -x509 -newkey rsa:2048 -nodes -days 7300 -sha256 \
  -subj "/O=vesk/CN=vesk bootstrap agent" -keyout "$work/key" -out "$work/cert" 2>/dev/null
openssl pkcs8 -topk8 -nocrypt -in "$work/key" -out "$work/key8"
fingerprint=$(openssl x509 -in "$work/cert" -noout -fingerprint -sha1 | sed 's/^[^=]*=//')

mkdir -p "$(dirname "$out")"
{
  echo "// Made by scripts/make-bootstrap-credentials.sh for this build alone."
  echo "#pragma once"
  echo "#define VESK_BOOTSTRAP_CREDENTIALS \\"
  sed 's/.*/    "&\\n" \\/' "$work/cert" "$work/key8"
  echo '    ""'
  echo "#define VESK_BOOTSTRAP_FINGERPRINT \"$fingerprint\""
} >"$work/header"
mv "$work/header" "$out"
