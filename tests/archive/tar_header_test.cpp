#include "archive/tar_header.h"

#include "support/root.h"

namespace {

using testsupport::TestRoot;

struct Header {
    std::array<char, TAR_BLOCK> bytes{};

    Header& put(std::size_t offset, std::string_view text) {
        std::memcpy(bytes.data() + offset, text.data(), text.size());
        return *this;
    }
    // Fills in the right checksum: of unsigned bytes, less 256 for each whose top bit is set.
    Header& sum() {
        put(TAR_CHECKSUM, "        ");
        unsigned sum = 0;
        for (const char c : bytes)
            sum += static_cast<unsigned char>(c) - ((c & 0x80) != 0 ? 256u : 0u);
        char text[8];
        (void)std::snprintf(text, sizeof text, "%06o", sum & 0xFFFF);
        return put(TAR_CHECKSUM, {text, 7});
    }
    [[nodiscard]] TarHeader view() const { return std::as_bytes(std::span(bytes)); }
};

Header plain() {
    return Header().put(0, "etc/passwd").put(116, "0000000").put(TAR_SIZE, "00000001000").put(265, "00000000777");
}

TEST(TarHeader, HeadersOfTarItselfAreHeaders) {
    const TestRoot root;
    const std::string tmp = root / "tmp";
    testsupport::writeFile(root / "tmp/in", "content");
    // The v7 format has nothing where a backup's header has its own fields.
    ASSERT_EQ(std::system(("cd '" + tmp + "' && tar --format=v7 -cf t in").c_str()), 0);
    const std::string file = testsupport::readFile(root / "tmp/t");
    const TarHeader header = std::as_bytes(std::span(file).first<TAR_BLOCK>());
    EXPECT_TRUE(is_tar(header));
    EXPECT_EQ(tar_size(header, TAR_SIZE), 7u);
    EXPECT_TRUE(root.logged("File: in sz:[0] linkflag:[0]"));
}

TEST(TarHeader, WhatIsAHeaderAndWhatIsNot) {
    TestRoot root;
    // Null for a header, else why it is none.
    const std::tuple<const char*, Header, const char*> cases[] = {
        {"plain", plain().sum(), nullptr},
        {"sentinel", Header().put(TAR_CHECKSUM, "0000400"), nullptr},
        {"nothing at all", Header(), "checksum"},
        {"changed behind its checksum", plain().sum().put(300, "x"), "checksum"},
        {"bytes that count as negative", plain().put(3, "\xff\xfe\x80").sum(), nullptr},
        {"gid of no digit", plain().put(116, "8").sum(), "Gid"},
        {"gid of a blank", plain().put(116, " ").sum(), "Gid"},
        {"extended", plain().put(0, {"\0L\0rest", 7}).sum(), nullptr},
        {"extended but for its third byte", plain().put(0, {"\0Lx", 3}).sum(), "Non-blank name"},
        {"full name", plain().put(0, std::string(100, 'n')).sum(), nullptr},
        {"name with a hole", plain().put(90, "x").sum(), "Non-blank name"},
        {"link name without a link", plain().put(256, "x").sum(), "Non-blank linkname"},
        {"hard link", plain().put(156, "1target").sum(), nullptr},
        {"symbolic link", plain().put(156, "2target").sum(), nullptr},
        {"link name allowed by its flag", plain().put(157, "x").put(293, "0000100").sum(), nullptr},
        {"other flags", plain().put(157, "x").put(293, "0000200").sum(), "Non-blank linkname"}};
    for (const auto& [what, header, refusal] : cases) {
        root.clearLog();
        EXPECT_EQ(is_tar(header.view()), refusal == nullptr) << what;
        EXPECT_TRUE(refusal == nullptr || root.logged(std::string("Not a header because ") + refusal)) << what;
    }
}

TEST(TarHeader, BlankGidNeedsItsKeyWhichIsReadOnce) {
    const Header blank = plain().put(116, " ").sum();
    const auto inAnotherProcess = [&] {
        TestRoot root;
        root.masterIni("[Configuration Options]\nINCL_TAR_COMPAT=1\n");
        const bool first = is_tar(blank.view());
        root.masterIni("");
        std::exit(first && is_tar(blank.view()) ? 0 : 1);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(inAnotherProcess(), ::testing::ExitedWithCode(0), "");
}

TEST(TarHeader, Numbers) {
    // 12 bytes each; of 17 as the first digit what lies above bit 63 is lost.
    const std::pair<std::string, std::uint64_t> cases[] = {{"00000001000 ", 512},
                                                           {std::string(" \t 777\0 5555", 12), 0777},
                                                           {"777777777777", 0777777777777},
                                                           {"            ", 0},
                                                           {"9           ", 0},
                                                           {"-1          ", 0},
                                                           {"#0..........", 2},
                                                           {"#z/.........", 63 + 64},
                                                           {"#...../.....", 1ull << 30},
                                                           {"#....../....", 1ull << 36},
                                                           {"#..........5", 7ull << 60},
                                                           {"#..........F", 1ull << 60},
                                                           {"#zzzzzzzzzzz", ~0ull},
                                                           {"#0 zzzzzzzzz", 2},
                                                           {"#0..../ zzzz", 2 + (1ull << 30)}};
    for (const auto& [text, value] : cases)
        EXPECT_EQ(tar_size(Header().put(TAR_SIZE, text).view(), TAR_SIZE), value) << text;
    EXPECT_EQ(tar_octal(Header().put(504, "77777777").view(), 504, 99), 077777777u) << "ends with the header";
}

TEST(TarHeader, ExtendedBlocks) {
    const auto blocks = [](const char* flag, const char* name, const char* link) {
        return ctar_extended_blocks(
            Header().put(0, {"\0L", 2}).put(13, name).put(31, link).put(TAR_LINK_FLAG, flag).view());
    };
    EXPECT_EQ(ctar_extended_blocks(plain().put(13, "00000002").view()), 0u) << "no extended header";
    EXPECT_EQ(blocks("0", "00000000 00000000 ", "00000001 00000001 "), 0u);
    EXPECT_EQ(blocks("0", "00000000 00000001 ", ""), 1u);
    EXPECT_EQ(blocks("0", "00000000 00001000 ", ""), 1u);
    EXPECT_EQ(blocks("0", "00000001 00000001 ", ""), 2u);
    EXPECT_EQ(blocks("1", "00000000 00000777 ", "00000001 00000144 "), 2u);
    EXPECT_EQ(blocks("2", "00000003 00000777 ", "00000001 00000144 "), 4u);
}

}  // namespace
