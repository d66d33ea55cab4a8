// stop_thread.h - how a worker ends on a signal.
#pragma once

#include <thread>

#include "base/file_descriptor.h"
#include "worker/job.h"

// From its making on, SIGTERM, SIGINT and SIGQUIT of this process are taken by a thread, which undoes what a worker has
// open and ends the process with status 1; the queue row is left as it is. Not in a handler: libpq and libcurl can't be
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
