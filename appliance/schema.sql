-- The appliance's catalogue: every table, view, sequence and function that replication touches. Columns that nobody on
-- this path reads have a default, so that a row can be inserted with just the columns of interest.

CREATE SCHEMA dq;
SET search_path = dq, public;

CREATE SEQUENCE dq.jobs_job_no_seq;
CREATE SEQUENCE dq.nodes_gclient_seq;

CREATE TABLE dq.backups (
    backup_no            bigserial PRIMARY KEY,
    node_no              bigint  NOT NULL DEFAULT 0,
    instance_id          bigint  NOT NULL DEFAULT 0,
    properties           bigint  NOT NULL DEFAULT 0,
    type                 integer NOT NULL DEFAULT 0,
    status               integer NOT NULL DEFAULT 0,
    sync_status          integer NOT NULL DEFAULT 0,
    exit_code            integer NOT NULL DEFAULT 0,
    start_time           bigint  NOT NULL DEFAULT 0,
    elapsed_time         bigint  NOT NULL DEFAULT 0,
    tape_no              oid     NOT NULL DEFAULT 0,
    fileset_no           bigint,
    server_name          text    NOT NULL DEFAULT '',
    operator_name        text    NOT NULL DEFAULT '',
    multivolume          integer NOT NULL DEFAULT 0,
    start_dir_no         bigint  NOT NULL DEFAULT 0,
    total_megs           bigint  NOT NULL DEFAULT 0,
    total_kilo           bigint  NOT NULL DEFAULT 0,
    total_netpaths       bigint  NOT NULL DEFAULT 0,
    verify_after         bigint  NOT NULL DEFAULT 0,
    is_verified          boolean NOT NULL DEFAULT false,
    job_no               bigint  NOT NULL DEFAULT 0,
    pid                  integer NOT NULL DEFAULT 0,
    x_command_short      text,
    attempt_cnt          integer NOT NULL DEFAULT 0,
    sync_resv            integer NOT NULL DEFAULT 0,
    incomplete           integer NOT NULL DEFAULT 0,
    notbacked            integer NOT NULL DEFAULT 0,
    blocksize            integer NOT NULL DEFAULT 0,
    lcs_no               integer NOT NULL DEFAULT 0,
    data_bkno            bigint  NOT NULL DEFAULT 0,
    all_filesets_present boolean NOT NULL DEFAULT false
);
-- The queue pass looks for backups that wait; finished ones, nearly all, stay out of this index.
CREATE INDEX backups_sync_status ON dq.backups (sync_status) WHERE sync_status <> 0;
CREATE INDEX backups_instance ON dq.backups (instance_id, start_time);
-- Early-sync backups that still run hold others back; there are few of them at any time.
CREATE INDEX backups_early_sync_running ON dq.backups (instance_id)
    WHERE (properties & 2048) = 2048 AND (status & 80) = 0;

-- What is being built now, of each instance: few or none.
CREATE INDEX backups_building ON dq.backups (instance_id, start_time) WHERE (status & 512) = 512;

-- What ferryd util createqueue would make, with the column that the schema adds.
CREATE TABLE dq.replication_queue (
    backup_no bigint REFERENCES dq.backups (backup_no) ON DELETE CASCADE,
    vault     text,
    position  serial,
    status    integer
);
ALTER TABLE dq.replication_queue ADD COLUMN rep_start bigint;
CREATE INDEX replication_queue_backup ON dq.replication_queue (backup_no);
CREATE INDEX replication_queue_status ON dq.replication_queue (status, position);
-- The pick looks for the rows that block their instance (active, need assist, out of order) each time, and passes over
-- every row that waits behind them. The index finds them; the statistics tell the planner that they are few. With only
-- one of the two it walks all backups for each waiting row.
CREATE INDEX replication_queue_blocking ON dq.replication_queue (backup_no) WHERE (status & 208) <> 0;
CREATE STATISTICS dq.replication_queue_blocking_share ON (status & 208) FROM dq.replication_queue;

CREATE TABLE dq.nodes (
    node_no                      bigserial PRIMARY KEY,
    node_name                    text    NOT NULL DEFAULT '',
    gcname                       text,
    type                         integer NOT NULL DEFAULT 0,
    os                           integer NOT NULL DEFAULT 0,
    properties                   bigint  NOT NULL DEFAULT 0,
    options                      bigint  NOT NULL DEFAULT 0,
    generic_property             bigint  NOT NULL DEFAULT 0,
    priority                     integer NOT NULL DEFAULT 0,
    status                       integer NOT NULL DEFAULT 0,
    vendor                       integer NOT NULL DEFAULT 0,
    last_master                  bigint  NOT NULL DEFAULT 0,
    last_master_start_time       bigint  NOT NULL DEFAULT 0,
    last_incremental             bigint  NOT NULL DEFAULT 0,
    last_incremental_start_time  bigint  NOT NULL DEFAULT 0,
    last_selective               bigint  NOT NULL DEFAULT 0,
    last_selective_start_time    bigint  NOT NULL DEFAULT 0,
    last_baremetal               bigint  NOT NULL DEFAULT 0,
    last_baremetal_start_time    bigint  NOT NULL DEFAULT 0,
    features                     integer NOT NULL DEFAULT 0,
    fstatus                      integer NOT NULL DEFAULT 0,
    bm_media_test_date           bigint  NOT NULL DEFAULT 0,
    system_id                    bigint
);

