#!/usr/bin/env bash
# Generates the seed corpora of the fuzz targets with the openssl tool: valid
# certificates (user, authority, alternative-name, version 1 like the cache's
# own self-signed pairs; PEM, DER and bare base64), encrypted and plain keys,
# certificate requests, and truncated and bit-flipped variants of each.
# Usage: fuzz/make_corpora.sh OUTDIR    (OUTDIR/<target>/ is filled afresh)
set -euo pipefail
mkdir -p "$1"
out=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

password=seed-password

# --- material ---------------------------------------------------------------
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out key.pem 2>/dev/null
openssl pkcs8 -topk8 -v2 des3 -in key.pem -passout "pass:$password" -out key.enc.pem
openssl req -new -x509 -key key.pem -days 365 -subj "/CN=User One/emailAddress=one@example.org" \
  -addext "basicConstraints=CA:FALSE" -out user.pem
openssl req -new -x509 -key key.pem -days 365 -subj "/CN=Test Authority" \
  -addext "basicConstraints=critical,CA:TRUE" -out ca.pem
openssl req -new -x509 -key key.pem -days 365 -subj "/CN=Alt Name" \
  -addext "subjectAltName=email:alt@example.org" -out alt.pem
# A version 1 certificate with the e-mail address as common name.
openssl req -new -key key.pem -subj "/CN=self@example.org" -out v1.csr
openssl x509 -req -in v1.csr -signkey key.pem -days 365 -out v1.pem 2>/dev/null
openssl req -new -key key.pem -subj "/emailAddress=req@example.org" -out request.pem
openssl x509 -in user.pem -outform DER -out user.der
openssl x509 -in ca.pem -outform DER -out ca.der
base64 -w0 user.der >user.b64line
base64 user.der >user.b64

certificates=(user.pem ca.pem alt.pem v1.pem user.der ca.der)

