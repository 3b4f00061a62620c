# Certificates on the token: a leaf that OpenSSL issued, its chain from the folder of CA certificates, and the list.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# authority NAME [ISSUER]: a CA certificate NAME.pem, self-signed without an issuer.
authority() {
    local by=(-key "$1.key")
    openssl genpkey -quiet -algorithm RSA -out "$1.key"
    openssl pkey -in "$1.key" -pubout -out "$1.pub"
    [ $# -eq 1 ] || by=(-force_pubkey "$1.pub" -CA "$2.pem" -CAkey "$2.key")
    openssl x509 -new -subj "/CN=$1" "${by[@]}" -extfile <(echo basicConstraints=critical,CA:true) -out "$1.pem"
}

newToken E2E-CERT
newCertifiedKey "$unique" --bits 2048
newCertifiedKey "$unique-other" --bits 2048
authority e2e-root
authority e2e-intermediate e2e-root
openssl x509 -new -subj /CN=e2e-leaf -force_pubkey "$unique.pub" -CA e2e-intermediate.pem \
    -CAkey e2e-intermediate.key -out leaf.pem
folder=home/VeltraDSC/Certificates
mkdir -p $folder
cp e2e-root.pem $folder/root.pem
openssl x509 -in e2e-intermediate.pem -outform DER -out $folder/intermediate.cer
echo "not a certificate" >$folder/damaged.crt
export VELTRA_HOME
VELTRA_HOME=$(windowsPath home)

veltra list-certificates >before.txt
[ "$(grep -c '^[0-9A-F]\{32\}' before.txt)" -eq 2 ] && ! grep -q CN= before.txt ||
    fail "a new token has certificates: $(cat before.txt)"
expectFailure 1 "another key" veltra import-certificate --container "$unique-other" leaf.pem
expectFailure 1 NTE_NO_KEY veltra export-chain --container "$unique" --out none.p7b
[ ! -e none.p7b ] || fail "a key without a certificate has a chain"

veltra import-certificate --container "$unique" leaf.pem
veltra list-certificates >after.txt
grep -q ' CN=e2e-leaf  *CN=e2e-intermediate  *20' after.txt || fail "the certificate is not in the list: $(cat after.txt)"
[ "$(grep -c ' - ' after.txt)" -eq 1 ] || fail "the other key has a certificate: $(cat after.txt)"

veltra export-chain --container "$unique" --out chain.p7b
subjects=$(openssl pkcs7 -inform DER -in chain.p7b -print_certs -noout | sed -n 's/^subject=CN = //p' | tr '\n' ' ')
[ "$subjects" = "e2e-root e2e-intermediate e2e-leaf " ] || fail "the chain is: $subjects"
openssl pkcs7 -inform DER -in chain.p7b -print_certs -out chain.pem
openssl verify -CAfile e2e-root.pem -untrusted chain.pem leaf.pem >/dev/null || fail "OpenSSL refuses the chain"
