#!/usr/bin/env bash
# The main job: the whole road of a certificate, in a new temporary store, with
# the certcache tool and the openssl tool acting as the signing authority.
# Installs what is missing, builds the tool, and prints every command before it
# runs it. Exits non-zero as soon as a step fails.
#   scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."
project=$(pwd)

scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build -j "$(nproc)" --target certcache >/dev/null
export PATH="$project/build/tools/certcache:$PATH"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# A command as a person would type it: arguments quoted where the shell needs it.
show_command() {
  local line="" arg
  for arg in "$@"; do
    if [[ "$arg" =~ ^[A-Za-z0-9@%+=:,./_-]+$ ]]; then line+=" $arg"; else line+=" '$arg'"; fi
  done
  printf '\n$%s\n' "$line"
}
# Prints a command, then runs it.
step() {
  show_command "$@"
  "$@"
}
# The same for a command whose expected exit status is not 0.
step_expecting() {
  local expected=$1
  shift
  show_command "$@"
  local status=0
  "$@" || status=$?
  if [ "$status" -ne "$expected" ]; then
    echo "demo: expected exit status $expected, got $status" >&2
    exit 1
  fi
  echo "(exit status $status, as expected)"
}
section() { printf '\n### %s\n' "$*"; }

section "A new store; the password of every key comes from the environment"
printf '$ export CERTCACHE_STORE=%s/store CERT_PW=...\n' "$work"
export CERTCACHE_STORE="$work/store"
export CERT_PW="demo-only-password"

section "1. A self-signed key pair, and the list"
echo "(The library warns once that the new store holds no certificates yet.)"
step certcache --passin env:CERT_PW self-signed --email alice@example.org
step certcache list --long

section "2. A certificate request; its key waits in the store as a .tpk file"
step certcache --passin env:CERT_PW request --email bob@example.org --out bob.csr
step ls "$CERTCACHE_STORE/user"
echo "(A retry is refused: a new key would replace the one bob.csr was made for.)"
step_expecting 2 certcache --passin env:CERT_PW request --email bob@example.org --out bob.csr
step certcache list --pending

section "3. The openssl tool signs it, as an authority would: from an intermediate, not its root"
step openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout root.key \
  -out root.crt -subj "/CN=Demo Root" -days 365
step openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key \
  -subj "/CN=Demo Intermediate" -out ca.csr
step openssl x509 -req -in ca.csr -CA root.crt -CAkey root.key -CAcreateserial -days 365 \
  -extfile <(printf 'basicConstraints=critical,CA:TRUE\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n') \
  -out ca.crt
step openssl x509 -req -in bob.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 60 -out bob.crt

section "4. A certificate for another key is refused; the request stays pending"
step openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout other.key \
  -subj /emailAddress=bob@example.org -out other.csr
step openssl x509 -req -in other.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 60 -out other.crt
step_expecting 65 certcache --passin env:CERT_PW install other.crt
step certcache list --pending

section "5. Install the signed certificate with its chain: the pending key becomes its key"
echo "(The intermediate that came with it is kept in ca/, in the same change.)"
step sh -c 'cat bob.crt ca.crt >bob-chain.pem'
step certcache --passin env:CERT_PW install bob-chain.pem
step ls "$CERTCACHE_STORE/user" "$CERTCACHE_STORE/ca"
step certcache list --long

section "5b. The chain above it: it breaks where the store holds no root, until the root is there"
step certcache show bob@example.org --chain
step_expecting 65 certcache verify bob@example.org
step certcache --kind ca --no-keys install root.crt
step certcache show bob@example.org --chain
step certcache verify bob@example.org

section "6. Show it, with its key (password) and as JSON (certificate alone)"
step certcache --passin env:CERT_PW show bob@example.org
step certcache --json show alice@example.org
step certcache files bob_at_example.org

section "7. What expires within 90 days, and what else needs a look (exit 20 when anything does)"
step_expecting 20 certcache expiring --days 90
step_expecting 20 certcache --passin env:CERT_PW check --days 90
step certcache verify bob@example.org --ca <(cat root.crt ca.crt)
step_expecting 65 certcache verify alice@example.org

