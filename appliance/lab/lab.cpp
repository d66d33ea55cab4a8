#include "lab/lab.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "base/file_descriptor.h"
#include "common/digest.h"

namespace lab {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds POLL{20};
constexpr std::chrono::seconds START_LIMIT{30};
constexpr std::chrono::seconds WORKER_LIMIT{15};  // longer than a worker needs to end
constexpr int REPLICATION_COMPLETE = 2;

void writeText(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    if (!out.flush())
        throw std::runtime_error("can't write " + path.string());
}

std::string readText(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

bool answers(int port) {
    const FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// A program's place, for links in the appliance's bin directory.
const char* const TOOLS[] = {"fileDedup", "recipe", "ingest", "ferryd"};

fs::path prepareRoot(const fs::path& root) {
    for (const char* directory : {"etc/default", "usr/dq/dqinit", "usr/dq/bin", "usr/dq/logs.dir", "var/run",
                                  "var/opt/kestrelix", "dev/shm", "tmp", "backups/D2D"})
        fs::create_directories(root / directory);
    writeText(root / "etc/default/dq.ini", "[Location Information]\n  DQDIR=" + (root / "usr/dq").string() + "\n");
    writeText(root / "var/opt/kestrelix/platform_capabilities", "replication\n");
    for (const char* tool : TOOLS) {
        const fs::path link = root / "usr/dq/bin" / tool;
        fs::remove(link);
        fs::create_symlink(programDirectory() / tool, link);
    }
    return root;
}

}  // namespace

Appliance::Appliance(const fs::path& directory, bool diesWithParent)
    : root_(prepareRoot(directory / "root")),
      cluster_(directory / "postgresql", diesWithParent),
      diesWithParent_(diesWithParent) {
    addDisk();
}

void Appliance::addDisk() const {
    sql("INSERT INTO devices (device_no, dev_name, dev_rw_name, dev_nr_name, device_type, tape_no, capacity, dedup) "
        "VALUES (1, 'D2DBackups', '" +
        disk().string() + "', '" + disk().string() + "', 128, 1, 134217728, true)");
}

void Appliance::reset() {
    stopKeyService();
    sql(std::string("DROP SCHEMA dq CASCADE;") + SCHEMA_SQL + SEED_SQL);
    addDisk();
    fs::remove(root_ / "backups/SISinfo");
    for (const fs::path& directory : {disk(), logs(), root_ / "tmp", root_ / "var/run", root_ / "var/opt/kestrelix"}) {
        fs::remove_all(directory);
        fs::create_directories(directory);
    }
    prepareRoot(root_);
}

fs::path Appliance::backupFile(std::uint64_t backupNo) const {
    const fs::path plain = disk() / ("backup_" + std::to_string(backupNo));
    const fs::path compressed = plain.string() + ".gz";
    return fs::exists(compressed) ? compressed : plain;
}

std::map<std::string, std::string> Appliance::environment() const {
    return {{"FERRYD_ROOT", root_.string()},
            {"PGSERVICEFILE", cluster_.serviceFile().string()},
            {"DQDIR", (root_ / "usr/dq").string()},
            {"http_proxy", ""},
            {"all_proxy", ""},
            {"LC_ALL", "C"},
            {"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}};
}

ProcessOptions Appliance::processOptions(const std::string& output) const {
    ProcessOptions options;
    options.environment = environment();
    options.output = root_ / "tmp" / output;
    options.diesWithParent = diesWithParent_;
    options.ownGroup = true;
    return options;
}

Process Appliance::start(const std::vector<std::string>& command, const std::string& output) const {
    return {command, processOptions(output)};
}

void Appliance::startKeyService() {
    keyService_ = lab::startKeyService(root_, processOptions("cryptoDaemon.out"));
}

int Appliance::run(const std::vector<std::string>& command, std::string* output) const {
    static int counter = 0;
    ProcessOptions options;
    options.environment = environment();
    options.output = root_ / "tmp" / ("run-" + std::to_string(getpid()) + "-" + std::to_string(++counter));
    const int status = lab::run(command, options);
    if (output != nullptr)
        *output = readText(options.output);
    else if (status != 0)
        throw std::runtime_error(command.front() + " failed: " + readText(options.output));
    fs::remove(options.output);
    return status;
}

void Appliance::masterIni(const std::string& text) {
    const fs::path file = root_ / "usr/dq/dqinit/master.ini";
    std::error_code missing;
    const auto before = fs::last_write_time(file, missing);
    writeText(file, text);
    if (!missing)
        fs::last_write_time(file, std::max(fs::last_write_time(file), before + std::chrono::seconds(1)));
}

std::string Appliance::value(const std::string& query) const {
    return queryValue(cluster_.conninfo(), query);
}

std::string Appliance::log(const std::string& program) const {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(logs())) {
        if (entry.path().filename().string().starts_with(program + "-"))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    std::string text;
    for (const fs::path& file : files)
        text += readText(file);
    return text;
}

Lab::Lab(const fs::path& directory, LabOptions options)
    : directory_(traversable(directory)),
      options_(std::move(options)),
      source_(directory / "source", options_.diesWithParent),
      vault_(directory / "vault", options_.diesWithParent),
      vaultPort_(freePort()) {
    useFirstSettings();
    addOperationTypes();
}

Lab::~Lab() {
    try {
        stopDaemon();
        stopVault();
    } catch (const std::exception&) {
        // The processes are ended by their owners.
    }
}

std::string Lab::vaultName() const {
    return "127.0.0.1:" + std::to_string(vaultPort_);
}

void Lab::setReplication(const std::string& key, const std::string& value) {
    replication_[key] = value;
    writeSourceIni();
}

void Lab::reset() {
    stopDaemon();
    stopVault();
    source_.reset();
    vault_.reset();
    useFirstSettings();
    addOperationTypes();
}

// What an operator does once on a new system: the progress records need their names.
void Lab::addOperationTypes() const {
    if (source_.run({source_.root() / "usr/dq/bin/ferryd", "util", "createtypes"}) != 0)
        throw std::runtime_error("ferryd util createtypes failed");
}

void Lab::setFurther(const std::string& sections) {
    furtherSettings_ = sections;
    writeSourceIni();
}

void Lab::useFirstSettings() {
    furtherSettings_.clear();
    streams_.clear();
    replication_ = {
        {"SyncTo", vaultName()}, {"Enabled", "true"}, {"QueueScheme", "1"}, {"TimeDelay", "1"}, {"CheckInterval", "1"}};
    writeSourceIni();
    vault_.masterIni("[debugging]\n  vaultServer=3\n");
}

void Lab::writeSourceIni() {
    std::string text = "[Replication]\n";
    for (const auto& [key, value] : replication_)
        text.append("  ").append(key).append("=").append(value).append("\n");
    text += options_.sourceSettings + "[fileDedup]\n" + options_.dedupSettings + furtherSettings_ +
            "[LogRetentionInstances]\n  default=500\n[debugging]\n  ferryd=4\n  ferryd-util=4\n";
    source_.masterIni(text);
}

void Lab::startVault(const std::vector<std::string>& options) {
    std::vector<std::string> command = {programDirectory() / "vaultServer", "--port", std::to_string(vaultPort_)};
    command.insert(command.end(), options.begin(), options.end());
    vaultProcess_ = vault_.start(command, "vaultServer.out");
    const auto deadline = Clock::now() + START_LIMIT;
    while (!answers(vaultPort_)) {
        if (!vaultProcess_.running() || Clock::now() > deadline)
            throw std::runtime_error("the vault doesn't start: " + readText(vault_.root() / "tmp/vaultServer.out"));
        std::this_thread::sleep_for(POLL);
    }
}

void Lab::stopVault(int signal) {
    vaultProcess_.stop(signal);
}

void Lab::startDaemon() {
    daemon_ = source_.start({source_.root() / "usr/dq/bin/ferryd", "-d"}, "ferryd.out");
}

// Workers are in the daemon's process group. None of them may outlive the lab, but given the time they end by
// themselves, and end their tools, which have groups of their own.
void Lab::stopDaemon(int signal) {
    const pid_t group = daemon_.pid();
    daemon_.stop(signal);
    const auto deadline = Clock::now() + WORKER_LIMIT;
    while (signal == SIGTERM && group > 1 && ::kill(-group, 0) == 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(POLL);
    if (group > 1)
        ::kill(-group, SIGKILL);
}

std::uint64_t Lab::ingest(const fs::path& directory, int type, const std::vector<std::string>& options) {
    std::vector<std::string> command = {programDirectory() / "ingest", "--type", std::to_string(type)};
    command.insert(command.end(), options.begin(), options.end());
    command.push_back(directory);
    std::string output;
    if (source_.run(command, &output) != 0)
        throw std::runtime_error(output);
    // The number stands on the last line, behind what was left out.
    while (!output.empty() && output.back() == '\n')
        output.pop_back();
    const std::uint64_t backupNo = std::stoull(output.substr(output.rfind('\n') + 1));
    streams_[backupNo] = streamDigest(backupNo);
    return backupNo;
}

// Of the clean stream, however the file keeps it.
std::string Lab::streamDigest(std::uint64_t backupNo) const {
    const fs::path file = source_.backupFile(backupNo);
    const std::string properties =
        source_.value("SELECT properties FROM dq.backups WHERE backup_no = " + std::to_string(backupNo));
    const fs::path clean = source_.root() / "tmp/clean.stream";
    if (properties == "0")
        return fileDigest(file);
    Process reader = source_.start({"/bin/sh", "-c", "exec \"$0\" read \"$1\" --properties \"$2\" >\"$3\"",
                                    programDirectory() / "archiveTool", file, properties, clean},
                                   "archiveTool.out");
    if (reader.wait(std::chrono::minutes(5)) != 0)
        throw std::runtime_error("the backup can't be read: " + readText(source_.root() / "tmp/archiveTool.out"));
    return fileDigest(clean);
}

int Lab::queueStatus(std::uint64_t backupNo) const {
    const std::string status =
        source_.value("SELECT status FROM dq.replication_queue WHERE backup_no = " + std::to_string(backupNo));
    return status.empty() ? 0 : std::stoi(status);
}

bool Lab::waitForStatus(std::uint64_t backupNo, int mask, std::chrono::seconds limit) const {
    const auto deadline = Clock::now() + limit;
    while ((queueStatus(backupNo) & mask) == 0) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(POLL);
    }
    return true;
}

std::uint64_t Lab::targetNumber(std::uint64_t backupNo) const {
    const std::string identity = source_.value(
        "SELECT identity || '|' || start_time || '|' || type FROM backups JOIN application_instances USING "
        "(instance_id) WHERE backup_no = " +
        std::to_string(backupNo));
    const std::string number = vault_.value(
        "SELECT backup_no FROM backups JOIN application_instances USING (instance_id) WHERE identity || '|' || "
        "start_time || '|' || type = '" +
        identity + "' AND (status & 1024) <> 0");
    return number.empty() ? 0 : std::stoull(number);
}

bool Lab::sameOnVault(std::uint64_t backupNo) const {
    const std::uint64_t number = targetNumber(backupNo);
    return number != 0 && streams_.at(backupNo) == fileDigest(vault_.backupFile(number));
}

std::string fileDigest(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("can't read " + path.string());
    Sha512Stream digest;
    std::vector<char> buffer(1 << 20);
    while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || file.gcount() > 0)
        digest.add(buffer.data(), static_cast<std::size_t>(file.gcount()));
    return toHex(digest.finish());
}

}  // namespace lab
