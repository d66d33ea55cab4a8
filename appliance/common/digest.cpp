#include "common/digest.h"

#include <stdexcept>

Sha512Stream::Sha512Stream() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha512(), nullptr) != 1)
        throw std::runtime_error("SHA-512 is not available");
}

void Sha512Stream::add(const void* bytes, std::size_t count) {
    if (EVP_DigestUpdate(context_.get(), bytes, count) != 1)
        throw std::runtime_error("SHA-512 failed");
}

Sha512 Sha512Stream::finish() {
    Sha512 digest;
    if (EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1)
        throw std::runtime_error("SHA-512 failed");
    return digest;
}

Sha512 sha512(std::span<const std::byte> bytes) {
    Sha512Stream stream;
    stream.add(bytes.data(), bytes.size());
    return stream.finish();
}

std::string toHex(const Sha512& digest) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(digest.size() * 2);
    for (const std::uint8_t byte : digest) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

bool fromHex(std::string_view digits, Sha512* digest) {
    if (digits.size() != digest->size() * 2)
        return false;
    const auto value = [](char c) {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    for (std::size_t i = 0; i < digest->size(); ++i) {
        const int high = value(digits[2 * i]);
        const int low = value(digits[2 * i + 1]);
        if (high < 0 || low < 0)
            return false;
        (*digest)[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return true;
}
