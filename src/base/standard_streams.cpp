#include "base/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/file_descriptor.h"

void settleDescriptors() {
    int lowest = 0;
    // Without CLOEXEC: the tools want them too.
    while ((lowest = open("/dev/null", O_RDWR)) != -1 && lowest <= STDERR_FILENO) {
    }
    constexpr unsigned FIRST = STDERR_FILENO + 1;
    (void)close_range(FIRST, ~0U, 0);  // an old kernel has no such call: then they stay open, as they came
    if (lowest > STDERR_FILENO)
        (void)close(lowest);  // for that kernel; otherwise it is closed already
}

void closeStandardInput() {
    const FileDescriptor null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (null.isOpen())
        (void)dup2(null.get(), STDIN_FILENO);  // with a good descriptor only EINTR, which can't happen here
}
