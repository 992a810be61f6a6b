// Heap allocations of the whole process: this program interposes malloc,
// calloc, realloc and the aligned allocators, so every allocation counts,
// whoever makes it (the library, QtCore, expat, zlib, the C++ runtime).
#ifndef TAMIX_BENCH_BENCH_ALLOC_H
#define TAMIX_BENCH_BENCH_ALLOC_H

// Counts the allocations of the whole process while it lives. Not nested.
class AllocCount {
public:
    AllocCount();
    ~AllocCount();
    long allocations() const;

private:
    long start_;
};

#endif
