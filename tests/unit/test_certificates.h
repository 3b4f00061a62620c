#pragma once

// Certificates made for these tests with OpenSSL, in base64: "Test Root" (self-signed) issued "Test Inte",
// and that issued "Test Leaf". P-256, valid from 2020 to 2119.

namespace veltra::test {

inline constexpr const char* kRootCertificate =
    "MIIBPjCB5aADAgECAhQ2mPhBV16JwxU7Bl5bbRYP8rycLjAKBggqhkjOPQQDAjAUMRIwEAYDVQQDDAlUZXN0IFJvb3QwIBcNMjAw"
    "MTAxMDAwMDAwWhgPMjEyMDAxMDEwMDAwMDBaMBQxEjAQBgNVBAMMCVRlc3QgUm9vdDBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IA"
    "BINXvgg4zKgYBgLwuBbaLdcPVHiu5Qk8ZFc3BBjfUbinP2iVZeO4hwZEDkVTCqz7OQJhwHjQo+ElxlXkIty4NuejEzARMA8GA1Ud"
    "EwEB/wQFMAMBAf8wCgYIKoZIzj0EAwIDSAAwRQIgYFbmOayu/Kz1W9+WP9BqiZMqCd1aQvW0sVIBYdu4xR0CIQDdOqSH/pkPptqI"
    "/GJdtKd+yMeUvoa/L1mYOvbLmvG8Gg==";
inline constexpr const char* kIntermediateCertificate =
    "MIIBPjCB5aADAgECAhQgWcATFNFPYpso2k1H7DZuePNCOTAKBggqhkjOPQQDAjAUMRIwEAYDVQQDDAlUZXN0IFJvb3QwIBcNMjAw"
    "MTAxMDAwMDAwWhgPMjEyMDAxMDEwMDAwMDBaMBQxEjAQBgNVBAMMCVRlc3QgSW50ZTBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IA"
    "BH4gJbdFBq8OFnMV9YQgs79oP7zp5ZBDx5z/vD5l+cWptZoqPnTEb+YegwN66tWdNqS/kwoKozsNftYBPz4T6Q6jEzARMA8GA1Ud"
    "EwEB/wQFMAMBAf8wCgYIKoZIzj0EAwIDSAAwRQIhAJZBMkSgULk97Vjt/TOZsJqYup6sH1a/8QyVruNsJ48qAiB8RnzHUlaP4lHp"
    "GOXBurfz2ZEYLjLFbSXKxuq+TdAbBg==";
inline constexpr const char* kLeafCertificate =
    "MIIBODCB36ADAgECAhQRYg2W4Tytj/zrXWPFalqJy8TdSjAKBggqhkjOPQQDAjAUMRIwEAYDVQQDDAlUZXN0IEludGUwIBcNMjAw"
    "MTAxMDAwMDAwWhgPMjEyMDAxMDEwMDAwMDBaMBQxEjAQBgNVBAMMCVRlc3QgTGVhZjBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IA"
    "BOU53bcvXattiHOf38X2RXr2BaPfDBcJqEmnSFZq8Q40UYGZ9527C14EVINPoHfHz1LdKCscXh7kdY3dajV+KJOjDTALMAkGA1Ud"
    "EwQCMAAwCgYIKoZIzj0EAwIDSAAwRQIgddZdBfDS5HVmijCJDiniu9Pm34/Y25ITdnf7OvMYK7YCIQDx/WLyCrE3OU+gnUTBPPzy"
    "w2h2rGNxkMZOHJCgUGgrDg==";

} // namespace veltra::test
