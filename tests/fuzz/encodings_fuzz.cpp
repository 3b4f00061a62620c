// DER and names: what is read back is what was written, and what is read is what the bytes say.

#include "fuzz/fuzz_target.h"
#include "support/blob_bytes.h"

#include "certs/certificate_import.h"
#include "certs/der_reader.h"
#include "certs/public_key_encoding.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>

namespace veltra::fuzz {
namespace {

using Span = std::span<const unsigned char>;

// DerReader

constexpr std::array<DerTag, 6> kTags = {DerTag::Sequence,         DerTag::Integer, DerTag::BitString,
                                         DerTag::ObjectIdentifier, DerTag::Set,     DerTag::Context0};

// Reads on in `bytes` for as long as the input says, and into what was read.
void readElements(FuzzedDataProvider& choices, Span bytes, int depth) {
    DerReader reader(bytes);
    std::size_t position = 0;
    while (choices.remaining_bytes() > 0) {
        const DerTag tag = choices.PickValueInArray(kTags);
        const std::optional<Span> contents = reader.read(tag);
        if (!contents) {
            require(reader.atEnd() == (position == bytes.size()), "a refused element is not stepped over");
            return;
        }
        const Bytes element = derElement(tag, {*contents});
        require(element.size() <= bytes.size() - position, "an element ends within the bytes");
        require(std::ranges::equal(element, bytes.subspan(position, element.size())),
                "an element that is accepted is in the one form that DER allows");
        position += element.size();
        if (depth > 0 && choices.ConsumeBool()) readElements(choices, *contents, depth - 1);
    }
}

void readDer(FuzzedDataProvider& input) {
    const Bytes choices = anyBytes(input, 32);
    const Bytes der = input.ConsumeRemainingBytes<unsigned char>();
    FuzzedDataProvider chosen(choices.data(), choices.size());
    readElements(chosen, der, 4);
    const Span modulus = rsaModulusOf(der);
    require(modulus.data() >= der.data() && modulus.data() + modulus.size() <= der.data() + der.size(),
            "a modulus is a part of the key");
    const Bytes element = derElement(DerTag::Set, {der});
    const auto contents = readSingleElement(element, DerTag::Set);
    require(contents && std::ranges::equal(*contents, der), "what is written can be read");
}

std::vector<Bytes> derSeeds() {
    const Bytes choices(16, 0);
    const Bytes key = rsaSubjectPublicKeyInfo(test::counting(256, 0x80), Bytes{1, 0, 1});
    return {join(choices, key, Bytes{16}), join(choices, Bytes{0x30, 0x80, 0, 0}, Bytes{16}),
            join(choices, Bytes{0x30, 0x84, 0, 0, 1, 0}, Bytes{16}),
            join(choices, Bytes{0x30, 0x81, 0x7F}, Bytes(0x7F), Bytes{16})};
}

const Target derTarget("der_reader", readDer, derSeeds);

// publicKeyToDer

Bytes numberIn(std::string text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.erase(0, 2);
    if (text.size() % 2 != 0) text.insert(0, 1, '0');
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto character = static_cast<unsigned char>(text[i]);
        const int digit = std::isxdigit(character) == 0  ? 0
                          : std::isdigit(character) != 0 ? character - '0'
                                                         : std::toupper(character) - 'A' + 10;
        if (i % 2 == 0) bytes.push_back(0);
        bytes.back() = static_cast<unsigned char>(bytes.back() * 16 + digit);
    }
    return bytes;
}

Bytes positive(const Bytes& number) {
    const bool looksNegative = !number.empty() && number.front() >= 0x80;
    return looksNegative ? join(Bytes{0}, number) : number;
}

void writePublicKey(FuzzedDataProvider& input) {
    const std::string exponentHex =
        input.ConsumeBytesAsString(input.ConsumeIntegralInRange<std::size_t>(0, 16));
    const std::string modulusHex = input.ConsumeRemainingBytesAsString();
    const Bytes der = publicKeyToDer(modulusHex, exponentHex);

    const auto outer = readSingleElement(der, DerTag::Sequence);
    require(outer.has_value(), "a SubjectPublicKeyInfo is one sequence");
    DerReader info(*outer);
    const auto algorithm = info.read(DerTag::Sequence);
    const auto bits = info.read(DerTag::BitString);
    require(algorithm && bits && info.atEnd() && !bits->empty() && bits->front() == 0, "of two fields");
    DerReader oid(*algorithm);
    const auto rsa = oid.read(DerTag::ObjectIdentifier);
    require(rsa && std::ranges::equal(*rsa, Bytes{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01}),
            "rsaEncryption");
    const auto key = readSingleElement(bits->subspan(1), DerTag::Sequence);
    require(key.has_value(), "an RSAPublicKey is one sequence");
    DerReader numbers(*key);
    const auto modulus = numbers.read(DerTag::Integer);
    const auto exponent = numbers.read(DerTag::Integer);
    require(modulus && std::ranges::equal(*modulus, positive(numberIn(modulusHex))), "the modulus");
    require(exponent && std::ranges::equal(*exponent, positive(numberIn(exponentHex))), "the exponent");
    require(numbers.atEnd(), "nothing else");
}

std::vector<Bytes> publicKeySeeds() {
    const std::string modulus(512, 'c');
    const std::string exponent = "0x10001";
    return {join(exponent, modulus, Bytes{7}), join(exponent, std::string("0x123"), Bytes{7}),
            join(std::string("00zz"), Bytes{4}), Bytes{0}};
}

const Target publicKeyTarget("public_key_to_der", writePublicKey, publicKeySeeds);

// commonNameOf

bool endsName(char character) {
    return character == ',' || character == '\n' || character == '\r';
}

void findCommonName(FuzzedDataProvider& input) {
    const std::string text = input.ConsumeRemainingBytesAsString();
    std::string expected;
    for (std::size_t i = 0; i + 3 < text.size() && expected.empty(); ++i) {
        if (text.compare(i, 3, "CN=") != 0) continue;
        for (std::size_t j = i + 3; j < text.size() && !endsName(text[j]); ++j)
            expected += text[j];
    }
    require(commonNameOf(text) == expected, "the first common name that is not empty");
}

std::vector<Bytes> nameSeeds() {
    std::vector<Bytes> seeds;
    for (const std::string text : {"CN=a", "C=x, O=y, CN=z, L=w", "CN=,CN=\nCN=b", "CN=", "CN=CN=,"})
        seeds.push_back(join(text));
    return seeds;
}

const Target nameTarget("common_name", findCommonName, nameSeeds);

} // namespace
} // namespace veltra::fuzz
