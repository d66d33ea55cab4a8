// Whole jobs on backups whose files are compressed, encrypted, or both.

#include "e2e/e2e_fixture.h"
#include "support/test.h"

namespace e2e {
namespace {

class Kinds : public EndToEnd {};

TEST_F(Kinds, CompressedAndEncryptedBackupsAreRebuiltAsCleanStreams) {
    lab().source().startKeyService();
    lab().startVault();
    lab().startDaemon();
    const struct {
        const char* what;
        const char* engine;
        std::vector<std::string> options;
    } cases[] = {
        {"zlib", "zlib", {"--compress"}},
        {"LZ4", "lz4", {"--compress"}},
        {"encrypted", "lz4", {"--encrypt"}},
        {"LZ4, encrypted", "lz4", {"--compress", "--encrypt"}},
    };
    unsigned seed = 51;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        lab().setFurther("[Configuration Options]\n  CompressEngine=" + std::string(c.engine) + "\n");
        const std::uint64_t backup = lab().ingest(data(seed++, 3), 1, c.options);
        ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
        EXPECT_TRUE(lab().sameOnVault(backup));
    }
}

// Without its keys an encrypted backup can't be read: the job fails, and comes through when the service is back.
TEST_F(Kinds, KeyServiceThatDiesIsWaitedForByRetries) {
    lab().source().startKeyService();
    lab().startVault();
    lab().setReplication("Enabled", "false");
    lab().startDaemon();
    hold("recipe");
    const std::uint64_t backup = lab().ingest(data(61, 2), 1, {"--compress", "--encrypt"});
    lab().setReplication("Enabled", "true");
    ASSERT_TRUE(eventually([&] { return isHeld("recipe"); }));
    lab().source().stopKeyService(SIGKILL);
    release("recipe");
    ASSERT_TRUE(eventually([&] { return lastMessage(backup).starts_with("Failed: "); }));
    EXPECT_FALSE(lab().sameOnVault(backup));
    lab().source().startKeyService();
    ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    EXPECT_TRUE(lab().sameOnVault(backup));
}

}  // namespace
}  // namespace e2e
