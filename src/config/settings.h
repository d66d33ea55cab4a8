// settings.h - the settings that the daemon copies from master.ini, section Replication.
#pragma once

#include <cstdint>
#include <string>

// Filled by readConfiguration (daemon) alone, in the parent between jobs; everyone else reads. A forked worker keeps
// the values of its birth. The initial values are the defaults of the keys, save maxConcurrent: no worker starts before
// the file was read.
struct ReplicationSettings {
    std::string targetName = "vault";    // SyncTo, at most 64 bytes
    int timeDelay = 60;                  // TimeDelay, seconds between passes
    int throttle = 1;                    // Throttle, kept only
    int verifyCount = 1;                 // VerifyOnGet + VerifyOnPut, kept only
    int maxConcurrent = 0;               // MaxConcurrent, workers at a time
    int recordRetention = 1;             // RecordRetention, kept only
    std::uint64_t maxBlocks = 0xa00000;  // MaxBlocks, bytes of the block buffer
    int metaSize = 1024;                 // MetaSize, records of one batch
    int cluster = 1;                     // Cluster, 1 sends many blocks a request, 0 one
    int queueScheme = 0;                 // QueueScheme
    int retryCount = 3;                  // RetryCount
    bool checkpoint = false;             // Checkpoint
    bool localBlockElimination = true;   // LocalBlockElimination
    int blockEliminationType = 2;        // BlockEliminationType
    int blockEliminationCandidate = 2;   // BlockEliminationCandidate
};

extern ReplicationSettings g_settings;

// What started the process, as its forked workers see it. Written once, by the daemon's options.
struct DaemonMode {
    bool attached = false;   // -a: one log on standard error, for workers too
    bool daemonize = true;   // -d clears it
    float loadLimit = 0.0F;  // -l, 0 none
};
extern DaemonMode g_mode;