section "8. A renewal: a new key waits beside the working pair until the new certificate comes"
step certcache --passin env:CERT_PW renew bob@example.org --out bob-renewal.csr
step certcache list --pending
step openssl x509 -req -in bob-renewal.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 90 \
  -out bob-renewal.crt
echo "(Installing it replaces a working pair, which takes --overwrite.)"
step_expecting 2 certcache --passin env:CERT_PW install bob-renewal.crt
step certcache --passin env:CERT_PW install --overwrite bob-renewal.crt
step certcache --passin env:CERT_PW show bob@example.org
step certcache list --pending

section "8b. To a browser and back: PKCS#12, read and written by the openssl tool too"
echo "(The file carries the chain: the intermediate and the root as CA bags.)"
step certcache --passin env:CERT_PW export bob@example.org --out bob.p12
step openssl pkcs12 -info -noout -in bob.p12 -passin env:CERT_PW
step certcache --passin env:CERT_PW export bob@example.org --pem --out bob.pem --key-out bob.key
step openssl verify -CAfile root.crt -untrusted bob.pem bob.pem
echo "(For software that reads nothing newer: Triple-DES and a SHA-1 MAC, said on stderr.)"
step certcache --passin env:CERT_PW export bob@example.org --legacy --out bob-legacy.p12
step openssl pkcs12 -export -in other.crt -inkey other.key -passout pass:browser -out other.p12
step certcache --store "$work/laptop" --passin pass:browser --passout env:CERT_PW import other.p12
step certcache --store "$work/laptop" --passin env:CERT_PW show bob@example.org

section "9. Rename the files of a certificate, and remove another"
step certcache rename bob_at_example.org bob-2026
step certcache list --long
step certcache remove alice@example.org
step certcache list --long

section "10. An abandoned request, cancelled"
step certcache --passin env:CERT_PW request --email carol@example.org --subject carol-laptop \
  --out carol.csr
step ls "$CERTCACHE_STORE/user"
step certcache cancel-request --email carol@example.org --subject carol-laptop
step ls -l "$CERTCACHE_STORE/user"

section "11. Revocation: the authority revokes bob's certificate, the store keeps its lists, verify says so"
echo "(openssl ca keeps what each authority revoked in an index file and signs lists from it.)"
cat >ca.cnf <<'CONFIG'
[ca]
default_ca = intermediate
[intermediate]
database = ca-index.txt
crlnumber = ca-crlnumber
default_md = sha256
default_crl_days = 30
[root]
database = root-index.txt
crlnumber = root-crlnumber
default_md = sha256
default_crl_days = 30
CONFIG
step cat ca.cnf
step touch ca-index.txt root-index.txt
step sh -c 'echo 01 >ca-crlnumber && echo 01 >root-crlnumber'
step openssl ca -config ca.cnf -name root -gencrl -keyfile root.key -cert root.crt -out root.crl
step openssl ca -config ca.cnf -gencrl -keyfile ca.key -cert ca.crt -out ca.crl
step certcache crl add root.crl ca.crl
step certcache crl list
echo "(Each certificate of the path has its issuer's current list, the root its own: good.)"
step certcache --json verify bob@example.org --require-crl
step openssl ca -config ca.cnf -keyfile ca.key -cert ca.crt -revoke bob-renewal.crt \
  -crl_reason keyCompromise
step openssl ca -config ca.cnf -gencrl -keyfile ca.key -cert ca.crt -out ca.crl
step certcache crl add ca.crl
step_expecting 65 certcache verify bob@example.org
step_expecting 65 certcache --json verify bob@example.org
step_expecting 20 certcache check
echo "(The openssl tool, given the same lists, says the same.)"
step_expecting 2 openssl verify -crl_check_all -CAfile root.crt -untrusted ca.crt \
  -CRLfile root.crl -CRLfile ca.crl bob-renewal.crt

printf '\ndemo: every step succeeded; certcache --help tells the rest\n'
