# Certificates on the token: a leaf that OpenSSL issued, its chain from the folder of CA certificates, and the list.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# authority NAME [ISSUER]: a CA certificate NAME.pem, self-signed without an issuer.
authority() {
    openssl req -newkey rsa:2048 -nodes -keyout "$1.key" -subj "/CN=$1" -out "$1.csr" 2>/dev/null
    local by=(-signkey "$1.key")
    [ $# -eq 1 ] || by=(-CA "$2.pem" -CAkey "$2.key" -CAcreateserial)
    openssl x509 -req -in "$1.csr" "${by[@]}" -days 30 -extfile <(echo basicConstraints=critical,CA:true) \
        -out "$1.pem" 2>/dev/null
}

newToken E2E-CERT
newCertifiedKey "$unique" --bits 2048
newCertifiedKey "$unique-other" --bits 2048
authority e2e-root
authority e2e-intermediate e2e-root
openssl req -new -newkey rsa:2048 -nodes -keyout unused.key -subj "/CN=e2e-leaf" -out leaf.csr 2>/dev/null
openssl x509 -req -in leaf.csr -force_pubkey "$unique.pub" -CA e2e-intermediate.pem -CAkey e2e-intermediate.key \
    -CAcreateserial -days 30 -out leaf.pem 2>/dev/null
folder=home/VeltraDSC/Certificates
mkdir -p $folder
cp e2e-root.pem $folder/root.pem
openssl x509 -in e2e-intermediate.pem -outform DER -out $folder/intermediate.cer
echo "not a certificate" >$folder/damaged.crt
export VELTRA_HOME
VELTRA_HOME=$(windowsPath home)

veltra list-certificates >before.txt
[ "$(grep -c '^[0-9A-F]\{32\}' before.txt)" -eq 2 ] && ! grep -q CN= before.txt || fail "a new token has certificates: $(cat before.txt)"
expectFailure 1 "another key" veltra import-certificate --container "$unique-other" leaf.pem
expectFailure 1 NTE_NO_KEY veltra export-chain --container "$unique" --out none.p7b
[ ! -e none.p7b ] || fail "a key without a certificate has a chain"

veltra import-certificate --container "$unique" leaf.pem
veltra list-certificates >after.txt
grep -q ' CN=e2e-leaf  *CN=e2e-intermediate  *20' after.txt || fail "the certificate is not in the list: $(cat after.txt)"
[ "$(grep -c ' - ' after.txt)" -eq 1 ] || fail "the other key has a certificate: $(cat after.txt)"

veltra export-chain --container "$unique" --out chain.p7b
openssl asn1parse -inform DER -in chain.p7b | grep -q pkcs7-signedData || fail "the chain is not a SignedData"
subjects=$(openssl pkcs7 -inform DER -in chain.p7b -print_certs -noout | sed -n 's/^subject=CN = //p' | tr '\n' ' ')
[ "$subjects" = "e2e-root e2e-intermediate e2e-leaf " ] || fail "the chain is: $subjects"
openssl pkcs7 -inform DER -in chain.p7b -print_certs -out chain.pem
openssl verify -CAfile e2e-root.pem -untrusted chain.pem leaf.pem >/dev/null || fail "OpenSSL refuses the chain"
