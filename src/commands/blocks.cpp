// Commands on blocks.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/signal_flags.h"
#include "block/hash_value.h"
#include "commands/util_internal.h"
#include "elimination/elimination.h"
#include "hash/hash_list.h"
#include "hash/hashed_contents.h"
#include "log/logger.h"
#include "pipeline/workBuffer.h"
#include "rest/blocks.h"
#include "rest/session.h"

namespace {

constexpr int FAILED = 1;
constexpr std::size_t FETCH = 25;             // blocks at a time
constexpr std::uint64_t READ_SIZE = 1 << 20;  // bytes at a time
constexpr int DISTINCT = 1;

bool tupleArgument(const char* text, hashValue* record) {
    if (tuple3ToHashValue(text, record) == 0)
        return true;
    LOG_HERE(0, "Failed to convert to 3tuple");
    fprintf(stderr, "ferryd util: '%s' is not a 3tuple\n", text);
    return false;
}

// Prints all blocks of a list, with their offsets or without. The list is long: a stop request ends it.
int printList(HashListPtr* list, bool withOffset) {
    std::vector<hashReferenceInfo> records(FETCH);
    for (;;) {
        const int count = getHashesFromList(list, records);
        if (count < 1)
            return count;
        if (stopRequested() || ferror(stdout) != 0)
            return FAILED;
        for (const hashReferenceInfo& record : std::span(records).first(static_cast<std::size_t>(count))) {
            char tuple[TUPLE3_SIZE];
            if (hashValueTo3tuple(record, tuple, sizeof tuple) == -1)
                return FAILED;
            if (withOffset)
                printf("%s %lu\n", tuple, static_cast<std::uint64_t>(record.fileOffset));
            else
                printf("%s\n", tuple);
        }
    }
}

int printBlocks(std::uint64_t backupNo, std::span<const std::uint64_t> exclusions, int distinct, bool withOffset) {
    HashListPtr list;
    if (createHashList(&list, backupNo, exclusions, distinct) == -1)
        return -1;
    const int result = printList(&list, withOffset);
    closeHashList(&list);
    return result;
}

// Pairs of a 3tuple and an offset.
bool blockArguments(Arguments arguments, std::vector<hashReferenceInfo>* records) {
    for (std::size_t i = 0; i + 1 < arguments.size(); i += 2) {
        hashReferenceInfo record{};
        std::uint64_t offset = 0;
        if (!tupleArgument(arguments[i], &record) || !numberArgument(arguments[i + 1], &offset))
            return false;
        record.fileOffset = static_cast<std::int64_t>(offset);
        dumpHashValue(log_level, record);
        records->push_back(record);
    }
    return true;
}

// Sends what the buffer holds and empties it.
int sendBuffer(WorkBuffer* buffer, const char* target, std::int64_t targetBackupNo) {
    int curlCode = 0;
    const int result = buffer->sendMultiBlock(target, targetBackupNo, &curlCode, nullptr);
    if (result < 0 || curlCode != 0) {
        LOG_HERE(0, "Failed to put blocks, error=%d, Curl status: %s", result, curlText(curlCode));
        fprintf(stderr, "ferryd util: the target did not take the blocks\n");
        return FAILED;
    }
    buffer->clear();
    return 0;
}

int fillAndSend(WorkBuffer* buffer, std::vector<hashReferenceInfo>* records, const char* target,
                std::int64_t targetBackupNo) {
    for (auto record = records->begin(); record != records->end();) {
        if (stopRequested())
            return FAILED;
        const int added = buffer->addBlock(&*record, nullptr);
        if (added == WorkBuffer::Failed || (added == WorkBuffer::Full && buffer->blocks() == 0)) {
            LOG_HERE(0, "Failed to add block %zd to the buffer", std::distance(records->begin(), record));
            fprintf(stderr, added == WorkBuffer::Failed
                                ? "ferryd util: a block can't be read\n"
                                : "ferryd util: a block is as long as the buffer less its header, give another size\n");
            return FAILED;
        }
        if (added == WorkBuffer::Done)
            ++record;
        else if (sendBuffer(buffer, target, targetBackupNo) != 0)
            return FAILED;
    }
    return sendBuffer(buffer, target, targetBackupNo);
}

}  // namespace

int utilCount(Arguments arguments) {
    std::uint64_t backupNo = 0;
    if (!numberArgument(arguments[0], &backupNo))
        return FAILED;
    const std::int64_t distinct = getHashCount(backupNo, 1);
    const std::int64_t total = getHashCount(backupNo, 0);
    printf("%ld %ld\n", static_cast<long>(distinct), static_cast<long>(total));
    return distinct < 0 || total < 0 ? -1 : 0;
}

