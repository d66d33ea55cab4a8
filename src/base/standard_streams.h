// standard_streams.h - descriptors 0 to 2 of the process. For its start, before threads.
#pragma once

// Puts /dev/null on standard input, so that nothing here ever waits for a terminal.
void closeStandardInput();
