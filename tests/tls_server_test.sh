#!/bin/sh
# The TLS example follows its `ca` store without a restart: a client whose
# authority is installed is let in, refused once the tool removed it, let in
# again once it is back, refused within a second of its authority's list that
# revokes it being kept, and the server says why; a store left with no
# authority keeps the last good trust set. Usage: tls_server_test.sh SERVER CERTCACHE SCRATCH
set -eu
server=$1 tool=$2 dir=$3
rm -rf "$dir" && mkdir -p "$dir/cas/ca" "$dir/u/user" && cd "$dir"
ca() {  # a self-signed authority: $1.crt, $1.key
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=$1" \
    -addext basicConstraints=critical,CA:TRUE -addext keyUsage=keyCertSign,cRLSign -keyout "$1.key" \
    -out "$1.crt" 2>/dev/null
}
ca userca && ca otherca && ca server
cas() { "$tool" --store cas --kind ca --no-keys "$@" >/dev/null; }
cas install userca.crt
cas install otherca.crt
"$tool" --store u --passin pass:pw request --key ec:P-256 --email u@x --out u.csr >/dev/null
openssl x509 -req -in u.csr -CA userca.crt -CAkey userca.key -days 1 -copy_extensions copy \
  -out u.crt 2>/dev/null
"$tool" --store u --passin pass:pw install u.crt >/dev/null

"$server" cas server.crt server.key 0 40 60 >server.out &
pid=$!
trap 'kill $pid 2>/dev/null || true' EXIT
for _ in $(seq 100); do grep -q port= server.out && break; sleep 0.1; done
grep -q port= server.out || { echo "the server did not start" >&2; exit 1; }
port=$(sed -n 's/port=//p' server.out)
hello() {
  echo | openssl s_client -connect "127.0.0.1:$port" -cert u.crt -key u/user/u_at_x.key \
    -pass pass:pw -quiet 2>/dev/null | grep -q "hello u@x"
}
expect() {  # expect accepted|refused: within about 3 seconds of polling
  for _ in 1 2 3 4 5 6; do
    if hello; then got=accepted; else got=refused; fi
    [ "$got" = "$1" ] && return 0
    sleep 0.5
  done
  echo "expected $1 at: $2" >&2
  exit 1
}
expect accepted "start"
cas remove userca
expect refused "authority removed"
cas install userca.crt
expect accepted "authority installed again"
cas remove otherca
cas remove userca
sleep 1
expect accepted "no authority left: the last good set stays"
grep -q "trust: kept the last good set" server.out
cas install userca.crt
expect accepted "authority installed once more"
# The authority revokes the client; the list it issues is kept while the server runs.
printf '[ca]\ndefault_ca=d\n[d]\ndatabase=db\ncrlnumber=n\ndefault_md=sha256\n' >ca.cnf
: >db && echo 01 >n
openssl ca -config ca.cnf -keyfile userca.key -cert userca.crt -revoke u.crt 2>/dev/null
openssl ca -config ca.cnf -keyfile userca.key -cert userca.crt -gencrl -crldays 2 -out u.crl \
  2>/dev/null
cas crl add u.crl
expect refused "the client revoked"
grep -q "refused: certificate revoked" server.out
echo "the TLS server follows its authorities"
