// Who ciphers: the service or this process.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <sstream>

#include "base/paths.h"
#include "base/run_command.h"
#include "config/directories.h"
#include "config/ini.h"
#include "config/services.h"
#include "crypto/libCryptoDaemon_internal.h"
#include "log/logger.h"

namespace {

constexpr int REQUIRED_THREADS = 2;  // below that, ciphering takes too much from everything else

std::atomic<bool> g_softwareWorks = false;

// A card can only be asked by its driver's header, which is on no machine that this was built on: it isn't used.
void reportCard() {
    const FileDescriptor card(open(systemPath(paths::CIPHER_CARD).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (card.isOpen())
        LOG_HERE(2, "/dev/rx9 can't do 256-bit, AES ECB encryption/decryption\n");
}

// The start of a small file of text; empty if it can't be read.
std::istringstream textOf(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(65536, '\0');
    const int got = safe_read(file.get(), text.data(), static_cast<int>(text.size()));
    return std::istringstream(text.substr(0, static_cast<std::size_t>(std::max(got, 0))));
}

int countThreads(const std::string& interrupts) {
    std::string line;
    std::istringstream text = textOf(interrupts);
    std::getline(text, line);
    int count = 0;
    for (std::size_t at = line.find("CPU"); at != std::string::npos; at = line.find("CPU", at + 3))
        ++count;
    return count;
}

bool encryptionIsEnabled() {
    std::istringstream text = textOf(systemPath(paths::PLATFORM_CAPABILITIES));
    for (std::string line; std::getline(text, line);) {
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
    (void)!fscanf(output, "%63s", word);  // no word at all is not "on"
    (void)pclose(output);                 // the word counts, not how the tool ended
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

bool cryptoAvailable(const std::string& interrupts, CDlibResult* result) {
    if (g_softwareWorks)
        return true;
    reportCard();
    const int threads = countThreads(interrupts);
    if (threads >= REQUIRED_THREADS) {
        setResult(result, 0, "Using software:  found %d threads", threads);
    } else if (encryptionIsEnabled()) {
        setResult(result, 0, "Using software: enabled");
    } else {
        setResult(result, 0, "No hardware and no software; only %d of %d required threads", threads, REQUIRED_THREADS);
        return false;
    }
    g_softwareWorks = true;
    return true;
}

void forgetCipherPlace() {
    g_softwareWorks = false;
}

void CDlibInit(CDlibData* data, CDlibResult* result) {
    data->doOurOwnCryption = ciphersInline() && cryptoAvailable("/proc/interrupts", result);
    LOG_HERE(3, "CDlibInit returned with doOurOwnCryption set at: %d\n", data->doOurOwnCryption ? 1 : 0);
}
