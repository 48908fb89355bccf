#pragma once

#include <cstddef>
#include <functional>

namespace Replicate {

// Calls work(i) for every i below count, at most limit calls at a time,
// each on a thread of its own but one on the calling thread; returns once
// all have returned. Throws the first exception that work threw, after the
// others ended.
void forEachConcurrently(size_t count, size_t limit, const std::function<void(size_t)>& work);

}  // namespace Replicate
