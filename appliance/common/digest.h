// digest.h - SHA-512 for the appliance's tools.
#pragma once

#include <openssl/evp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "base/releaser.h"

using Sha512 = std::array<std::uint8_t, 64>;

// A running digest. Throws std::runtime_error if the library refuses.
class Sha512Stream {
public:
    Sha512Stream();
    void add(const void* bytes, std::size_t count);
    [[nodiscard]] Sha512 finish();  // once

private:
    std::unique_ptr<EVP_MD_CTX, Releaser<&EVP_MD_CTX_free>> context_;
};

[[nodiscard]] Sha512 sha512(std::span<const std::byte> bytes);
[[nodiscard]] std::string toHex(const Sha512& digest);                // 128 upper-case digits
[[nodiscard]] bool fromHex(std::string_view digits, Sha512* digest);  // exactly 128 digits
