// store_mover.h - moves the blocks of a hashed backup into the single instance store.
#pragma once

#include <cstdint>
#include <vector>

#include "block/hash_lock.h"
#include "common/backup_reader.h"
#include "common/tool.h"
#include "hash/hashValues.h"
#include "sis/SIS.h"

// The backup's file must be locked exclusively by the caller. All failures throw std::runtime_error; what has been
// moved by then stays moved, and a later run goes on with the rest.
class StoreMover {
public:
    StoreMover(const tool::Device& device, std::uint64_t backupNo, tool::BackupReader* stream);

    // Puts every block that the store lacks into it, and marks the backup and its references deduplicated.
    void move();

    // Gives the blocks' place in the backup's file back to the device. What remains is the file's length; the data is
    // in the store alone. Only for a plain file, after move().
    void punch() const;

private:
    struct Extent {
        std::uint64_t offset;
        std::uint64_t length;
    };

    void moveBatch(std::vector<hashReferenceInfo>* batch);
    void writeGroup(const std::vector<hashReferenceInfo>& references);
    void readBlock(const hashReferenceInfo& reference, std::span<std::byte> to) const;
    void mark();

    const tool::Device device_;
    const std::uint64_t backupNo_;
    tool::BackupReader* const stream_;
    HashValuesPtr hashes_;
    SISPtr store_;
    std::vector<Extent> extents_;
};
