// blockOut_internal.h - what the schedule's parser and the shared table have in common.
#pragma once

#include "bandwidth/blockOut.h"

void fillBandwidthTable(BandwidthTable* table, std::uint64_t limit);

// Copies a schedule into the handle's table, if the handle may write it.
void publishBandwidthTable(const BandwidthTable& from, const BandwidthHandle& to);