CREATE TABLE dq.application_instances (
    instance_id bigserial PRIMARY KEY,
    node_no     bigint  NOT NULL DEFAULT 0,
    app_id      integer NOT NULL DEFAULT 0,
    identity    text,
    key1        text,
    key2        text,
    key3        text,
    key4        text,
    priority    integer NOT NULL DEFAULT 0
);
CREATE INDEX application_instances_node ON dq.application_instances (node_no);
CREATE INDEX application_instances_identity ON dq.application_instances (lower(identity));

CREATE TABLE dq.application_lookup (
    app_id integer PRIMARY KEY,
    name   text NOT NULL DEFAULT '',
    type   text NOT NULL DEFAULT ''
);

CREATE TABLE dq.application_properties (
    instance_id bigint NOT NULL DEFAULT 0,
    prop_key    text   NOT NULL DEFAULT '',
    prop_value  text   NOT NULL DEFAULT ''
);
CREATE INDEX application_properties_instance ON dq.application_properties (instance_id);

CREATE TABLE dq.node_applications (
    node_no bigint  NOT NULL DEFAULT 0,
    app_id  integer NOT NULL DEFAULT 0
);

CREATE TABLE dq.devices (
    device_no   integer PRIMARY KEY,
    dev_name    text    NOT NULL DEFAULT '',
    dev_rw_name text    NOT NULL DEFAULT '',
    dev_nr_name text    NOT NULL DEFAULT '',
    device_type integer NOT NULL DEFAULT 0,
    dedup       boolean NOT NULL DEFAULT false,
    is_deleted  boolean NOT NULL DEFAULT false,
    is_scsi     boolean NOT NULL DEFAULT false,
    capacity    bigint  NOT NULL DEFAULT 0,
    tape_no     oid     NOT NULL DEFAULT 0
);

CREATE TABLE dq.filesets (
    fileset_no        bigserial PRIMARY KEY,
    tape_no           oid     NOT NULL DEFAULT 0,
    backup_no         bigint  NOT NULL DEFAULT 0,
    vol_no            integer NOT NULL DEFAULT 0,
    job_no            bigint  NOT NULL DEFAULT 0,
    start_time        bigint  NOT NULL DEFAULT 0,
    server_name       text    NOT NULL DEFAULT '',
    tape_drive_name   text    NOT NULL DEFAULT '',
    properties        bigint  NOT NULL DEFAULT 0,
    data_format       text    NOT NULL DEFAULT '',
    no_label          boolean NOT NULL DEFAULT false,
    ssn               bigint  NOT NULL DEFAULT 0,
    elapsed_time      bigint  NOT NULL DEFAULT 0,
    total_megs        bigint  NOT NULL DEFAULT 0,
    fileset_megs      bigint  NOT NULL DEFAULT 0,
    total_netpaths    bigint  NOT NULL DEFAULT 0,
    status            integer NOT NULL DEFAULT 0,
    physical_fsno     bigint  NOT NULL DEFAULT 0,
    v_koffset         bigint  NOT NULL DEFAULT 0,
    btotal            bigint  NOT NULL DEFAULT 0,
    tape_dataset      bigint  NOT NULL DEFAULT 0,
    is_multiplexed    boolean NOT NULL DEFAULT false,
    is_encrypted      boolean NOT NULL DEFAULT false,
    is_compressed     boolean NOT NULL DEFAULT false,
    scsi_blksize      integer NOT NULL DEFAULT 0,
    os                integer NOT NULL DEFAULT 0,
    ssn_blocksize     integer NOT NULL DEFAULT 0,
    mux_fileset_no    bigint  NOT NULL DEFAULT 0,
    import_no         bigint  NOT NULL DEFAULT 0,
    guid              text    NOT NULL DEFAULT '',
    device_properties bigint  NOT NULL DEFAULT 0
);

CREATE TABLE dq.backup_files (
    backup_no  bigint NOT NULL DEFAULT 0,
    size       bigint NOT NULL DEFAULT 0,
    blk_offset bigint NOT NULL DEFAULT -1 -- in blocks of 512 bytes, -1 none
);
CREATE INDEX backup_files_backup ON dq.backup_files (backup_no);

