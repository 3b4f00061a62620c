# Enveloped CMS messages that OpenSSL made, decrypted by the platform with a key on the token.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# envelop FILE CIPHER OPTION...: encrypts the document into FILE for the certificates among the options.
envelop() { openssl cms -encrypt -binary -outform DER -in document -out "$1" "-$2" "${@:3}"; }
decrypt() { veltra decrypt "$1" --cms --container "$unique" --out decrypted "${@:2}"; }
refused() {
    rm -f decrypted
    expectFailure 1 "$2" decrypt "$1" "${@:3}"
    [ ! -e decrypted ] || fail "a refused decryption of $1 left a file"
}

newToken E2E-CMSDEC --fips 140-3
newCertifiedKey "$unique" --bits 2048 --usage exchange
newCertifiedKey "$unique-other" --bits 2048 --usage exchange
certificate=$unique.pem

# Around the block length, and long; with every key length, in turn.
for length in 1 15 16 17 200000; do
    head -c $length /dev/urandom >document
    for cipher in aes128 aes192 aes256; do
        envelop message.p7m $cipher "$certificate"
        decrypt message.p7m
        cmp document decrypted || fail "$cipher: $length bytes decrypt to something else"
    done
done

# The token recognises OAEP key transport by itself.
envelop oaep.p7m aes256 -recip "$certificate" -keyopt rsa_padding_mode:oaep
decrypt oaep.p7m
cmp document decrypted || fail "a message with OAEP key transport decrypts to something else"

# The key's own place among the recipients does not matter; who is none of them reads nothing.
envelop several.p7m aes128 "$unique-other.pem" "$certificate"
for container in "$unique" "$unique-other"; do
    veltra decrypt several.p7m --cms --container "$container" --out decrypted
    cmp document decrypted || fail "a message for two decrypts to something else for $container"
done
envelop foreign.p7m aes256 "$unique-other.pem"
refused foreign.p7m "could not decrypt for any of the message's recipients"

# What the platform or the provider cannot decrypt is refused with the reason.
envelop des3.p7m des3 "$certificate"
refused des3.p7m "not encrypted with AES-CBC"
envelop pieces.p7m aes256 -stream "$certificate"
refused pieces.p7m "content in pieces"
openssl cms -cmsout -inform DER -in pieces.p7m -outform DER -out whole.p7m
decrypt whole.p7m
cmp document decrypted || fail "the message written anew decrypts to something else"
head -c 300 message.p7m >cut.p7m
for file in cut.p7m document; do refused $file "not an enveloped CMS message"; done

# Without a session: the PIN by option, or a refusal where nobody can be asked.
logIn E2E-CMSDEC 1
sleep 2
refused message.p7m NTE_SILENT_CONTEXT --silent
rm -f decrypted
printf '%s\n' "$pin" | decrypt message.p7m --silent --pin-stdin
cmp document decrypted || fail "the message decrypts to something else with the PIN by option"
logIn E2E-CMSDEC
for container in "$unique" "$unique-other"; do veltra delete-key --container "$container" --yes; done
