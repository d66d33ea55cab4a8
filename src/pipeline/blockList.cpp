#include "pipeline/blockList.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "pipeline/pipeline_internal.h"
#include "rest/blocks.h"

BlockList::BlockList(std::uint64_t capacity) : capacity_(capacity) {
    allocate();
    while (!records_ || !sendInfo_) {
        if (capacity_ == 0) {
            LOG_THREAD(0, "Unable to get buffer");
            throw std::runtime_error("Unable to allocate buffer");
        }
        LOG_THREAD(0, "Resizing buffers");
        capacity_ = capacity_ < 2 ? 0 : capacity_ / 2 - 1;
        allocate();
    }
}

void BlockList::allocate() {
    records_.reset();
    sendInfo_.reset();
    if (capacity_ == 0)
        return;
    records_.reset(static_cast<hashReferenceInfo*>(std::calloc(capacity_, sizeof(hashReferenceInfo))));
    sendInfo_.reset(static_cast<RequestBody*>(std::calloc(capacity_, sizeof(RequestBody))));
}

TracedLock BlockList::lockAccess() {
    return {access_, "block list access"};
}

std::uint64_t BlockList::totalLength() const {
    std::uint64_t total = 0;
    for (const hashReferenceInfo& record : records())
        total += record.hashedLength;
    return total;
}

void BlockList::waitFull(TracedLock* access) {
    ++waiting_;
    full_.wait(access->inner());
    --waiting_;
}

int BlockList::waitEmpty(TracedLock* access, std::int32_t seconds) {
    return empty_.wait_until(access->inner(), wholeSecondsFromNow(seconds)) == std::cv_status::no_timeout ? 0 : -1;
}

void BlockList::wakeAll() {
    { const std::lock_guard passing(access_); }  // who has looked and not yet waits, waits now
    full_.notify_all();
    empty_.notify_all();
}

void BlockList::dump(int level) const {
    if (level > log_level)
        return;
    for (std::uint64_t i = 0; i < size_; ++i) {
        const hashReferenceInfo& record = records_.get()[i];
        LOG_HERE(level, "metaBuffer location:%lu hashID:%lu hashedLength:%lu SISoffset:%lu", i, record.hashID,
                 record.hashedLength, record.SISoffset);
    }
}

std::int64_t BlockList::populate(const std::string& url, std::int64_t backupNo, HashListPtr* hashList) {
    std::fill_n(records_.get(), capacity_, hashReferenceInfo{});
    index_ = 0;
    size_ = 0;
    const std::int64_t count = getHashesFromList(hashList, {records_.get(), capacity_});
    if (count < 0) {
        LOG_THREAD(0, "Error getting hash data from list");
        return -1;
    }
    size_ = static_cast<std::uint64_t>(count);
    if (const int result = checkBlocksOnTarget(url, backupNo); result != 0) {
        LOG_THREAD(0, "Failed target block check offset:%d", result);
        return -1;
    }
    return count;
}

int BlockList::reset(const std::string& url, std::int64_t backupNo) {
    index_ = 0;
    for (hashReferenceInfo& record : records())
        record.flags = (record.flags | hashID_in) & ~(SISoffset_in | locationID_in | hashValue_in);
    if (getHashValues_hri(&hashValues_, records()) == -1)
        LOG_THREAD(0, "Error getting hash data again; the records stay as they are");
    if (const int result = checkBlocksOnTarget(url, backupNo); result != 0) {
        LOG_THREAD(0, "Failed target block check offset:%d", result);
        return -1;
    }
    return 0;
}

int BlockList::checkBlocksOnTarget(const std::string& url, std::int64_t backupNo) {
    blocksOnTarget_ = 0;
    blocksToSend_ = 0;
    std::fill_n(sendInfo_.get(), size_, RequestBody{});
    std::optional<std::string> reply;
    int curlCode = 0;
    (void)postCheckOffset(url, records(), &reply, backupNo, &curlCode);  // the reply tells
    if (!reply) {
        LOG_THREAD(0, "postCheckOffset failed, unable to check blocks on target");
        if (curlCode != 0)
            LOG_THREAD(0, "Curl status: %s", curlText(curlCode));
        return curlCode != 0 ? curlCode : -1;
    }
    LOG_THREAD(1, "Check %lu blocks are on the target.", size_);
    for (std::uint64_t i = 0; i < size_; ++i)
        settle(i, (*reply)[i] == ON_TARGET);
    LOG_THREAD(1, "%d blocks need to be sent (%d blocks are already on the target).", blocksToSend_, blocksOnTarget_);
    return 0;
}

void BlockList::settle(std::uint64_t index, bool isOnTarget) {
    const std::uint64_t length = records_.get()[index].hashedLength;
    if (isOnTarget) {
        ++blocksOnTarget_;
        return;
    }
    sendInfo_.get()[index].remaining = length;
    if (length != 0)  // of an empty block there is nothing to send
        ++blocksToSend_;
}
