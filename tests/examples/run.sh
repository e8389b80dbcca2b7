#!/usr/bin/env bash
# usage: run.sh [--machine PKI CRLS] STATUS TEXT COMMAND [ARGUMENT]...
#
# Succeeds when COMMAND ends with STATUS and writes TEXT to standard output. It runs in a private view of
# the file system, whose fixed directories --machine fills: with the root and the intermediate
# certificates of PKI, which scripts/demo-pki made, and with its directory of CRLs named CRLS.
set -euo pipefail

fixed=/opsadmin/etc/cert/server
if [[ ! -e /opsadmin/.pkx509-private-view ]]; then
  echo "run.sh: this is no private view, see tests/support/private-view.sh" >&2
  exit 2
fi
if [[ $1 == --machine ]]; then
  pki=$2
  cp -- "$pki/ca/root.pem" "$fixed/ca/root.pem"
  cp -- "$pki/work/one/cert.pem" "$fixed/ca/one.pem"
  cp -- "$pki/work/two/cert.pem" "$fixed/ca/two.pem"
  cp -- "$pki/crl/$3"/*.crl "$fixed/crl"
  openssl rehash "$fixed/ca" "$fixed/crl"
  shift 3
fi

expected=$1 text=$2
shift 2
status=0
said=$("$@") || status=$?
echo "$said"
if [[ $status -ne $expected ]]; then
  echo "run.sh: its status is $status" >&2
  exit 1
fi
if [[ $said != *"$text"* ]]; then
  echo "run.sh: it did not say: $text" >&2
  exit 1
fi
