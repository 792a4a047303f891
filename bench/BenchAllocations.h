// Heap allocations made by the calling thread, for benchmarks that report
// allocations per item. The binary's operator new, replaced once in
// PipelineInputChannel_bench.cpp, counts them; every other benchmark pays
// one thread-local increment per allocation.
#pragma once

#include <cstdint>

inline thread_local uint64_t tAllocations = 0;
