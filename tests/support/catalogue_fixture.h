// catalogue_fixture.h - an empty catalogue, and backups and rows of the queue in it.
#pragma once

#include "bookkeeping/common.h"
#include "database/pghelper.h"
#include "support/catalogue.h"
#include "support/root.h"

class CatalogueTest : public testing::Test {
protected:
    CatalogueTest() { renew(); }
    ~CatalogueTest() override { pgCloseAll(); }

    void renew() {
        pgCloseAll();
        catalogue.reset();
    }
    // A finished, successful backup that may be part of a synthesis; `changes` are assignments put over that.
    void backup(int number, int type, int instance, int start, const std::string& changes = "") {
        catalogue.sql(formatString(
            "INSERT INTO dq.backups (backup_no, type, node_no, instance_id, start_time, status, properties) "
            "VALUES (%d, %d, 1, %d, %d, %d, %d)",
            number, type, instance, start, ST_COMPLETE | ST_SUCCESS, static_cast<int>(P_SYNTHESIS_CAPABLE)));
        if (!changes.empty())
            catalogue.sql("UPDATE dq.backups SET " + changes + " WHERE backup_no = " + std::to_string(number));
    }
    void instance(int number, int app, const std::string& keys = "NULL, NULL") {
        catalogue.sql("INSERT INTO dq.application_instances (instance_id, node_no, app_id, key1, key2) VALUES (" +
                      std::to_string(number) + ",1," + std::to_string(app) + "," + keys + ")");
    }
    void queue(int backupNo, int status, const std::string& vault = "vault") {
        catalogue.sql("INSERT INTO dq.replication_queue (backup_no, vault, status) VALUES (" +
                      std::to_string(backupNo) + ",'" + vault + "'," + std::to_string(status) + ")");
    }
    // The queue, "backup|status" a line.
    std::string queued() {
        return catalogue.rows("SELECT backup_no, status FROM dq.replication_queue ORDER BY position");
    }

    testsupport::TestRoot root;
    testsupport::Catalogue& catalogue = testsupport::Catalogue::instance();
};
