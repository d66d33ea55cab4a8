// sisTool - looks into the single instance store: what it is made of, where an offset lies, what is there, and whether
// every block that the catalogue says is in it can be read and is what its digest says.

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "base/text.h"
#include "common/digest.h"
#include "common/tool.h"
#include "config/services.h"
#include "hash/hashValues.h"
#include "hash/store_access.h"

namespace {

constexpr int EXIT_WRONG = 1;  // something is wrong with the store
constexpr int EXIT_USAGE = 2;
constexpr std::size_t PIECE = 1 << 20;
constexpr std::size_t LIST_BATCH = 1000;

constexpr char USAGE[] =
    "Usage: sisTool COMMAND\n"
    "  info                 sizes, devices and allocation pointer of the store\n"
    "  ring OFFSET          the device on which a new file for the offset would be put\n"
    "  read OFFSET LENGTH   the bytes there, to standard output, as they are stored (decrypted, not decompressed)\n"
    "  verify               reads every block that the catalogue has in the store and checks its SHA-512\n"
    "Numbers may be hexadecimal with 0x. Exit status: 0; 1 it can't be done, or verify found something wrong; 2 "
    "usage.\n";

bool parseNumber(const char* text, std::uint64_t* number) {
    char* end = nullptr;
    errno = 0;
    *number = strtoull(text, &end, 0);
    return *text >= '0' && *text <= '9' && *end == '\0' && errno == 0;
}

SISPtr openStore() {
    SISPtr store = openSIS();
    if (!store)
        throw std::runtime_error("the store can't be opened; the log says why");
    return store;
}

int showInfo() {
    const SISPtr store = openStore();
    SISsummary summary;
    std::span<const SISdevice> devices;
    if (describeSIS(store.get(), &summary, &devices) == -1)
        throw std::runtime_error("the store can't be read; the log says why");
    const auto updated = static_cast<time_t>(summary.updateTime);
    char text[64] = "never";
    struct tm parts;
    if (updated != 0 && gmtime_r(&updated, &parts) != nullptr)
        (void)strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    printf("map updated       %s\n", text);
    printf("map generation    %lu\n", summary.generation);
    printf("block size        0x%lX\n", summary.blockSize);
    printf("file size limit   0x%lX\n", summary.fileSizeLimit);
    printf("allocation        0x%lX (store file %lu)\n", summary.nextFree, summary.nextFree / summary.fileSizeLimit);
    printf("ring entries      %u\n", summary.ringEntries);
    for (const SISdevice& device : devices)
        printf("device            weight %3u  %s%s\n", device.weight, device.directory.c_str(),
               device.isDeleted ? "  (deleted: read only)" : "");
    return 0;
}

int showPlace(std::uint64_t offset) {
    const SISPtr store = openStore();
    SISdevice device;
    if (placeOfSISoffset(store.get(), offset, &device) == -1)
        throw std::runtime_error("no device for this offset");
    printf("%s%s\n", device.directory.c_str(), device.isDeleted ? "  (deleted: a new file goes to the next)" : "");
    return 0;
}

int copyOut(std::uint64_t offset, std::uint64_t length) {
    const SISPtr store = openStore();
    std::vector<std::byte> buffer(std::min<std::uint64_t>(length, PIECE));
    while (length > 0) {
        const ssize_t got =
            readSIS(store.get(), std::span(buffer).first(std::min<std::uint64_t>(length, buffer.size())), offset);
        if (got < 1)
            throw std::runtime_error("nothing can be read at " + std::to_string(offset) + "; the log says why");
        if (safe_write(STDOUT_FILENO, buffer.data(), static_cast<int>(got)) != got)
            throw std::runtime_error(std::string("standard output: ") + strerror(errno));
        offset += static_cast<std::uint64_t>(got);
        length -= static_cast<std::uint64_t>(got);
    }
    return 0;
}

// What is wrong with a block, null if nothing is.
const char* faultOf(SISPtr* store, const hashValue& record) {
    Sha512Stream digest;
    std::vector<std::byte> buffer(std::min<std::uint64_t>(record.hashedLength, PIECE));
    for (std::uint64_t done = 0; done < record.hashedLength;) {
        const std::size_t count = std::min<std::uint64_t>(record.hashedLength - done, buffer.size());
        const std::span<std::byte> piece = std::span(buffer).first(count);
        if (readStoredSubfile(store, record, static_cast<std::int64_t>(done), piece) !=
            static_cast<std::int64_t>(count))
            return "can't be read";
        digest.add(piece.data(), count);
        done += count;
    }
    const Sha512 found = digest.finish();
    return std::equal(found.begin(), found.end(), std::begin(record.digest)) ? nullptr
                                                                             : "has other bytes than its name";
}

// One batch of the store's blocks, in the order of their places: those behind the one that ended the batch before.
struct Batch {
    std::vector<hashValue> records;
    bool isLast = true;
    std::string end;  // of its last row, in terms of the statement
};
Batch batchBehind(const std::string& end, HashValuesPtr* hashes) {
    const PgResultPtr rows =
        tool::need(pgVExec("SELECT hash_id, sis_offset FROM dq.hash_values WHERE sis_offset >= 0 "
                           "AND (sis_offset, hash_id) > (%s) ORDER BY sis_offset, hash_id LIMIT %zu",
                           end.c_str(), LIST_BATCH),
                   "list the store's blocks");
    Batch batch;
    batch.records.resize(static_cast<std::size_t>(pgTuples(rows.get())));
    for (std::size_t i = 0; i < batch.records.size(); ++i) {
        batch.records[i].flags = hashID_in;
        batch.records[i].hashID = pgUVal(rows.get(), static_cast<int>(i), "hash_id");
        batch.end =
            formatString("%lu, %lu", pgUVal(rows.get(), static_cast<int>(i), "sis_offset"), batch.records[i].hashID);
    }
    batch.isLast = batch.records.size() < LIST_BATCH;
    if (!batch.records.empty() && getHashValues(hashes, batch.records) == -1)
        throw std::runtime_error("the store's blocks can't be looked up");
    std::erase_if(batch.records, [](const hashValue& record) { return (record.flags & SISoffset_out) == 0; });
    return batch;
}

int verify() {
    SISPtr store = openStore();
    HashValuesPtr hashes;
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;
    std::uint64_t wrong = 0;
    Batch batch;
    for (batch.end = "-1, 0", batch.isLast = false; !batch.isLast;) {
        batch = batchBehind(batch.end, &hashes);
        for (const hashValue& record : batch.records) {
            ++blocks;
            bytes += record.hashedLength;
            const char* const fault = faultOf(&store, record);
            if (fault == nullptr)
                continue;
            ++wrong;
            printf("block %lu at 0x%lX, %lu bytes, %s\n", record.hashID, record.SISoffset, record.hashedLength, fault);
        }
    }
    printf("%lu blocks of %lu bytes, %lu wrong\n", blocks, bytes, wrong);
    return wrong == 0 ? 0 : EXIT_WRONG;
}

int run(const std::string& command, std::uint64_t first, std::uint64_t second) {
    try {
        tool::start("sisTool");
        const int status = command == "info"   ? showInfo()
                           : command == "ring" ? showPlace(first)
                           : command == "read" ? copyOut(first, second)
                                               : verify();
        if (fflush(stdout) != 0)
            throw std::runtime_error(std::string("standard output: ") + strerror(errno));
        return status;
    } catch (const std::exception& e) {
        fprintf(stderr, "sisTool: %s\n", e.what());
        return EXIT_WRONG;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        fputs(USAGE, stdout);
        return 0;
    }
    const std::string command = argc < 2 ? "" : argv[1];
    const int wanted = command == "info" || command == "verify" ? 2
                       : command == "ring"                      ? 3
                       : command == "read"                      ? 4
                                                                : -1;
    std::uint64_t numbers[2] = {};
    bool isGood = argc == wanted;
    for (int i = 2; isGood && i < argc; ++i)
        isGood = parseNumber(argv[i], &numbers[i - 2]);
    if (!isGood) {
        fputs(USAGE, stderr);
        return EXIT_USAGE;
    }
    return run(command, numbers[0], numbers[1]);
}
