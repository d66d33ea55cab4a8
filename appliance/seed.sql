-- The rows that a fresh catalogue brings.
INSERT INTO dq.operation_names VALUES (10, 'processing'), (11, 'no_activity');
INSERT INTO dq.application_lookup (app_id, name, type) VALUES
    (1, 'file-level', 'file-level'), (2, 'Exchange', 'Exchange'), (3, 'SQL Server', 'SQL Server'),
    (4, 'VMware', 'VMware'), (5, 'Hyper-V', 'Hyper-V'), (6, 'Oracle', 'Oracle'), (7, 'SharePoint', 'SharePoint'),
    (8, 'NDMP Device', 'NDMP Device'), (9, 'UCS Service Profile', 'UCS Service Profile'),
    (10, 'System Metadata', 'System Metadata');
INSERT INTO dq.sync_type (type_id, type_name)
    SELECT row_number() OVER (), name FROM unnest(ARRAY[
        'Master', 'Differential', 'Incremental', 'Selective', 'MSExch Full', 'MSExch Diff', 'MSExch Incr',
        'MSSQL Full', 'MSSQL Diff', 'MSSQL Trans', 'ESX VM Full', 'ESX VM Diff', 'ESX VM Incr', 'NDMP Full',
        'NDMP Diff', 'NDMP Incr', 'BareMetal', 'LocalDir', 'Hyper-V Full', 'Hyper-V Diff', 'Hyper-V Incr',
        'Oracle Full', 'Oracle Incr', 'SharePoint Full', 'SharePoint Diff', 'System Metadata', 'Generic Full',
        'Generic Diff', 'Generic Incr', 'UCS Service Profile Full', 'UCS Service Profile Diff',
        'UCS Service Profile Incr', 'unknown']) AS name;
INSERT INTO dq.state (install_id) VALUES (gen_random_uuid()::text);
INSERT INTO dq.systems (name, role, is_local_system) VALUES ('appliance', '', true);
