// hashed_backup.h - backups whose blocks are hashed in a real catalogue and lie in real backup files.
#pragma once

#include "hash/hash_fixture.h"
#include "support/bytes.h"

namespace testsupport {

// Bytes that look like nothing else; the same for the same seed.
inline std::string randomBytes(std::size_t size, unsigned seed) {
    return noise(size, seed);
}

class HashedBackup : public HashCatalogue {
protected:
    HashedBackup() {
        std::filesystem::create_directories(root / "disk");
        catalogue.sql("INSERT INTO dq.devices (device_no, dev_nr_name, device_type) VALUES (1, '" +
                      (root / "disk").string() + "', 128)");
    }

    // A backup of these blocks, one behind the other; a block that comes again is the same hash.
    void makeBackup(std::uint64_t number, const std::vector<std::string>& blocks) {
        std::string file = "head";
        catalogue.sql("INSERT INTO dq.backups (backup_no, properties) VALUES (" + std::to_string(number) + ", 1536)");
        for (const std::string& block : blocks) {
            if (!ids_.contains(block))
                ids_[block] = addHash(block);
            addMapping(number, ids_[block], static_cast<std::int64_t>(file.size()));
            file += block;
        }
        writeFile(fileOf(number), file);
    }

    [[nodiscard]] std::filesystem::path fileOf(std::uint64_t number) const {
        return root / ("disk/backup_" + std::to_string(number) + ".gz");
    }

private:
    std::map<std::string, std::uint64_t> ids_;
};

}  // namespace testsupport