# --- helpers ----------------------------------------------------------------
counter=0
# put TARGET FILE: adds FILE's bytes as a seed of TARGET.
put() {
  counter=$((counter + 1))
  cp "$2" "$out/$1/seed-$counter"
}
# truncated FILE: FILE cut at a quarter, half and all but one byte.
truncated() {
  local size
  size=$(stat -c %s "$1")
  for length in $((size / 4)) $((size / 2)) $((size - 1)); do
    head -c "$length" "$1" >"$1.cut$length"
    echo "$1.cut$length"
  done
}
# flipped FILE: FILE with one bit flipped at a few offsets through it.
flipped() {
  local size byte
  size=$(stat -c %s "$1")
  for offset in 0 7 $((size / 3)) $((size / 2)) $((size - 2)); do
    [ "$offset" -ge 0 ] && [ "$offset" -lt "$size" ] || continue
    cp "$1" "$1.flip$offset"
    byte=$(od -An -tu1 -j "$offset" -N1 "$1" | tr -d ' ')
    printf "\\x$(printf %02x $((byte ^ 0x04)))" |
      dd of="$1.flip$offset" bs=1 seek="$offset" conv=notrunc status=none
    echo "$1.flip$offset"
  done
}
variants() {
  echo "$1"
  truncated "$1"
  flipped "$1"
}
# Length prefixes of the structured inputs.
u8() { printf "\\x$(printf %02x "$1")"; }
u16() { u8 $(($1 & 255)); u8 $(($1 >> 8)); }
# shortstr TEXT / longfile FILE
shortstr() { u8 ${#1}; printf '%s' "$1"; }
longfile() { u16 "$(stat -c %s "$1")"; cat "$1"; }

for target in fuzz_certificate_base64 fuzz_certificate_file fuzz_certificate_with_key \
              fuzz_filename_encoding fuzz_cache_store; do
  rm -rf "${out:?}/$target"
  mkdir -p "$out/$target"
done

# --- createFromBase64 -------------------------------------------------------
printf '  \n%s\n\t' "$(cat user.b64)" >user.b64spaced
cat user.pem >user.trailing && printf 'garbage' >>user.trailing
for file in user.pem ca.pem alt.pem v1.pem user.b64 user.b64line user.b64spaced user.trailing \
            request.pem key.enc.pem; do
  for variant in $(variants "$file"); do put fuzz_certificate_base64 "$variant"; done
done

# --- createFromFile ---------------------------------------------------------
cat user.pem ca.pem >two.pem
cat key.enc.pem user.pem >keythencert.pem
for file in "${certificates[@]}" two.pem keythencert.pem request.pem key.enc.pem; do
  for variant in $(variants "$file"); do put fuzz_certificate_file "$variant"; done
done

# --- createFromFileWithKey: password, certificate, load flag, key -----------
pair() {  # pair PASSWORD CERTFILE KEYFILE OUT
  { shortstr "$1"; longfile "$2"; u8 1; cat "$3"; } >"$4"
}
pair "$password" user.pem key.enc.pem good.pair
pair "$password" user.der key.enc.pem der.pair
pair "wrong" user.pem key.enc.pem wrongpassword.pair
pair "" user.pem key.pem plainkey.pair
pair "$password" ca.pem key.enc.pem authority.pair
for variant in $(variants good.pair) der.pair wrongpassword.pair plainkey.pair authority.pair; do
  put fuzz_certificate_with_key "$variant"
done
for variant in $(truncated key.enc.pem) $(flipped key.enc.pem); do
  pair "$password" user.pem "$variant" "$variant.pair"
  put fuzz_certificate_with_key "$variant.pair"
done

# --- encodeFilename / decodeFilename ----------------------------------------
names=("one@example.org" "." ".." "../x" "/etc/passwd" "a/b" ".hidden" "%41%2F%2e"
       "name with blanks" "ünïcødé" "%" "%4" "a%ZZb" "$(printf 'a\tb\001c')")
for name in "${names[@]}"; do
  counter=$((counter + 1))
  printf '%s' "$name" >"$out/fuzz_filename_encoding/seed-$counter"
done
printf 'nul\0inside' >"$out/fuzz_filename_encoding/seed-nul"

# --- a cache over a store ---------------------------------------------------
# entry KIND NAME FILE: an entry whose content is FILE's bytes.
entry() { u8 "$1"; shortstr "$2"; longfile "$3"; }
# link NAME TARGET
link() { u8 2; shortstr "$1"; u16 ${#2}; printf '%s' "$2"; }
printf '' >empty
{ u8 1; shortstr "$password"; entry 0 one.crt user.pem; entry 0 one.key key.enc.pem
  entry 0 two.CRT alt.pem; entry 0 two.key key.enc.pem; entry 0 three.crt v1.pem
  entry 0 bad.crt user.pem.cut$(($(stat -c %s user.pem) / 2)); entry 0 der.crt user.der
} >keys.store
{ u8 0; shortstr ""; entry 0 a.crt user.pem; entry 4 a.crt alt.pem; entry 0 b.crt user.der
  entry 1 dir.crt empty; entry 3 fifo.crt empty; link dead.crt missing.crt; link ok.crt a.crt
  entry 0 c.crt.bak user.pem; entry 0 c.pem user.pem
} >plain.store
{ u8 7; shortstr "$password"; entry 0 ca.crt ca.pem; entry 0 ca.key key.enc.pem
  entry 4 ca.crt ca.pem; entry 4 ca.key key.pem; entry 0 user.crt user.pem
} >authority.store
{ u8 1; shortstr "$password"; entry 8 user empty; } >fileforsubdirectory.store
{ u8 1; shortstr ""; link loop.crt loop.crt; entry 0 x.crt user.pem; } >loop.store
{ u8 13; shortstr "$password"; entry 0 one.crt user.pem; entry 1 one.key empty
  entry 4 one.crt user.pem; entry 4 one.key key.enc.pem; } >keydirectory.store
for file in keys.store plain.store authority.store fileforsubdirectory.store loop.store \
            keydirectory.store; do
  put fuzz_cache_store "$file"
done
for variant in $(flipped keys.store); do put fuzz_cache_store "$variant"; done

for target in "$out"/*/; do
  echo "$(basename "$target"): $(find "$target" -type f | wc -l) seeds"
done
