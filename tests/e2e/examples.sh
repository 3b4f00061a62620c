# The programs of docs/examples, on a token that nobody is logged in to: they bring the PIN.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

printf '%s\n' "$pin" | softtoken create --serial E2E-EXAMPLES --pin-stdin
expectFailure 1 "cryptoapi: PIN:" runWindows "$bin/example_cryptoapi.exe" "$unique" 000000
expectFailure 1 "0x80090032" runWindows "$bin/example_cng.exe" 000000
expectFailure 0 "CryptoAPI: all right" runWindows "$bin/example_cryptoapi.exe" "$unique" "$pin"
expectFailure 0 "CNG: all right" runWindows "$bin/example_cng.exe" "$pin"
