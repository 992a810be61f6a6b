// Shared by the fuzz harnesses: seeds written into an empty corpus folder,
// and input fed in chunks whose sizes the input's first two bytes choose.
#ifndef TAMIX_TESTS_FUZZ_FUZZCOMMON_H
#define TAMIX_TESTS_FUZZ_FUZZCOMMON_H

#include <dirent.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace fuzz {

// Writes each seed, under a few chunk headers, into the first corpus folder
// named on the command line if that folder is empty.
inline void writeSeeds(int argc, char** argv, const std::vector<std::string>& seeds)
{
    for (int i = 1; i < argc; ++i) {
        if (argv[i][0] == '-')
            continue;
        DIR* d = opendir(argv[i]);
        if (!d)
            return;
        int entries = 0;
        while (readdir(d))
            ++entries;
        closedir(d);
        if (entries > 2)
            return;
        int n = 0;
        for (const std::string& s : seeds)
            for (const char* head : {"\x00\x00", "\x01\x01", "\x07\x1d"})
                std::ofstream(std::string(argv[i]) + "/seed" + std::to_string(n++),
                              std::ios::binary)
                    << std::string(head, 2) + s;
        return;
    }
}

// Calls feed(chunk, len) over the input after its two header bytes; chunk
// sizes alternate between the two bytes' values, 0 meaning all the rest.
template <typename F>
void feedChunks(const uint8_t* data, std::size_t size, F feed)
{
    if (size < 2)
        return;
    const uint8_t head[2] = {data[0], data[1]};
    std::size_t pos = 2;
    for (int i = 0; pos < size; ++i) {
        std::size_t n = head[i & 1] ? head[i & 1] : size - pos;
        if (n > size - pos)
            n = size - pos;
        // A copy of exactly the chunk, so that ASan sees any read past it.
        std::vector<char> chunk(data + pos, data + pos + n);
        feed(chunk.data(), static_cast<int>(n));
        pos += n;
    }
}

// Bytes allocated now, as AddressSanitizer counts them; 0 without it.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));
inline std::size_t allocatedBytes()
{
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes() : 0;
}

inline double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// The resource mode (TAMIX_FUZZ_RESOURCE=1): each input is also fed this
// many times over, and its cost must grow no faster than that.
const int kResourceTimes = 32;
inline bool resourceMode()
{
    static const bool on = std::getenv("TAMIX_FUZZ_RESOURCE") != nullptr;
    return on;
}

// Fails when the input fed kResourceTimes over took more than a linear
// share of processor time (with room for noise and warm caches).
inline void expectLinear(double once, double many)
{
    if (many > kResourceTimes * once * 6 + 0.05) {
        std::fprintf(stderr, "%d times the input took %.3f s, once %.3f s\n", kResourceTimes, many,
                     once);
        __builtin_trap();
    }
}

} // namespace fuzz

#endif
