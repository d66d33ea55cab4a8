// key_service.h - the real key service on a test's root, and files as it seals them.
#pragma once

#include "crypto/libCryptoDaemon.h"
#include "lab/process.h"
#include "support/root.h"
#include "support/test.h"

namespace testsupport {

// Runs until the result goes; can be asked when this returns.
[[nodiscard]] inline lab::Process startKeyService(const TestRoot& root) {
    lab::ProcessOptions options;
    options.environment = {{"DQDIR", root / "usr/dq"}};
    options.output = root / "tmp/cryptoDaemon.out";
    return lab::startKeyService(root.path(), options);
}

// What a file with this content looks like when it is encrypted: the token, then the content in whole units.
[[nodiscard]] inline std::string sealed(const std::string& plain) {
    CryptContext context;
    CDlibResult result{};
    int length = 4096;
    std::string file(4096, '\0');
    EXPECT_EQ(CDlibInitCryptWithArchiveKey(&context, &result), 0) << result.text;
    EXPECT_EQ(CDlibGetToken(file.data(), &length, &context, &result), 0) << result.text;
    const auto tokenLength = static_cast<std::size_t>(length);
    file.resize(tokenLength + plain.size());
    if (plain.empty())
        return file;
    context.nextDataInPtr = reinterpret_cast<const std::byte*>(plain.data());
    context.nextDataOutPtr = reinterpret_cast<std::byte*>(file.data() + tokenLength);
    context.dataInBytes = context.dataOutBytes = plain.size();
    EXPECT_EQ(CDlibCrypt(CDLIB_ENCRYPT, &context, &result), 0) << result.text;
    return file;
}

}  // namespace testsupport
