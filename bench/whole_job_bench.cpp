// whole_job_bench - what a replication costs, beside a peer in the same run, on this machine.
//
//   whole_job_bench send   [MIB [ROUNDS [KIB [THREADS]]]]  throughput of the send phases, against curl -T and restic
//   copy whole_job_bench second [MIB]           a second backup, 1% changed, over a line with latency whole_job_bench
//   pace   [SECONDS]       how exactly a bandwidth limit is kept whole_job_bench memory [FEW MANY]      peak memory of
//   a worker at two numbers of blocks whole_job_bench queue  [BACKUPS]       an idle pass of the daemon over a full
//   catalogue

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "bench_lab.h"

namespace {

unsigned argument(int argc, char** argv, int index, unsigned defaultValue) {
    return argc > index ? std::max(1U, static_cast<unsigned>(std::strtoul(argv[index], nullptr, 10))) : defaultValue;
}

int usage() {
    fprintf(stderr,
            "Usage: whole_job_bench send [MIB [ROUNDS [KIB [THREADS]]]] | second [MIB] | pace [SECONDS] | memory [FEW "
            "MANY] | queue "
            "[BACKUPS]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    try {
        if (what == "send")
            return bench::measureSend(argument(argc, argv, 2, 512), argument(argc, argv, 3, 3),
                                      argc > 4 ? argument(argc, argv, 4, 0) : 0, argc > 5 ? std::atoi(argv[5]) : -1);
        if (what == "second")
            return bench::measureSecondBackup(argument(argc, argv, 2, 512));
        if (what == "pace")
            return bench::measurePace(argument(argc, argv, 2, 10));
        if (what == "memory")
            return bench::measureMemory(argument(argc, argv, 2, 10000), argument(argc, argv, 3, 1000000));
        if (what == "store")
            return bench::measureStore(argument(argc, argv, 2, 256));
        if (what == "queue")
            return bench::measureQueue(argument(argc, argv, 2, 100000));
    } catch (const std::exception& e) {
        fprintf(stderr, "whole_job_bench: %s\n", e.what());
        return 1;
    }
    return usage();
}
