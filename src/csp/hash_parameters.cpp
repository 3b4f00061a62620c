// CPGetHashParam and CPSetHashParam.

#include "csp/csp_entry_points.h"
#include "csp/hmac.h"

#include <algorithm>
#include <cstring>

namespace veltra {

namespace {

// The answers of a fixed size: asked for with null, refused below their size, copied.
template <class Value, class ValueOf>
Outcome answerFixedSize(const char* name, BYTE* data, DWORD* dataLength, ValueOf valueOf) {
    const DWORD available = *dataLength;
    if (data == nullptr) {
        *dataLength = sizeof(Value);
        return success();
    }
    if (available < sizeof(Value)) {
        *dataLength = sizeof(Value);
        return refuse(ERROR_MORE_DATA, concat("CPGetHashParam: ", name, " buffer too small"));
    }
    Value value{};
    if (const Outcome found = valueOf(value); !found) return found;
    std::memcpy(data, &value, sizeof(value));
    *dataLength = sizeof(Value);
    Utils::debug("Get hash param success");
    return success();
}

Outcome refuseMechanism(const char* name, const HASH_CONTEXT& hash) {
    return refuse(NTE_BAD_ALGID, concat("CPGetHashParam: ", name, " unsupported mechanism=", hash.mechanism));
}

Outcome getAlgId(const HASH_CONTEXT& hash, BYTE* data, DWORD* dataLength) {
    return answerFixedSize<ALG_ID>("HP_ALGID", data, dataLength, [&](ALG_ID& value) {
        if (hash.isHmac != 0) {
            value = CALG_HMAC;
            return success();
        }
        const HashAlgorithm* algorithm = findHashMechanism(hash.mechanism);
        if (algorithm == nullptr) return refuseMechanism("HP_ALGID", hash);
        value = algorithm->algId;
        return success();
    });
}

Outcome getHashSize(const HASH_CONTEXT& hash, BYTE* data, DWORD* dataLength) {
    return answerFixedSize<DWORD>("HP_HASHSIZE", data, dataLength, [&](DWORD& value) {
        const HashAlgorithm* algorithm = findHashMechanism(hash.mechanism);
        if (algorithm == nullptr) return refuseMechanism("HP_HASHSIZE", hash);
        value = algorithm->digestLength;
        Utils::debug("Get hash param hashSize : ", value);
        return success();
    });
}

Outcome getHmacInfo(const HASH_CONTEXT& hash, BYTE* data, DWORD* dataLength) {
    if (hash.isHmac == 0) {
        return refuse(NTE_BAD_TYPE, "CPGetHashParam: HP_HMAC_INFO requested but hash is not HMAC");
    }
    return answerFixedSize<HMAC_INFO>("HP_HMAC_INFO", data, dataLength, [&](HMAC_INFO& value) {
        value = hash.hmacInfo;
        return success();
    });
}

Outcome finishHash(const CSP_CONTEXT& context, HASH_CONTEXT& hash, std::uint32_t digestLength) {
    std::uint32_t length = 0;
    const int code = finishDeviceHash(context, hash.deviceHash, hash.hashValue.data(), digestLength, length);
    if (code != kDeviceOk)
        return refuse(NTE_FAIL, concat("CPGetHashParam: veltra_finalHash failed, ret=", code));
    if (hash.isHmac != 0) {
        if (const Outcome finished = finishHmac(context, hash, length); !finished) return finished;
    }
    hash.finalized = 1;
    hash.hashValueLength = length;
    return success();
}

// The hash is finished before the application's buffer is looked at; the value stays for the next call.
Outcome getHashValue(const CSP_CONTEXT& context, HASH_CONTEXT& hash, BYTE* data, DWORD* dataLength) {
    const HashAlgorithm* algorithm = findHashMechanism(hash.mechanism);
    if (algorithm == nullptr) return refuseMechanism("HP_HASHVAL", hash);
    if (data == nullptr) {
        *dataLength = algorithm->digestLength;
        return success();
    }
    const char* state = "cached hash value";
    if (hash.finalized == 0) {
        state = "finalized hash";
        if (const Outcome finished = finishHash(context, hash, algorithm->digestLength); !finished)
            return finished;
    }
    const DWORD available = *dataLength;
    *dataLength = hash.hashValueLength;
    if (available < hash.hashValueLength) {
        return refuse(ERROR_MORE_DATA, concat("CPGetHashParam: HP_HASHVAL buffer too small for ", state));
    }
    std::copy_n(hash.hashValue.begin(), hash.hashValueLength, data);
    return success();
}

// There is no length argument: the application's buffer holds as many bytes as the digest has.
Outcome setHashValue(HASH_CONTEXT& hash, const BYTE* data) {
    std::copy_n(data, hash.hashSize, hash.hashValue.begin());
    hash.hashValueLength = hash.hashSize;
    hash.finalized = 1;
    return success();
}

Outcome setHmacInfo(const CSP_CONTEXT& context, HASH_CONTEXT& hash, const BYTE* data) {
    if (hash.isHmac == 0) return refuse(NTE_BAD_TYPE, "CPSetHashParam: HP_HMAC_INFO on non-HMAC hash");
    HMAC_INFO info{};
    std::memcpy(&info, data, sizeof(info));
    return setUpHmac(context, hash, info);
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                           DWORD dwFlags) {
    return cspEntry("CPGetHashParam", [&] {
        const auto context = liveContext(hProv);
        const auto hash = liveHash(hHash);
        if (context == nullptr || hash == nullptr || pdwDataLen == nullptr) {
            return refuse(ERROR_INVALID_PARAMETER, concat("CPGetHashParam: invalid parameter - hProv=", hProv,
                                                          " hHash=", hHash, " pcbDataLen=", pdwDataLen));
        }
        if (dwFlags != 0) {
            return refuse(NTE_BAD_FLAGS, concat("CPGetHashParam: invalid dwFlags=0x", toHex8(dwFlags)));
        }
        if (context->initialised == 0 || hash->valid == 0) {
            return refuse(NTE_BAD_HASH, "CPGetHashParam: context not initialized or hash not valid");
        }
        Utils::debug("CPGetHashParam dwParam : ", dwParam);
        Utils::debug("CPGetHashParam mechanism : ", hash->mechanism);
        switch (dwParam) {
        case HP_ALGID:
            return getAlgId(*hash, pbData, pdwDataLen);
        case HP_HASHVAL:
            return getHashValue(*context, *hash, pbData, pdwDataLen);
        case HP_HASHSIZE:
            return getHashSize(*hash, pbData, pdwDataLen);
        case HP_HMAC_INFO:
            return getHmacInfo(*hash, pbData, pdwDataLen);
        default:
            return refuse(NTE_BAD_TYPE, concat("CPGetHashParam: unsupported dwParam=0x", toHex8(dwParam)));
        }
    });
}

BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData,
                           DWORD dwFlags) {
    return cspEntry("CPSetHashParam", [&] {
        const auto context = liveContext(hProv);
        const auto hash = liveHash(hHash);
        if (context == nullptr || hash == nullptr || pbData == nullptr) {
            return refuse(ERROR_INVALID_PARAMETER, concat("CPSetHashParam: invalid parameter - hProv=", hProv,
                                                          " hHash=", hHash, " pbData=", pbData));
        }
        if (dwFlags != 0) {
            return refuse(NTE_BAD_FLAGS, concat("CPSetHashParam: invalid dwFlags=0x", toHex8(dwFlags)));
        }
        if (context->initialised == 0 || hash->valid == 0) {
            return refuse(NTE_BAD_HASH, "CPSetHashParam: context not initialized or hash not valid");
        }
        Utils::debug("Set hash param dwParam : ", dwParam);
        Utils::debug("Set hash param dwFlags : ", dwFlags);
        switch (dwParam) {
        case HP_HASHVAL:
            return setHashValue(*hash, pbData);
        case HP_HMAC_INFO:
            return setHmacInfo(*context, *hash, pbData);
        default:
            return refuse(NTE_BAD_TYPE, concat("CPSetHashParam: unsupported dwParam=0x", toHex8(dwParam)));
        }
    });
}