CREATE TABLE dq.sql_backups (
    sql_ref              bigint  NOT NULL DEFAULT 0,
    node_no              bigint  NOT NULL DEFAULT 0,
    sql_type             integer NOT NULL DEFAULT 0,
    server_instance_name text    NOT NULL DEFAULT '',
    database_name        text    NOT NULL DEFAULT '',
    group_file_order     bigint  NOT NULL DEFAULT 0,
    file_order_no        bigint  NOT NULL DEFAULT 0
);

CREATE INDEX sql_backups_ref ON dq.sql_backups (sql_ref);
CREATE INDEX sql_backups_chain ON dq.sql_backups
    (node_no, lower(database_name), lower(server_instance_name), group_file_order, file_order_no);

CREATE TABLE dq.backup_msg (
    backup_no bigint NOT NULL DEFAULT 0,
    messages  text   NOT NULL DEFAULT '',
    comment   text   NOT NULL DEFAULT ''
);
CREATE INDEX backup_msg_backup ON dq.backup_msg (backup_no);

CREATE TABLE dq.backup_snapshots (
    backup_no     bigint NOT NULL DEFAULT 0,
    snapshot_time bigint NOT NULL DEFAULT 0
);
CREATE INDEX backup_snapshots_backup ON dq.backup_snapshots (backup_no);

CREATE TABLE dq.vmware_snapshots (
    backup_no bigint NOT NULL DEFAULT 0,
    change_id text   NOT NULL DEFAULT ''
);
CREATE INDEX vmware_snapshots_backup ON dq.vmware_snapshots (backup_no);

CREATE TABLE dq.vmware_hardware_hashes (
    backup_no     bigint NOT NULL DEFAULT 0,
    hardware_hash text   NOT NULL DEFAULT ''
);
CREATE INDEX vmware_hardware_hashes_backup ON dq.vmware_hardware_hashes (backup_no);

CREATE TABLE dq.ndmp_nas (
    node_no bigint NOT NULL DEFAULT 0,
    address text   NOT NULL DEFAULT '',
    port    text   NOT NULL DEFAULT '',
    vendor  text   NOT NULL DEFAULT '',
    version text   NOT NULL DEFAULT ''
);
CREATE INDEX ndmp_nas_node ON dq.ndmp_nas (node_no);

CREATE TABLE dq.dirs (
    dir_no bigserial PRIMARY KEY,
    dname  text NOT NULL DEFAULT '' UNIQUE
);

CREATE TABLE dq.systems (
    system_id       bigserial PRIMARY KEY,
    name            text    NOT NULL DEFAULT '',
    identity        text,
    role            text    NOT NULL DEFAULT '',
    is_local_system boolean NOT NULL DEFAULT false,
    device_no       integer
);

CREATE TABLE dq.state (
    install_id text NOT NULL DEFAULT ''
);

CREATE TABLE dq.operation_status (
    operation_id bigserial PRIMARY KEY,
    subsystem    text NOT NULL DEFAULT '',
    status       text NOT NULL DEFAULT '',
    description  text NOT NULL DEFAULT ''
);

CREATE TABLE dq.operation_names (
    name_id    integer PRIMARY KEY,
    name_value text NOT NULL DEFAULT '' UNIQUE
);

CREATE TABLE dq.operation_progress (
    name_id       integer NOT NULL DEFAULT 0,
    start_time    bigint  NOT NULL DEFAULT 0,
    snapshot_time bigint  NOT NULL DEFAULT 0,
    final_size    bigint  NOT NULL DEFAULT 0,
    current_size  bigint  NOT NULL DEFAULT 0,
    pid_to_kill   integer NOT NULL DEFAULT 0,
    on_behalf_of  text    NOT NULL DEFAULT '',
    source        text    NOT NULL DEFAULT '',
    destination   text    NOT NULL DEFAULT '',
    backup_no     bigint  NOT NULL DEFAULT 0,
    backup_type   text    NOT NULL DEFAULT ''
);

CREATE TABLE dq.sync_type (
    type_id   integer PRIMARY KEY,
    type_name text NOT NULL DEFAULT '' UNIQUE
);

CREATE TABLE dq.sds_stats (
    client_name      text,
    backup_no        bigint NOT NULL DEFAULT 0,
    sync_type        integer,
    presync_seconds  bigint NOT NULL DEFAULT 0,
    sync_seconds     bigint NOT NULL DEFAULT 0,
    postsync_seconds bigint NOT NULL DEFAULT 0,
    done_epoch       bigint NOT NULL DEFAULT 0,
    bytes_on_arx     bigint,
    bytes_syncd      bigint NOT NULL DEFAULT 0,
    bytes_on_arv     bigint,
    message          text   NOT NULL DEFAULT '',
    destination      text   NOT NULL DEFAULT ''
);

