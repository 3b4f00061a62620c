#pragma once

#include "gcrypt_support.h"

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

namespace veltra::softtoken {

/// An S-expression: the form in which everything is stored and in which libgcrypt takes keys and signatures.
/// Access by name finds the first list of that name at any depth, so names within one expression are
/// distinct.
class Expression {
public:
    /// Takes ownership of `raw`.
    explicit Expression(gcry_sexp_t raw) noexcept : raw_(raw) {}

    /// Parses a canonical expression; Failure::Damaged when it is not exactly one. The result lies in secure
    /// memory when `form` does.
    static Expression parse(BytesView form);

    /// gcry_sexp_build: %s text, %b int length and pointer, %u unsigned, %S expression.
    template <class... Arguments>
    static Expression build(const char* format, Arguments... arguments) {
        initialiseCrypto();
        gcry_sexp_t raw = nullptr;
        checkCrypto(gcry_sexp_build(&raw, nullptr, format, arguments...), "building an expression");
        return Expression(raw);
    }

    /// "(name value)", or "(name)" for an empty value, which has no canonical form.
    static Expression field(const char* name, BytesView value);
    static Expression field(const char* name, std::uint64_t value);

    [[nodiscard]] gcry_sexp_t get() const noexcept { return raw_.get(); }

    /// The name that the list begins with; empty when it begins with something else.
    [[nodiscard]] std::string kind() const;

    /// The value behind `name`. Failure::Damaged when there is no such list; text() and bytes() of "(name)"
    /// are empty.
    [[nodiscard]] Expression list(const char* name) const;
    [[nodiscard]] Bytes bytes(const char* name) const;
    [[nodiscard]] SecureBytes secureBytes(const char* name) const;
    [[nodiscard]] std::string text(const char* name) const;
    [[nodiscard]] std::uint64_t number(const char* name) const;

    [[nodiscard]] Bytes canonical() const;
    [[nodiscard]] SecureBytes secureCanonical() const;

private:
    struct Release {
        void operator()(gcry_sexp_t raw) const noexcept { gcry_sexp_release(raw); }
    };

    std::unique_ptr<std::remove_pointer_t<gcry_sexp_t>, Release> raw_;
};

} // namespace veltra::softtoken
