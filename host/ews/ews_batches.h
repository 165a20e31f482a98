#ifndef HOST_EWS_EWS_BATCHES_H
#define HOST_EWS_EWS_BATCHES_H

#include <cstddef>
#include <utility>
#include <vector>

// Splits items, in order, into contiguous batches [first, second) of at most
// `max_items` items whose sizes add up to at most `max_bytes` (no byte limit
// when max_bytes <= 0). An item larger than `max_bytes` gets a batch of its own;
// an unknown size (0) counts as nothing. Every item is in exactly one batch.
std::vector<std::pair<size_t, size_t>> ews_batches(const std::vector<long long>& sizes, int max_items,
                                                   long long max_bytes);

#endif
