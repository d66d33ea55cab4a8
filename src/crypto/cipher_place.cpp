// Who ciphers: the service, a card (through the service), or this process.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>

#include "base/paths.h"
#include "base/run_command.h"
#include "config/directories.h"
#include "config/ini.h"
#include "crypto/libCryptoDaemon_internal.h"
#include "log/logger.h"

namespace {

constexpr int REQUIRED_THREADS = 2;        // below that, ciphering takes too much from everything else
constexpr unsigned CARD_AES256_ECB = 0x8;  // of its capabilities

std::atomic<bool> g_softwareWorks = false;

// The driver's requests are known only where its header is installed, which is on no machine that this was built on: a
// card that can't be asked isn't used.
int askInstalledCard(int, unsigned*, unsigned*) {
    return -1;
}

bool hasUsableCard(const CipherPlatform& platform) {
    const FileDescriptor card(open(systemPath(paths::CIPHER_CARD).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!card.isOpen())
        return false;
    unsigned version = 0;
    unsigned capabilities = 0;
    if (platform.askCard(card.get(), &version, &capabilities) == -1 || (capabilities & CARD_AES256_ECB) == 0) {
        LOG_HERE(2, "/dev/rx9 can't do 256-bit, AES ECB encryption/decryption\n");
        return false;
    }
    LOG_HERE(2, "using rx9 version: 0x%X (0x%X)\n", version, capabilities);
    return true;
}

int countThreads(const std::string& interrupts) {
    std::string line;
    std::ifstream file(interrupts);
    std::getline(file, line);
    int count = 0;
    for (std::size_t at = line.find("CPU"); at != std::string::npos; at = line.find("CPU", at + 3))
        ++count;
    return count;
}

bool encryptionIsEnabled() {
    std::ifstream file(systemPath(paths::PLATFORM_CAPABILITIES));
    for (std::string line; std::getline(file, line);) {
        const std::size_t first = line.find_first_not_of(" \t\r");
        if (first != std::string::npos &&
            line.substr(first, line.find_last_not_of(" \t\r") - first + 1) == "encryption")
            return true;
    }
    return false;
}

// For programs that never read the configuration: asks the installed tool, if there is one.
bool askDqutil() {
    const std::string tool = systemPath(paths::DQUTIL);
    if (access(tool.c_str(), X_OK) == -1)
        return true;
    const std::string command = shellQuoted(tool) + " -g \"Configuration Options\" \"inlineCryption\" x " +
                                shellQuoted(systemPath(paths::INSTALLED_MASTER_INI));
    FILE* const output = popen(command.c_str(), "re");
    if (output == nullptr)
        return true;
    char word[64] = "";
    (void)fscanf(output, "%63s", word);  // no word at all is not "on"
    (void)pclose(output);                // the word counts, not how the tool ended
    return std::string_view(word).starts_with("true") || word[0] == 'y';
}

bool ciphersInline() {
    if (g_master_ini.empty())
        return askDqutil();
    unsigned char isOn = 1;
    (void)ini_get_bool("Configuration Options", "inlineCryption", 1, &isOn, g_master_ini);  // the default stands
    return isOn != 0;
}

}  // namespace

CipherPlatform::CipherPlatform() : askCard(askInstalledCard) {}

CipherPlace cryptoAvailable(const CipherPlatform& platform, CDlibResult* result) {
    if (g_softwareWorks)
        return CipherPlace::Process;
    if (hasUsableCard(platform)) {
        setResult(result, 0, "Using hardware:  found card");
        return CipherPlace::Card;
    }
    const int threads = countThreads(platform.interrupts);
    if (threads >= REQUIRED_THREADS) {
        setResult(result, 0, "Using software:  found %d threads", threads);
    } else if (encryptionIsEnabled()) {
        setResult(result, 0, "Using software: enabled");
    } else {
        setResult(result, 0, "No hardware and no software; only %d of %d required threads", threads, REQUIRED_THREADS);
        return CipherPlace::Service;
    }
    g_softwareWorks = true;
    return CipherPlace::Process;
}

void forgetCipherPlace() {
    g_softwareWorks = false;
}

void CDlibInit(CDlibData* data, CDlibResult* result) {
    data->doOurOwnCryption = ciphersInline() && cryptoAvailable(CipherPlatform(), result) == CipherPlace::Process;
    LOG_HERE(3, "CDlibInit returned with doOurOwnCryption set at: %d\n", data->doOurOwnCryption ? 1 : 0);
}
