#include "expression.h"

#include <charconv>

namespace veltra::softtoken {

namespace {

template <class Container>
Container print(gcry_sexp_t raw) {
    Container form(gcry_sexp_sprint(raw, GCRYSEXP_FMT_CANON, nullptr, 0));
    form.resize(gcry_sexp_sprint(raw, GCRYSEXP_FMT_CANON, form.data(), form.size()));
    return form;
}

BytesView dataAt(gcry_sexp_t raw, int index) {
    std::size_t length = 0;
    const char* data = gcry_sexp_nth_data(raw, index, &length);
    return data == nullptr ? BytesView() : bytesOf({data, length});
}

} // namespace

Expression Expression::parse(BytesView form) {
    initialiseCrypto();
    gcry_sexp_t raw = nullptr;
    if (gcry_sexp_sscan(&raw, nullptr, reinterpret_cast<const char*>(form.data()), form.size()) != 0) {
        throw TokenError(Failure::Damaged, "not an expression");
    }
    Expression result(raw);
    const SecureBytes again = result.secureCanonical();
    if (!equalConstantTime(again, form)) throw TokenError(Failure::Damaged, "not a canonical expression");
    return result;
}

Expression Expression::field(const char* name, BytesView value) {
    if (value.empty()) return build("(%s)", name);
    return build("(%s %b)", name, static_cast<int>(value.size()), value.data());
}

Expression Expression::field(const char* name, std::uint64_t value) {
    return build("(%s %s)", name, std::to_string(value).c_str());
}

std::string Expression::kind() const {
    const BytesView name = dataAt(get(), 0);
    return {name.begin(), name.end()};
}

Expression Expression::list(const char* name) const {
    gcry_sexp_t found = gcry_sexp_find_token(get(), name, 0);
    if (found == nullptr) throw TokenError(Failure::Damaged, std::string("no field '") + name + "'");
    return Expression(found);
}

Bytes Expression::bytes(const char* name) const {
    const Expression found = list(name);
    const BytesView data = dataAt(found.get(), 1);
    return {data.begin(), data.end()};
}

SecureBytes Expression::secureBytes(const char* name) const {
    const Expression found = list(name);
    const BytesView data = dataAt(found.get(), 1);
    return {data.begin(), data.end()};
}

std::string Expression::text(const char* name) const {
    const Expression found = list(name);
    const BytesView data = dataAt(found.get(), 1);
    return {data.begin(), data.end()};
}

std::uint64_t Expression::number(const char* name) const {
    const std::string digits = text(name);
    const char* end = digits.data() + digits.size();
    std::uint64_t value = 0;
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc() || stop != end) {
        throw TokenError(Failure::Damaged, std::string("field '") + name + "' is not a number");
    }
    return value;
}

Bytes Expression::canonical() const {
    return print<Bytes>(get());
}

SecureBytes Expression::secureCanonical() const {
    return print<SecureBytes>(get());
}

} // namespace veltra::softtoken
