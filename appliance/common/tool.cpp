#include "common/tool.h"

#include <cstdlib>

#include "config/directories.h"
#include "config/program_log.h"
#include "log/logger.h"

namespace tool {
namespace {

Device deviceIn(const PgResultPtr& row) {
    if (pgTuples(row.get()) == 0)
        throw std::runtime_error("the catalogue has no such disk");
    return {pgSDup(row.get(), 0, "dev_name"), pgSDup(row.get(), 0, "dev_rw_name"), pgUVal(row.get(), 0, "tape_no")};
}

}  // namespace

void start(const char* program) {
    set_program_name(program);
    if (init_application() == -1)
        throw std::runtime_error("the install directory can't be used");
    (void)OpenProgramLog(program, 1);  // a tool works without its log
}

PgResultPtr need(PgResultPtr result, const char* what) {
    if (pgStatus(result.get()) == -1)
        throw std::runtime_error(std::string("the catalogue can't ") + what);
    return result;
}

Device firstDisk() {
    return deviceIn(need(pgExec("SELECT dev_name, dev_rw_name, tape_no FROM devices WHERE device_type = 128 "
                                "AND NOT is_deleted ORDER BY device_no LIMIT 1"),
                         "name a disk"));
}

Device deviceOf(std::uint64_t backupNo) {
    return deviceIn(need(pgVExec("SELECT d.dev_name, d.dev_rw_name, d.tape_no FROM backups b JOIN filesets f "
                                 "USING (fileset_no) JOIN devices d ON (d.dev_name = f.tape_drive_name) "
                                 "WHERE b.backup_no = %lu",
                                 backupNo),
                         "name the backup's disk"));
}

std::filesystem::path backupFile(const Device& device, std::uint64_t backupNo) {
    const std::filesystem::path plain = device.directory / ("backup_" + std::to_string(backupNo));
    const std::filesystem::path compressed = plain.string() + COMPRESSED_SUFFIX;
    return std::filesystem::exists(compressed) ? compressed : plain;
}

std::uint64_t backupNumber(const char* text) {
    char* end = nullptr;
    const unsigned long number = strtoul(text, &end, 10);
    return *text >= '0' && *text <= '9' && *end == '\0' ? number : 0;
}

}  // namespace tool
