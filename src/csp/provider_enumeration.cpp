#include "csp/provider_enumeration.h"

#include "csp/algorithm_table.h"
#include "token/crypto_policy.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace veltra {

namespace {

constexpr DWORD kSgcEnum = 4; // CRYPT_SGC_ENUM, which not every platform header has

std::span<const ReportedAlgorithm> algorithmsOf(const CSP_CONTEXT& context) {
    return reportedAlgorithms(!context.serial.empty() &&
                              isFips1402Token(context.serial, context.libraryContext));
}

void advance(std::size_t& cursor, std::size_t count) {
    cursor = std::min(cursor + 1, count);
}

// Copies a name, with its terminating zero, into a field of a record; returns its length in the record.
template <std::size_t Capacity>
DWORD setName(char (&field)[Capacity], const char* name) {
    const std::size_t length = std::min(std::strlen(name) + 1, Capacity);
    std::copy_n(name, length, field);
    return static_cast<DWORD>(length);
}

PROV_ENUMALGS recordOf(const ReportedAlgorithm& algorithm, PROV_ENUMALGS record) {
    record.aiAlgid = algorithm.algId;
    record.dwBitLen = algorithm.defaultLength;
    record.dwNameLen = setName(record.szName, algorithm.shortName);
    return record;
}

PROV_ENUMALGS_EX recordOf(const ReportedAlgorithm& algorithm, PROV_ENUMALGS_EX record) {
    record.aiAlgid = algorithm.algId;
    record.dwDefaultLen = algorithm.defaultLength;
    record.dwMinLen = algorithm.minLength;
    record.dwMaxLen = algorithm.maxLength;
    record.dwProtocols = algorithm.protocols;
    record.dwNameLen = setName(record.szName, algorithm.shortName);
    record.dwLongNameLen = setName(record.szLongName, algorithm.longName);
    return record;
}

/// One enumeration of algorithm records: how it is called in the log.
struct EnumerationTexts {
    const char* name;
    const char* index; ///< debug line in front of the cursor, of size queries too; null for none
    std::string (*noMoreItems)(std::size_t index);
    const char* returned;
};

// A call without CRYPT_FIRST moves on before it reads, so the first such call of a context gives the second
// record, and a record that did not fit is skipped: deliberate.
template <class Record, class Rows>
Outcome enumerate(const Rows& rows, std::size_t& cursor, const EnumerationTexts& texts, BYTE* data,
                  DWORD* dataLength, DWORD flags) {
    const auto logIndex = [&] {
        if (texts.index != nullptr) Utils::debug(texts.index, cursor);
    };
    if (data == nullptr) {
        logIndex();
        *dataLength = sizeof(Record);
        return success();
    }
    switch (flags & ~kSgcEnum) {
    case CRYPT_FIRST:
        cursor = 0;
        break;
    case 0:
    case CRYPT_NEXT:
        advance(cursor, rows.size());
        break;
    default:
        return refuse(ERROR_INVALID_PARAMETER, concat(texts.name, ": invalid dwFlags=", flags));
    }
    logIndex();
    if (cursor >= rows.size()) return refuse(ERROR_NO_MORE_ITEMS, texts.noMoreItems(cursor));
    const DWORD available = *dataLength;
    *dataLength = sizeof(Record);
    if (available < sizeof(Record)) {
        return refuse(ERROR_MORE_DATA,
                      concat(texts.name, ": output buffer too small, required=", sizeof(Record)));
    }
    const Record record = recordOf(rows[cursor], Record{});
    std::memcpy(data, &record, sizeof(record));
    Utils::debug(texts.returned, rows[cursor].shortName);
    return success();
}

} // namespace

Outcome enumerateAlgorithms(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength, DWORD flags) {
    static constexpr EnumerationTexts kTexts = {
        .name = "CPGetProvParam PP_ENUMALGS",
        .index = nullptr,
        .noMoreItems =
            [](std::size_t index) {
                return concat("CPGetProvParam PP_ENUMALGS: no more algorithms, index=", index);
            },
        .returned = "CPGetProvParam: returned algorithm -> "};
    return enumerate<PROV_ENUMALGS>(algorithmsOf(context), context.algorithmCursor, kTexts, data, dataLength,
                                    flags);
}

Outcome enumerateAlgorithmsEx(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength, DWORD flags) {
    static constexpr EnumerationTexts kTexts = {
        .name = "CPGetProvParam PP_ENUMALGS_EX",
        .index = nullptr,
        .noMoreItems =
            [](std::size_t index) {
                return concat("CPGetProvParam PP_ENUMALGS_EX: no more algorithms, index=", index);
            },
        .returned = "CPGetProvParam: returned EX algorithm -> "};
    return enumerate<PROV_ENUMALGS_EX>(algorithmsOf(context), context.algorithmCursor, kTexts, data,
                                       dataLength, flags);
}

Outcome enumerateSigningProtocols(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength, DWORD flags) {
    static constexpr EnumerationTexts kTexts = {
        .name = "CPGetProvParam PP_ENUMEX_SIGNING_PROT",
        .index = "CPGetProvParam: PP_ENUMEX_SIGNING_PROT index=",
        .noMoreItems =
            [](std::size_t) { return std::string("CPGetProvParam: PP_ENUMEX_SIGNING_PROT no more items"); },
        .returned = "CPGetProvParam: returned signing algorithm -> "};
    std::vector<ReportedAlgorithm> rows;
    std::ranges::copy_if(algorithmsOf(context), std::back_inserter(rows), [](const ReportedAlgorithm& row) {
        return (row.protocols & CRYPT_FLAG_SIGNING) != 0;
    });
    return enumerate<PROV_ENUMALGS_EX>(rows, context.signingProtocolCursor, kTexts, data, dataLength, flags);
}

// A name that does not fit succeeds with ERROR_MORE_DATA: with CRYPT_FIRST and no buffer an application
// learns the size that it needs.
Outcome enumerateContainers(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength, DWORD flags) {
    switch (flags & ~static_cast<DWORD>(CRYPT_MACHINE_KEYSET)) {
    case CRYPT_FIRST:
        context.containerCursor = 0;
        break;
    case CRYPT_NEXT:
        advance(context.containerCursor, context.keyList.size());
        break;
    default:
        return refuse(ERROR_INVALID_PARAMETER,
                      concat("CPGetProvParam PP_ENUMCONTAINERS: invalid dwFlags=", flags));
    }
    if (context.containerCursor >= context.keyList.size()) {
        return refuse(
            ERROR_NO_MORE_ITEMS,
            concat("CPGetProvParam PP_ENUMCONTAINERS: no more containers, index=", context.containerCursor));
    }
    context.containersEnumerated = true;
    const std::string& name = context.keyList[context.containerCursor];
    const auto size = static_cast<DWORD>(name.size() + 1);
    const DWORD available = *dataLength;
    *dataLength = size;
    if (data == nullptr || available < size) return successWithLastError(ERROR_MORE_DATA);
    std::memcpy(data, name.c_str(), size);
    Utils::debug("CPGetProvParam: returned container -> ", name);
    return success();
}

} // namespace veltra