int utilList(Arguments arguments) {
    std::uint64_t backupNo = 0;
    std::uint64_t distinct = 0;
    if (!numberArgument(arguments[0], &backupNo) || !numberArgument(arguments[1], &distinct))
        return FAILED;
    return printBlocks(backupNo, {}, static_cast<int>(std::min<std::uint64_t>(distinct, 2)), true);
}

int utilLbe(Arguments arguments) {
    std::uint64_t backupNo = 0;
    std::uint64_t mode = 0;
    if (!numberArgument(arguments[0], &backupNo) || !numberArgument(arguments[1], &mode))
        return FAILED;
    std::vector<std::uint64_t> exclusions;
    if (getLbeList(backupNo, static_cast<int>(std::min<std::uint64_t>(mode, 100)), &exclusions, nullptr) == -1)
        return -1;
    return printBlocks(backupNo, exclusions, DISTINCT, false);
}

int utilBlock(Arguments arguments) {
    hashValue record;
    if (!tupleArgument(arguments[0], &record))
        return FAILED;
    HashedContentsPtr contents;
    std::vector<std::byte> buffer(std::min(record.hashedLength, READ_SIZE));
    for (std::uint64_t offset = 0; offset < record.hashedLength;) {
        const std::uint64_t wanted = std::min<std::uint64_t>(buffer.size(), record.hashedLength - offset);
        const std::int64_t got =
            readHashedContents(&contents, &record, std::span(buffer).first(wanted), static_cast<std::int64_t>(offset));
        if (got < 1 || stopRequested()) {
            LOG_HERE(0, "readHashedContents failed");
            fprintf(stderr, "ferryd util: the block can't be read\n");
            return FAILED;
        }
        if (fwrite(buffer.data(), 1, static_cast<std::size_t>(got), stdout) != static_cast<std::size_t>(got))
            return FAILED;
        offset += static_cast<std::uint64_t>(got);
    }
    return 0;
}

int utilTupleHash(Arguments arguments) {
    hashValue record;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    if (!tupleArgument(arguments[0], &record) || !numberArgument(arguments[1], &offset) ||
        !numberArgument(arguments[2], &length))
        return FAILED;
    std::vector<std::uint8_t> folded;
    try {
        folded.resize(length);
    } catch (const std::exception&) {
        LOG_HERE(0, "Failed to allocate enough memory for output value");
        fprintf(stderr, "ferryd util: there is no memory for an output of %lu bytes\n", length);
        return FAILED;
    }
    foldHashValue(record, {offset_in, 0, static_cast<std::int64_t>(offset)}, folded);
    for (const std::uint8_t byte : folded)
        printf("%02X", byte);
    printf("\n");
    return 0;
}

// There is no such request any more; the command tells what it was given and that it failed.
int utilPostCheck(Arguments arguments) {
    for (const char* text : arguments.subspan(1)) {
        hashValue record;
        if (!tupleArgument(text, &record))
            return FAILED;
        dumpHashValue(log_level, record);
    }
    LOG_HERE(0, "Failed to check with POST\n");
    return FAILED;
}

int utilPostCheckOffset(Arguments arguments) {
    std::uint64_t targetBackupNo = 0;
    std::vector<hashReferenceInfo> records;
    if (!numberArgument(arguments[1], &targetBackupNo) || !blockArguments(arguments.subspan(2), &records))
        return FAILED;
    std::optional<std::string> reply;
    int curlCode = 0;
    (void)postCheckOffset(arguments[0], records, &reply, static_cast<std::int64_t>(targetBackupNo),
                          &curlCode);  // the reply tells
    if (!reply) {
        LOG_HERE(0, "Failed to check with POST\n");
        LOG_HERE(0, "Curl status: %s", curlText(curlCode));
        fprintf(stderr, "ferryd util: the target gave no usable answer\n");
        return FAILED;
    }
    printf("%s\n", reply->c_str());
    return 0;
}

int utilPutBlock(Arguments arguments) {
    std::uint64_t targetBackupNo = 0;
    std::uint64_t bufferSize = 0;
    std::vector<hashReferenceInfo> records;
    if (!numberArgument(arguments[1], &targetBackupNo) || !numberArgument(arguments[2], &bufferSize) ||
        !blockArguments(arguments.subspan(3), &records))
        return FAILED;
    try {
        WorkBuffer buffer(bufferSize);
        return fillAndSend(&buffer, &records, arguments[0], static_cast<std::int64_t>(targetBackupNo));
    } catch (const std::runtime_error& e) {
        LOG_HERE(0, "%s", e.what());
        fprintf(stderr, "ferryd util: no memory for a buffer of %lu bytes\n", bufferSize);
        return FAILED;
    }
}
