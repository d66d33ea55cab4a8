// catalogue_fixture.h - an empty catalogue, and backups in it.
#pragma once

#include "bookkeeping/common.h"
#include "database/pghelper.h"
#include "support/catalogue.h"
#include "support/root.h"
#include "support/test.h"

class CatalogueTest : public testing::Test {
protected:
    void SetUp() override {
        pgCloseAll();
        catalogue.reset();
    }
    void TearDown() override { pgCloseAll(); }

    // A finished, successful backup that may be part of a synthesis; `changes` are assignments put over that.
    void backup(int number, int type, int instance, int start, const std::string& changes = "") {
        catalogue.sql(
            "INSERT INTO dq.backups (backup_no, type, node_no, instance_id, start_time, status, properties) "
            "VALUES (" +
            std::to_string(number) + "," + std::to_string(type) + ",1," + std::to_string(instance) + "," +
            std::to_string(start) + "," + std::to_string(ST_COMPLETE | ST_SUCCESS) + "," +
            std::to_string(P_SYNTHESIS_CAPABLE) + ")");
        if (!changes.empty())
            catalogue.sql("UPDATE dq.backups SET " + changes + " WHERE backup_no = " + std::to_string(number));
    }
    void instance(int number, int app, const std::string& keys = "NULL, NULL") {
        catalogue.sql("INSERT INTO dq.application_instances (instance_id, node_no, app_id, key1, key2) VALUES (" +
                      std::to_string(number) + ",1," + std::to_string(app) + "," + keys + ")");
    }

    testsupport::TestRoot root;
    testsupport::Catalogue& catalogue = testsupport::Catalogue::instance();
};