CREATE TABLE dq.summary_charts (
    kind       text   NOT NULL DEFAULT '',
    read_size  bigint NOT NULL DEFAULT 0,
    write_size bigint NOT NULL DEFAULT 0,
    read_time  bigint NOT NULL DEFAULT 0,
    write_time bigint NOT NULL DEFAULT 0,
    at         timestamptz NOT NULL DEFAULT now()
);

CREATE TABLE dq.hash_values (
    hash_id           bigserial PRIMARY KEY,
    hash_type         text   NOT NULL DEFAULT '',
    hashed_length     bigint NOT NULL DEFAULT 0,
    hash_value        bytea  NOT NULL DEFAULT '',
    sis_offset        bigint,
    compressed_length bigint,
    UNIQUE (hash_type, hashed_length, hash_value)
);
CREATE INDEX hash_values_sis_offset ON dq.hash_values (sis_offset);

CREATE TABLE dq.backups_hash_values (
    backup_no       bigint NOT NULL DEFAULT 0,
    hash_id         bigint NOT NULL DEFAULT 0,
    file_offset     bigint NOT NULL DEFAULT 0,
    deduplicated    bigint DEFAULT NULL,
    hash_incomplete boolean NOT NULL DEFAULT true,
    UNIQUE (backup_no, file_offset)
);
-- With the backup behind it: a block's reference in one backup is found without walking all of that backup.
CREATE INDEX backups_hash_values_hash ON dq.backups_hash_values (hash_id, backup_no);

CREATE VIEW dq.successful_backups AS
    SELECT * FROM dq.backups WHERE (status & 36888) = 0 AND (status & 3136) <> 0 AND tape_no <> -1;

CREATE FUNCTION dq.update_summary_charts(kind text, read_size bigint, write_size bigint, read_time bigint,
                                         write_time bigint) RETURNS integer LANGUAGE sql AS $$
    INSERT INTO dq.summary_charts (kind, read_size, write_size, read_time, write_time)
        VALUES ($1, $2, $3, $4, $5) RETURNING 1;
$$;

-- The backups that a restore of `backup` needs, oldest first: those of its own node and instance that started no later
-- and pass `filter`, which names columns of dq.backups. `types` is the family: {full, differential, incremental},
-- {full, what follows it}, or one type that stands alone (a Differential stands on its newest Master).
CREATE FUNCTION dq.dqGetRestoreGroupOptimized(backup bigint, types integer[], filter text)
    RETURNS TABLE (t_backup_no bigint, t_status integer, t_exit_code integer, t_type integer, t_start_time bigint)
    LANGUAGE plpgsql STABLE AS $$
DECLARE
    members bigint[];
    family  text;
    source  text;
BEGIN
    source := 'SELECT backup_no AS no, type AS kind, start_time AS began FROM dq.backups'
           || ' WHERE node_no = (SELECT node_no FROM dq.backups WHERE backup_no = $1)'
           || ' AND instance_id = (SELECT instance_id FROM dq.backups WHERE backup_no = $1)'
           || ' AND start_time <= (SELECT start_time FROM dq.backups WHERE backup_no = $1)'
           || ' AND (' || filter || ')';
    family := CASE
        WHEN array_length(types, 1) = 3 THEN 'incremental'
        WHEN types = '{1036,1037}' OR types = '{2}' THEN 'differential'
        WHEN array_length(types, 1) = 2 THEN 'following'
        ELSE 'single' END;
    IF types = '{2}' THEN
        types := '{1,2}';
    END IF;
    EXECUTE 'WITH source AS (' || source || '),'
         || ' full_one AS (SELECT no, began FROM source WHERE kind = $2[1] ORDER BY began DESC, no DESC LIMIT 1),'
         || ' diff_one AS (SELECT no, began FROM source WHERE kind = $2[2]'
         || '   AND began > (SELECT began FROM full_one) ORDER BY began DESC, no DESC LIMIT 1),'
         || ' chain AS ('
         || '   SELECT no FROM source WHERE $3 = ''single'' AND no = $1'
         || '   UNION SELECT no FROM full_one WHERE $3 <> ''single'''
         || '   UNION SELECT no FROM diff_one WHERE $3 IN (''incremental'', ''differential'')'
         || '   UNION SELECT no FROM source WHERE $3 = ''following'' AND kind = $2[2]'
         || '     AND began > (SELECT began FROM full_one)'
         || '   UNION SELECT no FROM source WHERE $3 = ''incremental'' AND kind = $2[3]'
         || '     AND began > COALESCE((SELECT began FROM diff_one), (SELECT began FROM full_one)))'
         || ' SELECT array_agg(no) FROM chain'
        INTO members USING backup, types, family;
    RETURN QUERY SELECT b.backup_no, b.status, b.exit_code, b.type, b.start_time
        FROM dq.backups b WHERE b.backup_no = ANY (members) ORDER BY b.backup_no;
END $$;
