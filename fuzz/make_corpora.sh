#!/usr/bin/env bash
# Seeds of the fuzz target, made with the openssl tool, each after its mode byte (see
# fuzz_cache.cpp): certificates (user, authority, alternative names, version 1; PEM, DER and
# base64), keys, a request, file names, stores and revocation lists. Usage: fuzz/make_corpora.sh OUTDIR
set -euo pipefail
mkdir -p "$1" && out=$(cd "$1" && pwd) && work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT && cd "$work"
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out key 2>/dev/null
openssl pkcs8 -topk8 -v2 des3 -in key -passout pass:pw -out key.enc
x509() { openssl req -new -x509 -key key -days 9 -subj "$2" ${3:+-addext "$3"} -out "$1"; }
x509 user "/CN=One/emailAddress=one@x" "basicConstraints=CA:FALSE"
x509 ca "/CN=Authority" "basicConstraints=critical,CA:TRUE"
x509 alt "/CN=Alt" "subjectAltName=email:alt@x,DNS:h"
openssl req -new -key key -subj "/CN=self@x" -out request && : >empty && printf a.crt >target
openssl x509 -req -in request -signkey key -days 9 -out v1 2>/dev/null
openssl x509 -in user -outform DER -out der && base64 der >b64 && cat user ca >two
u8() { printf "\\x$(printf %02x "$1")"; }
str() { u8 ${#1} && printf %s "$1"; }
file() { u8 $(($(stat -c %s "$1") & 255)) && u8 $(($(stat -c %s "$1") >> 8)) && cat "$1"; }
entry() { u8 "$1" && str "$2" && file "$3"; }
n=0
seed() { n=$((n + 1)) && { u8 "$1" && cat "$2"; } >"$out/seed-$n"; }  # usage: seed MODE FILE
for f in user ca alt v1 der b64 two request key.enc; do seed 0 $f; done
seed 2 <(str pw; file user; u8 1; cat key.enc) && seed 2 <(str no; file der; u8 0; cat key)
for f in one@x .. ../x a/b .hidden %41%2F%2e%2a "a b" %4 a%ZZb; do seed 3 <(printf %s "$f"); done
seed 4 <(u8 1; str pw; entry 0 a.crt user; entry 0 a.key key.enc; entry 0 b.CRT alt
  entry 0 b.key key; entry 0 c.crt v1; entry 0 d.crt der; entry 1 e.crt empty; entry 3 f.crt empty
  entry 2 g.crt target)
seed 4 <(u8 6; str ""; entry 0 ca.crt ca; entry 4 ca.crt ca; entry 12 ca empty
  entry 0 ca.key key.enc)
printf '[ca]\ndefault_ca=d\n[d]\ndatabase=db\ncrlnumber=n\ndefault_md=sha256\ndefault_crl_days=9\n' >cnf
: >db && echo 01 >n && openssl ca -config cnf -keyfile key -cert ca -revoke user -crl_reason superseded 2>/dev/null
openssl ca -config cnf -gencrl -keyfile key -cert ca -out crl 2>/dev/null
openssl crl -in crl -outform DER -out crl.der && cat crl crl >crls && head -c 200 crl >crl.cut
for f in crl crl.der crls crl.cut ca; do seed 5 $f; done
