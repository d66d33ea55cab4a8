// program_log.h - the start of a program's log, as master.ini has it, and the sweep over the log directory.
//
// Threads: the start belongs to the time before threads; a worker opens its own log with its stop thread running.
// Errors:  0, or -1 if the log can't be opened; the log then goes to "/dev/null" and the program goes on.
#pragma once

// Loads the retention keys, opens the log of `program` (an instance log, or the name in DQLOGNAME) and writes the
// banner. `defaultInstances` is the default of LogRetentionInstances.
int OpenProgramLog(const char* program, int defaultInstances);

// For a forked process that takes another program name: carries the pieces of the present log over.
int ReopenInstanceLog(const char* program);

// Picks a free or aged instance number, opens its log and records it in dq.ini.
int OpenInstanceLog(const char* program, int* instance);

// The retention sweep over g_logdir. Returns the files retained, or -1.
int PurgeOldLogs();
