#include "key_agreement.h"

namespace veltra::softtoken {

namespace {

struct Release {
    void operator()(gcry_mpi_t number) const noexcept { gcry_mpi_release(number); }
    void operator()(gcry_mpi_point_t point) const noexcept { gcry_mpi_point_release(point); }
    void operator()(gcry_ctx_t context) const noexcept { gcry_ctx_release(context); }
};

template <class Raw>
using Handle = std::unique_ptr<std::remove_pointer_t<Raw>, Release>;
using Number = Handle<gcry_mpi_t>;
using Point = Handle<gcry_mpi_point_t>;
using Curve = Handle<gcry_ctx_t>;

Curve openCurve(const char* name) {
    gcry_ctx_t raw = nullptr;
    checkCrypto(gcry_mpi_ec_new(&raw, nullptr, name), "elliptic curve");
    return Curve(raw);
}

/// The number is in secure memory when `bytes` are.
Number toNumber(BytesView bytes) {
    gcry_mpi_t raw = nullptr;
    checkCrypto(gcry_mpi_scan(&raw, GCRYMPI_FMT_USG, bytes.data(), bytes.size(), nullptr), "number");
    return Number(raw);
}

/// Failure::BadArgument unless the uncompressed form is that of a point of the curve.
Point decodePoint(BytesView form, std::size_t coordinateLength, const Curve& curve) {
    Point point(gcry_mpi_point_new(0));
    if (form.size() == 1 + 2 * coordinateLength && form.front() == 0x04) {
        gcry_mpi_point_set(point.get(), toNumber(form.subspan(1, coordinateLength)).get(),
                           toNumber(form.last(coordinateLength)).get(), GCRYMPI_CONST_ONE);
        if (gcry_mpi_ec_curve_point(point.get(), curve.get()) != 0) return point;
    }
    throw TokenError(Failure::BadArgument, "the peer's key is not an uncompressed point of the key's curve");
}

/// In exactly `length` bytes, which the number must fit into.
SecureBytes toFixedLength(const Number& number, std::size_t length) {
    const std::size_t significant = (gcry_mpi_get_nbits(number.get()) + 7) / 8;
    SecureBytes bytes(length);
    checkCrypto(gcry_mpi_print(GCRYMPI_FMT_USG, bytes.data() + (length - significant), significant, nullptr,
                               number.get()),
                "number");
    return bytes;
}

} // namespace

SecureBytes ecdhSecret(const KeyKind& kind, BytesView privateKey, BytesView peer) {
    if (kind.isRsa()) throw TokenError(Failure::NotSupported, "an RSA key does not agree on a secret");
    const Expression key = Expression::parse(privateKey);
    const Curve curve = openCurve(kind.curve);
    const Point peerPoint = decodePoint(peer, kind.numberLength, curve);
    // A multiplier in secure memory makes libgcrypt multiply in constant time.
    const Number secretNumber = toNumber(key.secureBytes("d"));
    const Point shared(gcry_mpi_point_new(0));
    gcry_mpi_ec_mul(shared.get(), secretNumber.get(), peerPoint.get(), curve.get());
    const Number x(gcry_mpi_snew(kind.bits));
    if (gcry_mpi_ec_get_affine(x.get(), nullptr, shared.get(), curve.get()) != 0) {
        throw TokenError(Failure::Crypto, "the shared point is at infinity");
    }
    return toFixedLength(x, kind.numberLength);
}

} // namespace veltra::softtoken
