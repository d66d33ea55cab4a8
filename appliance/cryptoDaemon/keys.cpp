#include "cryptoDaemon/keys.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "base/releaser.h"
#include "common/ctar.h"
#include "config/services.h"
#include "log/logger.h"

namespace keyservice {
namespace {

namespace fs = std::filesystem;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Releaser<&EVP_CIPHER_CTX_free>>;

// The payload behind the token's header. What isn't named is zero.
constexpr char MAGIC[8] = {'K', 'E', 'Y', 'T', 'O', 'K', 'N', '1'};
constexpr std::size_t PAYLOAD = 512;
constexpr std::size_t KEY_NAME = PAYLOAD + 8;  // tells which archive key wrapped it
constexpr std::size_t KEY_NAME_SIZE = 16;
constexpr std::size_t NONCE = PAYLOAD + 24;
constexpr std::size_t NONCE_SIZE = 12;
constexpr std::size_t WRAPPED = PAYLOAD + 36;
constexpr std::size_t WRAPPED_SIZE = 32;
constexpr std::size_t TAG = PAYLOAD + 68;
constexpr std::size_t TAG_SIZE = 16;
constexpr std::size_t PADDING = TAG + TAG_SIZE;
static_assert(sizeof(Key::bytes) == WRAPPED_SIZE);

[[noreturn]] void failWith(const fs::path& path, const char* what) {
    throw std::runtime_error("can't " + std::string(what) + " " + path.string() + ": " + strerror(errno));
}

void need(bool works, const char* what) {
    if (!works)
        throw std::runtime_error(std::string("the cryptographic library can't ") + what);
}

void syncDirectory(const fs::path& directory) {
    const FileDescriptor handle(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!handle.isOpen() || fsync(handle.get()) == -1)
        failWith(directory, "sync");
}

// Appears under its name only when all of it is safe on the disk, and never in the place of another.
void makeKeyFile(const fs::path& path) {
    const fs::path temporary = path.string() + ".new";
    const Cleanup removeTemporary([&] { (void)unlink(temporary.c_str()); });  // a link to it stays
    (void)unlink(temporary.c_str());                                          // left behind by a death
    FileDescriptor file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const Key key = randomKey();
    if (!file.isOpen() || fchmod(file.get(), 0600) == -1 ||
        safe_write(file.get(), key.bytes.data(), sizeof key.bytes) != sizeof key.bytes || fsync(file.get()) == -1)
        failWith(temporary, "write");
    if (link(temporary.c_str(), path.c_str()) == -1 && errno != EEXIST)
        failWith(path, "make");
    syncDirectory(path.parent_path());
    LOG_HERE(2, "A new archive key was made: %s", path.c_str());
}

CipherContext openGcm(const Key& key, const unsigned char* nonce, bool encrypts) {
    CipherContext context(EVP_CIPHER_CTX_new());
    need(context && EVP_CipherInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.bytes.data(), nonce,
                                      encrypts ? 1 : 0) == 1,
         "open a cipher");
    return context;
}

// Everything in the token but the wrapped key and the tag.
void authenticate(EVP_CIPHER_CTX* context, const unsigned char* token) {
    int done = 0;
    need(EVP_CipherUpdate(context, nullptr, &done, token, WRAPPED) == 1 &&
             EVP_CipherUpdate(context, nullptr, &done, token + PADDING, TOKEN_SIZE - PADDING) == 1,
         "authenticate a token");
}

}  // namespace

Key::~Key() {
    OPENSSL_cleanse(bytes.data(), bytes.size());
}

Key randomKey() {
    Key key;
    need(RAND_priv_bytes(key.bytes.data(), static_cast<int>(key.bytes.size())) == 1, "make random numbers");
    return key;
}

