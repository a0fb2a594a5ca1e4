#!/bin/sh
# Generates the RSA keys the rpktool tests sign with, once per build tree
# (an 8192-bit key takes half a minute or more).
set -eu
dir=$1
mkdir -p "$dir"
for bits in 2048 8192; do
  key="$dir/rsa$bits.pem"
  if [ ! -s "$key" ]; then
    openssl genrsa -out "$key.tmp$$" "$bits" 2>/dev/null
    mv "$key.tmp$$" "$key"
  fi
done
