// veltra info: everything that the provider answers to CryptGetProvParam.

#include "commands.h"

#include "error_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>

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

constexpr int kNameWidth = 22;

std::string valueText(const CryptoProvider& context, const Parameter& parameter) {
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
        return {text, strnlen(text, data.size())};
    }
    DWORD value = 0;
    std::memcpy(&value, data.data(), std::min(data.size(), sizeof value));
    if (parameter.form == Form::Number) {
        return std::to_string(value);
    }
    std::array<char, 11> digits{};
    std::snprintf(digits.data(), digits.size(), "0x%08lX", value);
    return digits.data();
}

template <class Record, class Print>
void printRecords(const CryptoProvider& context, DWORD parameter, std::string_view title, Print print) {
    std::cout << title << '\n';
    Record record{};
    DWORD length = sizeof record;
    DWORD flag = CRYPT_FIRST;
    while (CryptGetProvParam(context.handle(), parameter, reinterpret_cast<BYTE*>(&record), &length, flag)) {
        print(record);
        record = {};
        length = sizeof record;
        flag = CRYPT_NEXT;
    }
    require(GetLastError() == ERROR_NO_MORE_ITEMS, "could not list the algorithms");
}

void printExtended(const PROV_ENUMALGS_EX& record) {
    std::cout << "  " << std::left << std::setw(kNameWidth) << record.szName << ' ' << record.dwMinLen << ".."
              << record.dwMaxLen << " bits, usually " << record.dwDefaultLen << ", protocols "
              << record.dwProtocols << ", " << record.szLongName << '\n';
}

} // namespace

int showProvider(const ProviderChoice& provider) {
    const CryptoProvider context = CryptoProvider::openToken(provider);
    for (const Parameter& parameter : kParameters) {
        std::cout << std::left << std::setw(kNameWidth) << parameter.name << ' '
                  << valueText(context, parameter) << '\n';
    }
    printRecords<PROV_ENUMALGS>(context, PP_ENUMALGS, "algorithms", [](const PROV_ENUMALGS& record) {
        std::cout << "  " << std::left << std::setw(kNameWidth) << record.szName << ' ' << record.dwBitLen
                  << " bits\n";
    });
    printRecords<PROV_ENUMALGS_EX>(context, PP_ENUMALGS_EX, "algorithms with their limits", printExtended);
    printRecords<PROV_ENUMALGS_EX>(context, PP_ENUMEX_SIGNING_PROT, "algorithms for signatures",
                                   printExtended);
    std::cout << "containers\n";
    for (const std::string& name : context.containerNames()) {
        std::cout << "  " << name << '\n';
    }
    return kExitOk;
}

} // namespace veltra
