#include "base/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/file_descriptor.h"

void closeStandardInput() {
    const FileDescriptor null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (null.isOpen())
        (void)dup2(null.get(), STDIN_FILENO);  // with a good descriptor only EINTR, which can't happen here
}
