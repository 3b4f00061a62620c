// veltra show-provider: everything that the provider answers to CryptGetProvParam.

#include "commands.h"

#include "error_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace veltra {
namespace {

enum class Form { Text, Number, Hexadecimal, Size };

struct Parameter {
    DWORD code;
    std::string_view name;
    Form form;
};

constexpr std::array kParameters = {
    Parameter{PP_NAME, "name", Form::Text},
    Parameter{PP_VERSION, "version", Form::Hexadecimal},
    Parameter{PP_PROVTYPE, "type", Form::Number},
    Parameter{PP_IMPTYPE, "implementation", Form::Hexadecimal},
    Parameter{PP_KEYSTORAGE, "key storage", Form::Hexadecimal},
    Parameter{PP_CONTAINER, "container", Form::Text},
    Parameter{PP_UNIQUE_CONTAINER, "unique container", Form::Text},
    Parameter{PP_KEYSET_TYPE, "container type", Form::Number},
    Parameter{PP_KEYSPEC, "key specification", Form::Number},
    Parameter{PP_SIG_KEYSIZE_INC, "signature key step", Form::Number},
    Parameter{PP_KEYX_KEYSIZE_INC, "exchange key step", Form::Number},
    Parameter{PP_SIGNATURE_PIN, "signature PIN", Form::Number},
    Parameter{PP_KEYEXCHANGE_PIN, "exchange PIN", Form::Number},
    Parameter{PP_ADMIN_PIN, "administrator PIN", Form::Number},
    Parameter{PP_USE_HARDWARE_RNG, "hardware random", Form::Number},
    Parameter{PP_KEYSET_SEC_DESCR, "security descriptor", Form::Size},
    Parameter{PP_CERTCHAIN, "certificate chain", Form::Size},
};

Json valueOf(const CryptoProvider& context, const Parameter& parameter) {
    // The security descriptor is read by the system only for the parts that the flag names.
    const DWORD flags = parameter.code == PP_KEYSET_SEC_DESCR ? DACL_SECURITY_INFORMATION : 0;
    DWORD length = 0;
    if (!CryptGetProvParam(context.handle(), parameter.code, nullptr, &length, flags)) {
        return "none: " + describeError(GetLastError());
    }
    std::vector<BYTE> data(length);
    if (!CryptGetProvParam(context.handle(), parameter.code, data.data(), &length, flags)) {
        return "none: " + describeError(GetLastError());
    }
    if (parameter.form == Form::Size) {
        return std::to_string(length) + " bytes";
    }
    if (parameter.form == Form::Text) {
        const auto* text = reinterpret_cast<const char*>(data.data());
        return std::string(text, strnlen(text, data.size()));
    }
    DWORD value = 0;
    std::memcpy(&value, data.data(), std::min(data.size(), sizeof value));
    if (parameter.form == Form::Number) {
        return value;
    }
    std::array<char, 11> digits{};
    std::snprintf(digits.data(), digits.size(), "0x%08lX", value);
    return digits.data();
}

/// The records of an enumeration, each as `rowOf` makes a row of it.
template <class Record, class RowOf>
void addRecords(Table& table, const CryptoProvider& context, DWORD parameter, RowOf rowOf) {
    Record record{};
    DWORD length = sizeof record;
    DWORD flag = CRYPT_FIRST;
    while (CryptGetProvParam(context.handle(), parameter, reinterpret_cast<BYTE*>(&record), &length, flag)) {
        table.add(rowOf(record));
        record = {};
        length = sizeof record;
        flag = CRYPT_NEXT;
    }
    require(GetLastError() == ERROR_NO_MORE_ITEMS, "could not list the algorithms");
}

void listExtended(const CryptoProvider& context, DWORD parameter, const std::string& key,
                  std::string_view title, Output& out) {
    Table table = {{"ALGORITHM", "algorithm"}, {"FROM", "minBits"},        {"TO", "maxBits"},
                   {"USUAL", "defaultBits"},   {"PROTOCOLS", "protocols"}, {"NAME", "name"}};
    addRecords<PROV_ENUMALGS_EX>(table, context, parameter,
                                 [](const PROV_ENUMALGS_EX& record) -> std::vector<Json> {
                                     return {record.szName,       record.dwMinLen,    record.dwMaxLen,
                                             record.dwDefaultLen, record.dwProtocols, record.szLongName};
                                 });
    out.table(key, table, title);
}

} // namespace

int showProvider(const ProviderChoice& provider, Output& out) {
    const CryptoProvider context = CryptoProvider::openToken(provider);
    Table properties = {{"PROPERTY", "property"}, {"VALUE", "value"}};
    for (const Parameter& parameter : kParameters) {
        properties.add({parameter.name, valueOf(context, parameter)});
    }
    out.table("properties", properties);

    Table algorithms = {{"ALGORITHM", "algorithm"}, {"BITS", "bits"}};
    addRecords<PROV_ENUMALGS>(algorithms, context, PP_ENUMALGS,
                              [](const PROV_ENUMALGS& record) -> std::vector<Json> {
                                  return {record.szName, record.dwBitLen};
                              });
    out.table("algorithms", algorithms, "algorithms");
    listExtended(context, PP_ENUMALGS_EX, "algorithmLimits", "algorithms with their limits", out);
    listExtended(context, PP_ENUMEX_SIGNING_PROT, "signatureAlgorithms", "algorithms for signatures", out);
    out.names("containers", context.containerNames());
    return kExitOk;
}

} // namespace veltra
