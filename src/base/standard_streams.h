// standard_streams.h - descriptors 0 to 2 of the process. For its start, before threads.
#pragma once

// Whatever started the process, makes its descriptors what every program expects: 0 to 2 are open, on /dev/null where
// they were not, so that no log or connection gets one of these numbers and is written over later; none above 2 is left
// over from the starter.
void settleDescriptors();

// Puts /dev/null on standard input, so that nothing here ever waits for a terminal.
void closeStandardInput();