KeyStore::KeyStore(const fs::path& file) {
    file_.reset(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file_.isOpen() && errno == ENOENT) {
        makeKeyFile(file);
        file_.reset(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    }
    struct stat st;
    if (!file_.isOpen() || fstat(file_.get(), &st) == -1)
        failWith(file, "open");
    if (flock(file_.get(), LOCK_EX | LOCK_NB) == -1)
        throw std::runtime_error(file.string() + " is in use by another service");
    if ((st.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        throw std::runtime_error(file.string() + " can be read by others than its owner");
    if (st.st_size != sizeof archiveKey_.bytes ||
        safe_read(file_.get(), archiveKey_.bytes.data(), sizeof archiveKey_.bytes) != sizeof archiveKey_.bytes)
        throw std::runtime_error(file.string() + " doesn't hold a key");
}

Key KeyStore::derive(std::span<const unsigned char> label) const {
    Key key;
    unsigned length = 0;
    need(HMAC(EVP_sha256(), archiveKey_.bytes.data(), sizeof archiveKey_.bytes, label.data(), label.size(),
              key.bytes.data(), &length) != nullptr &&
             length == key.bytes.size(),
         "derive a key");
    return key;
}

Key KeyStore::keyForValue(std::uint64_t value) const {
    std::array<unsigned char, 16> label = {'v', 'a', 'l', 'u', 'e'};
    std::memcpy(label.data() + 8, &value, sizeof value);
    return derive(label);
}

Token KeyStore::wrap(const Key& key) const {
    Token token{};
    ctar::Header header;
    ctar::Entry entry;
    entry.name = "Kestrelix encrypted TAR v1";
    entry.kind = 'E';
    entry.mode = 0400;
    entry.size = TOKEN_PAYLOAD;
    entry.mtime = static_cast<std::uint64_t>(time(nullptr));
    need(ctar::makeHeader(entry, &header), "name a token");
    std::memcpy(token.data(), header.data(), header.size());
    auto* const bytes = reinterpret_cast<unsigned char*>(token.data());
    std::memcpy(bytes + PAYLOAD, MAGIC, sizeof MAGIC);
    const Key name = derive(std::array<unsigned char, 4>{'n', 'a', 'm', 'e'});
    std::memcpy(bytes + KEY_NAME, name.bytes.data(), KEY_NAME_SIZE);
    need(RAND_bytes(bytes + NONCE, NONCE_SIZE) == 1, "make random numbers");
    const CipherContext context =
        openGcm(derive(std::array<unsigned char, 4>{'w', 'r', 'a', 'p'}), bytes + NONCE, true);
    authenticate(context.get(), bytes);
    int done = 0;
    need(EVP_CipherUpdate(context.get(), bytes + WRAPPED, &done, key.bytes.data(), WRAPPED_SIZE) == 1 &&
             EVP_CipherFinal_ex(context.get(), bytes + TAG, &done) == 1 &&
             EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, TAG_SIZE, bytes + TAG) == 1,
         "wrap a key");
    return token;
}

Key KeyStore::unwrap(std::span<const std::byte, TOKEN_SIZE> token) const {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(token.data());
    if (std::memcmp(bytes + PAYLOAD, MAGIC, sizeof MAGIC) != 0)
        throw Refused("this is no token");
    const Key name = derive(std::array<unsigned char, 4>{'n', 'a', 'm', 'e'});
    if (std::memcmp(bytes + KEY_NAME, name.bytes.data(), KEY_NAME_SIZE) != 0)
        throw Refused("the token was made with another archive key");
    const CipherContext context =
        openGcm(derive(std::array<unsigned char, 4>{'w', 'r', 'a', 'p'}), bytes + NONCE, false);
    authenticate(context.get(), bytes);
    Key key;
    int done = 0;
    unsigned char tag[TAG_SIZE];
    std::memcpy(tag, bytes + TAG, sizeof tag);
    need(EVP_CipherUpdate(context.get(), key.bytes.data(), &done, bytes + WRAPPED, WRAPPED_SIZE) == 1 &&
             EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, TAG_SIZE, tag) == 1,
         "unwrap a key");
    if (EVP_CipherFinal_ex(context.get(), tag, &done) != 1)
        throw Refused("the token is damaged");
    return key;
}

}  // namespace keyservice
