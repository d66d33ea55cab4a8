// stop_thread.h - how a worker ends on a signal.
#pragma once

#include <thread>

#include "base/file_descriptor.h"
#include "worker/job.h"

// From its making on, SIGTERM, SIGINT and SIGQUIT of this process are taken by a thread. Its first act closes the job
// gate: from then on nothing that others can see is changed by the job. Then it ends the job's tools, deletes the
// progress rows and ends the process with status 1; the queue row is left as it is. Not in a handler: libpq can't be
// called there. While hash data is being changed the signal waits for the end of that. The three signals stay blocked
// in the caller and the threads that it starts, also after the end of this object.
class StopThread {
public:
    explicit StopThread(WorkerJob* job);
    StopThread(const StopThread&) = delete;
    StopThread& operator=(const StopThread&) = delete;
    ~StopThread();

private:
    void run();
    void stopWorker();

    WorkerJob* job_;
    FileDescriptor signals_;
    FileDescriptor wake_;
    std::thread thread_;  // last: it uses all above
};
